// SPDX-License-Identifier: GPL-3.0-or-later
// Key routing by the open overlay or prompt, the prompts themselves, the mouse, pasted
// text and the dispatch of every action.

#include "app/AppController.h"

#include "playback/AudioEngine.h"
#include "playback/PlaybackController.h"
#include "state/CommandParser.h"
#include "state/KeyBindings.h"
#include "text/Text.h"
#include "ui/PlayerView.h"

#include <algorithm>
#include <cstdlib>

namespace trovan {

namespace {

bool isChar(const Key& key, const char* c) {
    return key.kind == Key::Kind::char_ && key.text == c;
}

bool inside(const Rect& r, int x, int y) {
    return x >= r.x && x < r.x + r.width && y >= r.y && y < r.y + r.height;
}

constexpr auto kDoubleClick = std::chrono::milliseconds(400);

} // namespace

void AppController::handleKey(const Key& key) {
    switch (state_.overlay.kind) {
    case Overlay::Kind::none:
        if (loudness_ && key.kind == Key::Kind::escape) {
            cancelAnalysis();
            break;
        }
        if (state_.lyricsSync && handleSyncKey(key)) break;
        if (handleLyricsKey(key)) break;
        if (auto action = KeyBindings::lookup(key)) dispatch(*action);
        break;
    case Overlay::Kind::help:
        handleHelpKey(key);
        break;
    case Overlay::Kind::equalizer:
        handleEqualizerKey(key);
        break;
    case Overlay::Kind::tagForm:
        handleFormKey(key);
        break;
    case Overlay::Kind::roots:
        handleRootsKey(key);
        break;
    case Overlay::Kind::queue:
        handleQueueKey(key);
        break;
    case Overlay::Kind::prompt:
        handlePromptKey(key, state_.overlay.promptKind);
        break;
    }
    requestRender();
}

void AppController::handleHelpKey(const Key& key) {
    if (key.kind == Key::Kind::up || isChar(key, "k")) {
        state_.helpOffset = std::max(0, state_.helpOffset - 1);
    } else if (key.kind == Key::Kind::down || isChar(key, "j")) {
        ++state_.helpOffset;
    } else if (key.kind == Key::Kind::pageUp) {
        state_.helpOffset = std::max(0, state_.helpOffset - 10);
    } else if (key.kind == Key::Kind::pageDown) {
        state_.helpOffset += 10;
    } else {
        state_.overlay = Overlay::none();
    }
}

void AppController::handleRootsKey(const Key& key) {
    const int count = static_cast<int>(state_.settings.roots.size());
    if (key.kind == Key::Kind::escape || key.kind == Key::Kind::enter || isChar(key, "q")) {
        state_.overlay = Overlay::none();
    } else if (key.kind == Key::Kind::up || isChar(key, "k")) {
        state_.rootsCursor = std::max(0, state_.rootsCursor - 1);
    } else if (key.kind == Key::Kind::down || isChar(key, "j")) {
        state_.rootsCursor = std::max(0, std::min(state_.rootsCursor + 1, count - 1));
    } else if (isChar(key, "a")) {
        openPrompt(PromptKind::command, "add ");
    } else if (isChar(key, "d")) {
        if (state_.rootsCursor >= 0 && state_.rootsCursor < count) {
            removeRoot(state_.settings.roots[static_cast<std::size_t>(state_.rootsCursor)]);
            const int left = static_cast<int>(state_.settings.roots.size());
            state_.rootsCursor = std::max(0, std::min(state_.rootsCursor, left - 1));
        }
    } else if (isChar(key, "r")) {
        reindex(false);
    }
}

void AppController::openPrompt(PromptKind kind, std::string text) {
    state_.input = TextInput(std::move(text));
    state_.overlay = Overlay::prompt(kind);
    if (kind == PromptKind::search) {
        state_.searchOrigin = state_.artists.cursor;
        state_.searchMiss = false;
        state_.focus = Focus::artists;
    }
}

void AppController::handlePromptKey(const Key& key, PromptKind kind) {
    if (kind == PromptKind::confirm) {
        handleConfirmKey(key);
        return;
    }
    if (key.kind == Key::Kind::enter) {
        state_.overlay = Overlay::none();
        const std::string text = state_.input.text;
        if (kind == PromptKind::command) {
            if (text::trim(text).empty()) return;
            CommandResult result = CommandParser::parse(text);
            if (auto* action = std::get_if<Action>(&result))
                dispatch(*action);
            else
                report(std::get<CommandError>(result).message(), true);
        } else if (kind == PromptKind::seek) {
            if (auto seconds = CommandParser::parseTime(text))
                seekTo(*seconds);
            else
                report("Tiempo inválido: usa 1:42", true);
        }
        return;
    }
    if (key.kind == Key::Kind::escape || key == Key::ctrl('c')) {
        state_.overlay = Overlay::none();
        if (kind == PromptKind::search && state_.searchOrigin)
            selectArtistRow(*state_.searchOrigin);
        return;
    }
    const std::string before = state_.input.text;
    state_.input.handle(key);
    if (kind == PromptKind::search && state_.input.text != before) jumpToArtist(state_.input.text);
}

void AppController::handlePaste(const std::string& text) {
    switch (state_.overlay.kind) {
    case Overlay::Kind::prompt:
        state_.input.insert(text);
        if (state_.overlay.promptKind == PromptKind::search) jumpToArtist(state_.input.text);
        break;
    case Overlay::Kind::tagForm:
        if (state_.form && state_.form->focused >= 0 &&
            state_.form->focused < static_cast<int>(state_.form->fields.size()))
            state_.form->fields[static_cast<std::size_t>(state_.form->focused)].input.insert(text);
        break;
    default:
        break;
    }
    requestRender();
}

bool AppController::isDoubleClick(int x, int y) {
    const auto now = host_.now();
    const bool twice = lastClick_ && lastClick_->y == y && std::abs(lastClick_->x - x) < 3 &&
                       now - lastClick_->time < kDoubleClick && now >= lastClick_->time;
    lastClick_ = Click{x, y, now};
    return twice;
}

void AppController::handleMouse(const MouseEvent& event) {
    if (layout_.isTooSmall()) return;
    if (state_.overlay.kind == Overlay::Kind::queue) {
        handleQueueMouse(event);
        return;
    }
    if (state_.overlay.kind != Overlay::Kind::none) return;
    const int x = event.x, y = event.y;
    const Layout& l = layout_;

    if (event.kind == MouseEvent::Kind::scrollUp || event.kind == MouseEvent::Kind::scrollDown) {
        const int n = event.kind == MouseEvent::Kind::scrollUp ? -3 : 3;
        if (inside(l.artists, x, y)) {
            state_.focus = Focus::artists;
            moveCursor(n);
        } else if (inside(l.library, x, y)) {
            state_.focus = Focus::library;
            if (state_.lyricsVisible)
                scrollLyrics(n);
            else
                moveCursor(n);
        }
        requestRender();
        return;
    }
    if (event.kind == MouseEvent::Kind::drag) {
        seekFromMouse(x, y);
        return;
    }
    if (event.kind == MouseEvent::Kind::release) return;

    const bool doubleClick = isDoubleClick(x, y);

    if (inside(l.artistsSearch, x, y)) {
        state_.focus = Focus::artists;
        openPrompt(PromptKind::search);
    } else if (inside(l.artistsList, x, y)) {
        state_.focus = Focus::artists;
        selectArtistRow(state_.artists.offset + (y - l.artistsList.y));
        if (doubleClick) activate();
    } else if (inside(l.libraryList, x, y) && state_.lyricsVisible) {
        state_.focus = Focus::library;
        clickLyrics(y - l.libraryList.y);
    } else if (inside(l.libraryList, x, y)) {
        state_.focus = Focus::library;
        selectLibraryRow(state_.library.offset + (y - l.libraryList.y));
        if (doubleClick) activate();
    } else {
        for (const auto& [button, rect] : l.buttons) {
            if (inside(rect, x, y)) {
                press(button);
                requestRender();
                return;
            }
        }
        seekFromMouse(x, y);
    }
    requestRender();
}

void AppController::seekFromMouse(int x, int y) {
    const Rect& p = layout_.progress;
    const int L = text::displayWidth(PlayerView::format(state_.playback.duration)) + 1;
    const int barStart = p.x + L;
    const int width = p.width - 2 * L;
    if (width <= 0 || y != p.y || x < barStart - 1 || x > barStart + width) return;
    const double fraction =
        std::clamp(static_cast<double>(x - barStart) / static_cast<double>(width), 0.0, 1.0);
    seekTo(fraction * state_.playback.duration);
    requestRender();
}

void AppController::dispatch(const Action& action) {
    using K = Action::Kind;
    switch (action.kind) {
    case K::move:
        if (state_.focus == Focus::library && state_.lyricsVisible)
            scrollLyrics(action.count());
        else if (state_.focus == Focus::player)
            setVolume(state_.settings.volume - 0.05f * static_cast<float>(action.count()));
        else
            moveCursor(action.count());
        break;
    case K::page:
        if (state_.focus == Focus::player) break;
        if (state_.focus == Focus::library && state_.lyricsVisible)
            scrollLyrics(action.count() * listHeight(Focus::library));
        else
            moveCursor(action.count() * listHeight(state_.focus));
        break;
    case K::extendSelection:
        extendSelection(action.count());
        break;
    case K::seekBy:
        seekTo(playback_->position() + action.seconds());
        break;
    case K::seekTo:
        seekTo(action.seconds());
        break;
    case K::seekFraction:
        seekTo(action.fraction() * state_.playback.duration);
        break;
    case K::volumeBy:
        setVolume(state_.settings.volume + action.volume());
        break;
    case K::setVolume:
        setVolume(action.volume());
        break;
    case K::addRoot:
        addRoot(action.text(), true);
        break;
    case K::removeRoot:
        removeRoot(action.text());
        break;
    case K::reindex:
        reindex(action.flag());
        break;
    case K::watch:
        setWatching(action.text());
        break;
    case K::setReplayGain:
        setReplayGainMode(action.text());
        break;
    case K::setPreamp:
        setPreamp(action.seconds());
        break;
    case K::setCrossfade:
        setCrossfade(action.seconds());
        break;
    case K::analyzeLoudness:
        analyzeLoudness();
        break;
    case K::eqPreset:
        choosePreset(action.text());
        break;
    case K::eqSave:
        savePreset(action.text());
        break;
    case K::eqEnabled:
        setEqualizerEnabled(action.flag());
        break;
    case K::focusNext:
        cycleFocus(1);
        break;
    case K::focusPrevious:
        cycleFocus(-1);
        break;
    case K::left:
        if (state_.focus == Focus::player)
            movePlayerButton(-1);
        else
            state_.focus = Focus::artists;
        break;
    case K::right:
        if (state_.focus == Focus::player) {
            movePlayerButton(1);
        } else if (state_.focus != Focus::library) {
            state_.focus = Focus::library;
            snapLibraryCursor();
        }
        break;
    case K::jumpToStart:
        moveCursor(-1000000);
        break;
    case K::jumpToEnd:
        moveCursor(1000000);
        break;
    case K::activate:
        activate();
        break;
    case K::toggleMark:
        toggleMark();
        break;
    case K::clearSelection:
        clearSelection();
        break;
    case K::togglePlay:
        playback_->togglePlay();
        break;
    case K::play:
        playback_->resume();
        break;
    case K::pause:
        playback_->pause();
        break;
    case K::next:
        playback_->next();
        break;
    case K::previous:
        playback_->previous();
        break;
    case K::toggleMute:
        toggleMute();
        break;
    case K::toggleShuffle:
        toggleShuffle();
        break;
    case K::cycleRepeat:
        cycleRepeat();
        break;
    case K::openCommandLine:
        openPrompt(PromptKind::command);
        break;
    case K::openSearch:
        openPrompt(PromptKind::search);
        break;
    case K::openSeekPrompt:
        openPrompt(PromptKind::seek);
        break;
    case K::openHelp:
        state_.overlay = Overlay::help();
        state_.helpOffset = 0;
        break;
    case K::openEqualizer:
        state_.overlay = Overlay::equalizer();
        break;
    case K::closeOverlay:
        state_.overlay = Overlay::none();
        break;
    case K::listRoots:
        state_.overlay = Overlay::roots();
        state_.rootsCursor = 0;
        break;
    case K::toggleLyrics:
        toggleLyrics();
        break;
    case K::syncLyrics:
        startSync();
        break;
    case K::editTags:
        openTagForm();
        break;
    case K::editAllTags:
        editAllTags();
        break;
    case K::editLyrics:
        editLyrics();
        break;
    case K::setCover:
        setCover(action.text());
        break;
    case K::setCoverMode:
        // The main loop sees the new setting at the next frame and applies it.
        state_.settings.coverMode = action.text();
        saveSettings();
        report("Carátulas: " + action.text());
        break;
    case K::removeCover:
        removeCover();
        break;
    case K::enqueue:
        enqueueSelection(false);
        break;
    case K::enqueueNext:
        enqueueSelection(true);
        break;
    case K::openQueue:
        openQueue();
        break;
    case K::savePlaylist:
        savePlaylist(action.text());
        break;
    case K::loadPlaylist:
        loadPlaylist(action.text());
        break;
    case K::exportPlaylist:
        exportPlaylist(action.text());
        break;
    case K::deletePlaylist:
        deletePlaylist(action.text());
        break;
    case K::quit:
        quit();
    }
    requestRender();
}

} // namespace trovan
