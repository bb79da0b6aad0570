// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Publishes what plays to the desktop (media keys, status bars, lock screens, phone
// remotes) and turns the desktop's remote requests into commands the controller
// carries out like key presses. Without a session bus, or when another Trovan already
// owns the player's name, it does nothing and says nothing.

#include "config/RepeatMode.h"
#include "library/Track.h"
#include "playback/PlaybackQueue.h"
#include "playback/PlaybackState.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace trovan {

class LoopSource;

// A request from the desktop, in the program's own terms.
struct RemoteCommand {
    enum class Kind {
        quit,
        togglePlay,
        play,
        pause,
        next,
        previous,
        seekTo,        // value: seconds
        seekBy,        // value: seconds
        setVolume,     // value: 0…1
        setShuffle,    // flag
        setRepeatMode, // repeatMode
        openFile,      // path: an existing audio file
        goTo,          // value: place in the queue, path: the entry expected there
    };
    Kind kind = Kind::play;
    double value = 0;
    bool flag = false;
    RepeatMode repeatMode = RepeatMode::off;
    std::string path;

    RemoteCommand() = default;
    RemoteCommand(Kind k, double v = 0) : kind(k), value(v) {} // NOLINT: implicit from Kind

    bool operator==(const RemoteCommand&) const = default;
};

class NowPlayingBridge {
public:
    using Task = std::function<void()>;
    using Dispatch = std::function<void(const RemoteCommand&)>;

    struct Environment {
        std::function<void(Task)> post;       // to the main thread, from any thread
        std::function<void(Task)> background; // off the main thread (slow file work)
        std::function<double()> position;     // playback position in seconds
        std::filesystem::path artFolder;      // where published covers are written
        // What the library knows of a path (the track list's metadata).
        std::function<std::optional<Track>(const std::string&)> lookup;
    };

    explicit NowPlayingBridge(Environment environment);
    ~NowPlayingBridge();
    NowPlayingBridge(const NowPlayingBridge&) = delete;
    NowPlayingBridge& operator=(const NowPlayingBridge&) = delete;

    // `dispatch` receives every remote request, on the main thread.
    void init(Dispatch dispatch);
    // Connects to the session bus on a short-lived thread of its own; once the player
    // is published, `serve` gets its connection (on the main thread) for the loop to
    // watch. Nothing waits for it: a bus that never answers only leaves that thread
    // waiting.
    void connect(std::function<void(LoopSource&)> serve);
    bool isConnected() const;

    // Publishes the playback snapshot. The position is not part of it: clients read it
    // when they need it.
    void update(const PlaybackState& state);
    void updateSettings(float volume, bool shuffle, RepeatMode repeatMode);
    // Publishes the queue as the track list: at most kTrackListBefore entries before the
    // current one and kTrackListAfter from it on (desktops show what comes next, not a
    // whole collection). An entry whose file is listed already is left out: ids are
    // per file.
    void updateQueue(const PlaybackQueue& queue);
    static constexpr int kTrackListBefore = 10;
    static constexpr int kTrackListAfter = 100;
    // The current track's encoded cover (embedded or folder image), or none. The caller
    // passes only bytes it has decoded (the player panel draws them), so they are not
    // decoded again; published once written where clients can read it.
    void setArtwork(std::optional<std::vector<std::uint8_t>> data);
    // The position jumped.
    void seeked();

    // The object path clients use to name the track at `path` (same path, same id).
    static std::string trackId(const std::string& path);
    // "file://" and the path with everything but unreserved characters and '/' escaped.
    static std::string fileUrl(const std::string& path);
    // The local path a "file://" URL names; none when it is not such a URL.
    static std::optional<std::string> pathFromFileUrl(const std::string& url);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace trovan
