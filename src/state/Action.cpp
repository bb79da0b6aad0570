// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/Action.h"

#include <ostream>
#include <sstream>

namespace trovan {

namespace {
const char* name(Action::Kind k) {
    using K = Action::Kind;
    switch (k) {
    case K::move:
        return "move";
    case K::page:
        return "page";
    case K::extendSelection:
        return "extendSelection";
    case K::seekBy:
        return "seekBy";
    case K::seekTo:
        return "seekTo";
    case K::seekFraction:
        return "seekFraction";
    case K::volumeBy:
        return "volumeBy";
    case K::setVolume:
        return "setVolume";
    case K::addRoot:
        return "addRoot";
    case K::removeRoot:
        return "removeRoot";
    case K::reindex:
        return "reindex";
    case K::eqPreset:
        return "eqPreset";
    case K::eqSave:
        return "eqSave";
    case K::eqEnabled:
        return "eqEnabled";
    case K::setCover:
        return "setCover";
    case K::setCoverMode:
        return "setCoverMode";
    case K::watch:
        return "watch";
    case K::savePlaylist:
        return "savePlaylist";
    case K::loadPlaylist:
        return "loadPlaylist";
    case K::exportPlaylist:
        return "exportPlaylist";
    case K::deletePlaylist:
        return "deletePlaylist";
    case K::setReplayGain:
        return "setReplayGain";
    case K::setPreamp:
        return "setPreamp";
    case K::setCrossfade:
        return "setCrossfade";
    case K::focusNext:
        return "focusNext";
    case K::focusPrevious:
        return "focusPrevious";
    case K::left:
        return "left";
    case K::right:
        return "right";
    case K::jumpToStart:
        return "jumpToStart";
    case K::jumpToEnd:
        return "jumpToEnd";
    case K::activate:
        return "activate";
    case K::toggleMark:
        return "toggleMark";
    case K::clearSelection:
        return "clearSelection";
    case K::togglePlay:
        return "togglePlay";
    case K::play:
        return "play";
    case K::pause:
        return "pause";
    case K::next:
        return "next";
    case K::previous:
        return "previous";
    case K::toggleMute:
        return "toggleMute";
    case K::toggleShuffle:
        return "toggleShuffle";
    case K::cycleRepeat:
        return "cycleRepeat";
    case K::openCommandLine:
        return "openCommandLine";
    case K::openSearch:
        return "openSearch";
    case K::openSeekPrompt:
        return "openSeekPrompt";
    case K::openHelp:
        return "openHelp";
    case K::openEqualizer:
        return "openEqualizer";
    case K::closeOverlay:
        return "closeOverlay";
    case K::listRoots:
        return "listRoots";
    case K::editTags:
        return "editTags";
    case K::editAllTags:
        return "editAllTags";
    case K::editLyrics:
        return "editLyrics";
    case K::toggleLyrics:
        return "toggleLyrics";
    case K::syncLyrics:
        return "syncLyrics";
    case K::removeCover:
        return "removeCover";
    case K::enqueue:
        return "enqueue";
    case K::enqueueNext:
        return "enqueueNext";
    case K::openQueue:
        return "openQueue";
    case K::analyzeLoudness:
        return "analyzeLoudness";
    case K::quit:
        return "quit";
    }
    return "?";
}
} // namespace

const std::string& Action::text() const {
    static const std::string empty;
    const std::string* v = std::get_if<std::string>(&payload);
    return v ? *v : empty;
}

std::string toString(const Action& action) {
    std::ostringstream os;
    os << name(action.kind);
    std::visit(
        [&os](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
            } else if constexpr (std::is_same_v<T, std::string>) {
                os << "(\"" << v << "\")";
            } else if constexpr (std::is_same_v<T, bool>) {
                os << '(' << (v ? "true" : "false") << ')';
            } else {
                os << '(' << v << ')';
            }
        },
        action.payload);
    return os.str();
}

std::ostream& operator<<(std::ostream& os, const Action& action) {
    return os << toString(action);
}

} // namespace trovan
