// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Every user intention the controller can carry out. Keys, the ":" command line and
// the system's media controls all end up as one of these values.

#include <iosfwd>
#include <string>
#include <variant>

namespace trovan {

struct Action {
    enum class Kind {
        // With a payload.
        move,            // rows (int)
        page,            // pages (int)
        extendSelection, // direction (int)
        seekBy,          // seconds (double)
        seekTo,          // seconds (double)
        seekFraction,    // 0.0–1.0 (double)
        volumeBy,        // step (float)
        setVolume,       // 0.0–1.0 (float)
        addRoot,         // folder (string)
        removeRoot,      // folder (string)
        reindex,         // force (bool)
        eqPreset,        // preset name (string)
        eqSave,          // preset name (string)
        eqEnabled,       // on (bool)
        setCover,        // image path (string)
        setCoverMode,    // "auto", "kitty", "sixel" or "bloques" (string)
        watch,           // "on", "off", or "" to show how each folder is followed (string)
        savePlaylist,    // list name (string)
        loadPlaylist,    // list name or file (string)
        exportPlaylist,  // file (string)
        deletePlaylist,  // list name (string)
        setReplayGain,   // "off", "track", "album" or "auto" (string)
        setPreamp,       // dB, -15 to +15 (double)
        setCrossfade,    // seconds, 0 to 12 (double)
        // Without a payload.
        focusNext,
        focusPrevious,
        left,
        right,
        jumpToStart,
        jumpToEnd,
        activate,
        toggleMark,
        clearSelection,
        togglePlay,
        play,
        pause,
        next,
        previous,
        toggleMute,
        toggleShuffle,
        cycleRepeat,
        openCommandLine,
        openSearch,
        openSeekPrompt,
        openHelp,
        openEqualizer,
        closeOverlay,
        listRoots,
        editTags,
        editAllTags,
        editLyrics,
        toggleLyrics,
        syncLyrics,
        removeCover,
        enqueue,
        enqueueNext,
        openQueue,
        analyzeLoudness,
        quit,
    };
    using Payload = std::variant<std::monostate, int, double, float, bool, std::string>;

    Kind kind = Kind::quit;
    Payload payload;

    Action() = default;
    // Payload-less cases convert implicitly: `Action a = Action::Kind::quit;`.
    Action(Kind k) : kind(k) {} // NOLINT(google-explicit-constructor)

    static Action move(int rows) { return {Kind::move, rows}; }
    static Action page(int pages) { return {Kind::page, pages}; }
    static Action extendSelection(int direction) { return {Kind::extendSelection, direction}; }
    static Action seekBy(double seconds) { return {Kind::seekBy, seconds}; }
    static Action seekTo(double seconds) { return {Kind::seekTo, seconds}; }
    static Action seekFraction(double fraction) { return {Kind::seekFraction, fraction}; }
    static Action volumeBy(float step) { return {Kind::volumeBy, step}; }
    static Action setVolume(float volume) { return {Kind::setVolume, volume}; }
    static Action addRoot(std::string path) { return {Kind::addRoot, std::move(path)}; }
    static Action removeRoot(std::string path) { return {Kind::removeRoot, std::move(path)}; }
    static Action reindex(bool force) { return {Kind::reindex, force}; }
    static Action eqPreset(std::string name) { return {Kind::eqPreset, std::move(name)}; }
    static Action eqSave(std::string name) { return {Kind::eqSave, std::move(name)}; }
    static Action eqEnabled(bool on) { return {Kind::eqEnabled, on}; }
    static Action setCover(std::string path) { return {Kind::setCover, std::move(path)}; }
    static Action setCoverMode(std::string mode) { return {Kind::setCoverMode, std::move(mode)}; }
    static Action watch(std::string mode) { return {Kind::watch, std::move(mode)}; }
    static Action savePlaylist(std::string name) { return {Kind::savePlaylist, std::move(name)}; }
    static Action loadPlaylist(std::string name) { return {Kind::loadPlaylist, std::move(name)}; }
    static Action exportPlaylist(std::string path) {
        return {Kind::exportPlaylist, std::move(path)};
    }
    static Action deletePlaylist(std::string name) {
        return {Kind::deletePlaylist, std::move(name)};
    }
    static Action setReplayGain(std::string mode) { return {Kind::setReplayGain, std::move(mode)}; }
    static Action setPreamp(double db) { return {Kind::setPreamp, db}; }
    static Action setCrossfade(double seconds) { return {Kind::setCrossfade, seconds}; }

    // Payload accessors; each returns the neutral value when the case carries another.
    int count() const { return get<int>(0); }
    double seconds() const { return get<double>(0.0); }
    double fraction() const { return get<double>(0.0); }
    float volume() const { return get<float>(0.0f); }
    bool flag() const { return get<bool>(false); }
    const std::string& text() const;

    bool operator==(const Action&) const = default;

private:
    Action(Kind k, Payload p) : kind(k), payload(std::move(p)) {}
    template <typename T> T get(T fallback) const {
        const T* v = std::get_if<T>(&payload);
        return v ? *v : fallback;
    }
};

// Readable form such as "move(-1)" or "addRoot(\"~/Music\")", for diagnostics.
std::string toString(const Action& action);
std::ostream& operator<<(std::ostream& os, const Action& action);

} // namespace trovan
