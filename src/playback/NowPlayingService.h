// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The boundary between the now-playing bridge and the module that speaks the desktop's
// media-player protocol on the session bus. Only plain values cross it, so the bus
// library's headers stay inside the module.

#include "playback/LoopSource.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace trovan {

// What the desktop shows, in the protocol's own terms.
struct NowPlayingInfo {
    std::string status = "Stopped"; // Playing, Paused, Stopped
    std::string trackId;            // object path; empty when no track is loaded
    int64_t lengthUs = 0;
    std::string title;
    std::vector<std::string> artists;
    std::string album;
    std::string albumArtist;
    int trackNumber = 0; // 0: unknown, left out
    int discNumber = 0;
    std::string url;    // file://
    std::string artUrl; // file://, empty when there is no usable cover
    double volume = 1;
    bool shuffle = false;
    std::string loopStatus = "None"; // None, Playlist, Track
    bool hasTrack = false;
    bool canSeek = false;

    bool operator==(const NowPlayingInfo&) const = default;
};

// What remote clients ask for, answered by the bridge on the main thread. A request
// that cannot be honoured throws std::invalid_argument with a message for the client.
class NowPlayingRemote {
public:
    virtual ~NowPlayingRemote() = default;
    virtual const NowPlayingInfo& info() const = 0;
    virtual int64_t positionUs() const = 0;

    virtual void quit() = 0;
    virtual void playPause() = 0;
    virtual void play() = 0;
    virtual void pause() = 0;
    virtual void stop() = 0;
    virtual void next() = 0;
    virtual void previous() = 0;
    virtual void seek(int64_t offsetUs) = 0;
    virtual void setPosition(const std::string& trackId, int64_t positionUs) = 0;
    virtual void openUri(const std::string& uri) = 0;
    virtual void setVolume(double volume) = 0;
    virtual void setShuffle(bool on) = 0;
    virtual void setLoopStatus(const std::string& status) = 0;

    // The track list: a window of the queue around the current entry, by track id.
    virtual std::vector<std::string> trackIds() const = 0;
    // Metadata of the listed ids among `ids`, in that order; others are left out.
    virtual std::vector<NowPlayingInfo>
    tracksMetadata(const std::vector<std::string>& ids) const = 0;
    virtual void goTo(const std::string& trackId) = 0;
};

// A published player on the bus. Main thread only, once handed over.
class NowPlayingService : public LoopSource {
public:
    // Tells clients about every property of `info` that differs from what they last saw.
    virtual void publish(const NowPlayingInfo& info) = 0;
    // The position jumped (a seek, not the normal course of playback).
    virtual void seeked(int64_t positionUs) = 0;
    // The track list changed: entries came in after `afterId` (an id, or the no-track
    // path for the front), one went, or anything else happened.
    virtual void trackAdded(const NowPlayingInfo& track, const std::string& afterId) = 0;
    virtual void trackRemoved(const std::string& trackId) = 0;
    virtual void trackListReplaced(const std::vector<std::string>& ids,
                                   const std::string& current) = 0;
};

// The module's entry: connects to the session bus, publishes the player object and
// takes the well-known name. Blocks while it talks to the bus, so it runs off the main
// thread, and touches nothing of `remote` until it is served. Null, with `error` set,
// when there is no bus or the name is taken. The caller owns the result.
using NowPlayingServiceEntry = NowPlayingService* (*)(NowPlayingRemote& remote, std::string& error);

} // namespace trovan
