// SPDX-License-Identifier: GPL-3.0-or-later
// The media-player module: the player object of the desktop's media-player protocol
// (MPRIS 2) on the session bus, through sdbus-c++. Built as a module of its own so that
// the bus libraries are only mapped once start-up is over.

#include "playback/NowPlayingService.h"

#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace trovan {

namespace {

const char* const kBusName = "org.mpris.MediaPlayer2.trovan";
const char* const kObjectPath = "/org/mpris/MediaPlayer2";
const char* const kRoot = "org.mpris.MediaPlayer2";
const char* const kPlayer = "org.mpris.MediaPlayer2.Player";
const char* const kTrackList = "org.mpris.MediaPlayer2.TrackList";
const char* const kNoTrack = "/org/mpris/MediaPlayer2/TrackList/NoTrack";
const char* const kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
const char* const kFailed = "org.freedesktop.DBus.Error.Failed";

// What we decode, by the names desktops use for it.
const std::vector<std::string> kMimeTypes = {
    "audio/flac",       "audio/x-flac",    "audio/mpeg", "audio/mp4",   "audio/x-m4a",
    "audio/aac",        "audio/x-aac",     "audio/wav",  "audio/x-wav", "audio/aiff",
    "audio/x-aiff",     "audio/x-caf",     "audio/ogg",  "audio/opus",  "audio/x-vorbis+ogg",
    "audio/x-opus+ogg", "audio/x-flac+ogg"};

// Runs a client's request; whatever goes wrong becomes an error reply, never an
// exception through the bus library's C callbacks.
template <typename F> auto answer(F&& f) {
    try {
        return f();
    } catch (const sdbus::Error&) {
        throw;
    } catch (const std::invalid_argument& e) {
        throw sdbus::Error(kInvalidArgs, e.what());
    } catch (const std::exception& e) {
        throw sdbus::Error(kFailed, e.what());
    } catch (...) {
        throw sdbus::Error(kFailed, "error interno");
    }
}

std::map<std::string, sdbus::Variant> metadata(const NowPlayingInfo& info) {
    std::map<std::string, sdbus::Variant> m;
    if (!info.hasTrack) {
        m["mpris:trackid"] = sdbus::ObjectPath(kNoTrack);
        return m;
    }
    m["mpris:trackid"] = sdbus::ObjectPath(info.trackId);
    m["mpris:length"] = info.lengthUs;
    m["xesam:title"] = info.title;
    m["xesam:artist"] = info.artists;
    m["xesam:album"] = info.album;
    if (!info.albumArtist.empty())
        m["xesam:albumArtist"] = std::vector<std::string>{info.albumArtist};
    if (info.trackNumber > 0) m["xesam:trackNumber"] = info.trackNumber;
    if (info.discNumber > 0) m["xesam:discNumber"] = info.discNumber;
    m["xesam:url"] = info.url;
    if (!info.artUrl.empty()) m["mpris:artUrl"] = info.artUrl;
    return m;
}

bool sameMetadata(const NowPlayingInfo& a, const NowPlayingInfo& b) {
    return a.hasTrack == b.hasTrack && a.trackId == b.trackId && a.lengthUs == b.lengthUs &&
           a.title == b.title && a.artists == b.artists && a.album == b.album &&
           a.albumArtist == b.albumArtist && a.trackNumber == b.trackNumber &&
           a.discNumber == b.discNumber && a.url == b.url && a.artUrl == b.artUrl;
}

class MprisService final : public NowPlayingService {
public:
    explicit MprisService(NowPlayingRemote& remote) : remote_(remote) {
        connection_ = sdbus::createSessionBusConnection();
        object_ = sdbus::createObject(*connection_, kObjectPath);
        registerRoot();
        registerPlayer();
        registerTrackList();
        object_->finishRegistration();
        // Clients look at the object as soon as the name appears, so it comes last.
        connection_->requestName(kBusName);
    }

    Wait wait() const override {
        Wait w;
        if (broken_) return w;
        const auto poll = connection_->getEventLoopPollData();
        w.fd = poll.fd;
        w.readable = (poll.events & POLLIN) != 0;
        w.writable = (poll.events & POLLOUT) != 0;
        if (poll.timeout_usec != UINT64_MAX)
            w.deadline =
                std::chrono::steady_clock::time_point(std::chrono::microseconds(poll.timeout_usec));
        return w;
    }

    void process() override {
        if (broken_) return;
        try {
            while (connection_->processPendingRequest()) {
            }
        } catch (const std::exception&) {
            // The bus went away: stop serving; the program goes on without it.
            broken_ = true;
        }
    }

    void publish(const NowPlayingInfo& info) override {
        if (broken_) return;
        std::vector<std::string> changed;
        const bool first = !published_;
        const NowPlayingInfo& old = published_ ? *published_ : info;
        if (first || old.status != info.status) changed.emplace_back("PlaybackStatus");
        if (first || !sameMetadata(old, info)) changed.emplace_back("Metadata");
        if (first || old.volume != info.volume) changed.emplace_back("Volume");
        if (first || old.shuffle != info.shuffle) changed.emplace_back("Shuffle");
        if (first || old.loopStatus != info.loopStatus) changed.emplace_back("LoopStatus");
        if (first || old.hasTrack != info.hasTrack) {
            for (const char* name : {"CanGoNext", "CanGoPrevious", "CanPlay", "CanPause"})
                changed.emplace_back(name);
        }
        if (first || old.canSeek != info.canSeek) changed.emplace_back("CanSeek");
        published_ = info;
        if (changed.empty()) return;
        send([&] { object_->emitPropertiesChangedSignal(kPlayer, changed); });
    }

    void seeked(int64_t positionUs) override {
        if (broken_) return;
        send([&] { object_->emitSignal("Seeked").onInterface(kPlayer).withArguments(positionUs); });
    }

    void trackAdded(const NowPlayingInfo& track, const std::string& afterId) override {
        if (broken_) return;
        send([&] {
            object_->emitSignal("TrackAdded")
                .onInterface(kTrackList)
                .withArguments(metadata(track), sdbus::ObjectPath(afterId));
        });
        tracksChanged();
    }

    void trackRemoved(const std::string& id) override {
        if (broken_) return;
        send([&] {
            object_->emitSignal("TrackRemoved")
                .onInterface(kTrackList)
                .withArguments(sdbus::ObjectPath(id));
        });
        tracksChanged();
    }

    void trackListReplaced(const std::vector<std::string>& ids,
                           const std::string& current) override {
        if (broken_) return;
        send([&] {
            object_->emitSignal("TrackListReplaced")
                .onInterface(kTrackList)
                .withArguments(paths(ids), sdbus::ObjectPath(current));
        });
        tracksChanged();
    }

private:
    static std::vector<sdbus::ObjectPath> paths(const std::vector<std::string>& ids) {
        return {ids.begin(), ids.end()};
    }

    // Tracks is announced as invalidated: clients read it again when they care.
    void tracksChanged() {
        send([&] { object_->emitPropertiesChangedSignal(kTrackList, {"Tracks"}); });
    }

    void registerTrackList() {
        auto& o = *object_;
        o.registerMethod("GetTracksMetadata")
            .onInterface(kTrackList)
            .withInputParamNames("TrackIds")
            .withOutputParamNames("Metadata")
            .implementedAs([this](const std::vector<sdbus::ObjectPath>& ids) {
                return answer([&] {
                    std::vector<std::map<std::string, sdbus::Variant>> out;
                    for (const auto& info :
                         remote_.tracksMetadata(std::vector<std::string>(ids.begin(), ids.end())))
                        out.push_back(metadata(info));
                    return out;
                });
            });
        o.registerMethod("AddTrack")
            .onInterface(kTrackList)
            .withInputParamNames("Uri", "AfterTrack", "SetAsCurrent")
            .implementedAs([](const std::string&, const sdbus::ObjectPath&, bool) {
                throw sdbus::Error(kFailed, "La lista no se edita desde fuera (CanEditTracks)");
            });
        o.registerMethod("RemoveTrack")
            .onInterface(kTrackList)
            .withInputParamNames("TrackId")
            .implementedAs([](const sdbus::ObjectPath&) {
                throw sdbus::Error(kFailed, "La lista no se edita desde fuera (CanEditTracks)");
            });
        o.registerMethod("GoTo")
            .onInterface(kTrackList)
            .withInputParamNames("TrackId")
            .implementedAs(
                [this](const sdbus::ObjectPath& id) { answer([&] { remote_.goTo(id); }); });
        o.registerSignal("TrackListReplaced")
            .onInterface(kTrackList)
            .withParameters<std::vector<sdbus::ObjectPath>, sdbus::ObjectPath>("Tracks",
                                                                               "CurrentTrack");
        o.registerSignal("TrackAdded")
            .onInterface(kTrackList)
            .withParameters<std::map<std::string, sdbus::Variant>, sdbus::ObjectPath>("Metadata",
                                                                                      "AfterTrack");
        o.registerSignal("TrackRemoved")
            .onInterface(kTrackList)
            .withParameters<sdbus::ObjectPath>("TrackId");
        o.registerSignal("TrackMetadataChanged")
            .onInterface(kTrackList)
            .withParameters<sdbus::ObjectPath, std::map<std::string, sdbus::Variant>>("TrackId",
                                                                                      "Metadata");
        o.registerProperty("Tracks")
            .onInterface(kTrackList)
            .withGetter([this] { return paths(remote_.trackIds()); })
            .withUpdateBehavior(sdbus::Flags::EMITS_INVALIDATION_SIGNAL);
        o.registerProperty("CanEditTracks")
            .onInterface(kTrackList)
            .withGetter([] { return false; })
            .withUpdateBehavior(sdbus::Flags::CONST_PROPERTY_VALUE);
    }

    template <typename F> void send(F&& f) {
        try {
            f();
        } catch (const std::exception&) {
            broken_ = true;
        }
        if (rearm) rearm();
    }

    const NowPlayingInfo& info() const { return remote_.info(); }

    void registerRoot() {
        auto& o = *object_;
        o.registerMethod("Raise").onInterface(kRoot).implementedAs([] {});
        o.registerMethod("Quit").onInterface(kRoot).implementedAs(
            [this] { answer([&] { remote_.quit(); }); });
        o.registerProperty("CanQuit").onInterface(kRoot).withGetter([] { return true; });
        o.registerProperty("CanRaise").onInterface(kRoot).withGetter([] { return false; });
        o.registerProperty("HasTrackList").onInterface(kRoot).withGetter([] { return true; });
        o.registerProperty("Identity").onInterface(kRoot).withGetter([] {
            return std::string("Trovan");
        });
        o.registerProperty("DesktopEntry").onInterface(kRoot).withGetter([] {
            return std::string("trovan");
        });
        o.registerProperty("SupportedUriSchemes").onInterface(kRoot).withGetter([] {
            return std::vector<std::string>{"file"};
        });
        o.registerProperty("SupportedMimeTypes").onInterface(kRoot).withGetter([] {
            return kMimeTypes;
        });
    }

    void registerPlayer() {
        auto& o = *object_;
        using Remote = NowPlayingRemote;
        const std::pair<const char*, void (Remote::*)()> commands[] = {
            {"Next", &Remote::next},   {"Previous", &Remote::previous},
            {"Pause", &Remote::pause}, {"PlayPause", &Remote::playPause},
            {"Stop", &Remote::stop},   {"Play", &Remote::play}};
        for (auto [name, command] : commands)
            o.registerMethod(name).onInterface(kPlayer).implementedAs(
                [this, command = command] { answer([&] { (remote_.*command)(); }); });
        o.registerMethod("Seek").onInterface(kPlayer).withInputParamNames("Offset").implementedAs(
            [this](int64_t offset) { answer([&] { remote_.seek(offset); }); });
        o.registerMethod("SetPosition")
            .onInterface(kPlayer)
            .withInputParamNames("TrackId", "Position")
            .implementedAs([this](const sdbus::ObjectPath& track, int64_t position) {
                answer([&] { remote_.setPosition(track, position); });
            });
        o.registerMethod("OpenUri").onInterface(kPlayer).withInputParamNames("Uri").implementedAs(
            [this](const std::string& uri) { answer([&] { remote_.openUri(uri); }); });
        o.registerSignal("Seeked").onInterface(kPlayer).withParameters<int64_t>("Position");

        o.registerProperty("PlaybackStatus").onInterface(kPlayer).withGetter([this] {
            return info().status;
        });
        o.registerProperty("LoopStatus")
            .onInterface(kPlayer)
            .withGetter([this] { return info().loopStatus; })
            .withSetter([this](const std::string& status) {
                answer([&] { remote_.setLoopStatus(status); });
            });
        o.registerProperty("Rate")
            .onInterface(kPlayer)
            .withGetter([] { return 1.0; })
            .withSetter([](double) {}); // one speed only; other rates are ignored
        o.registerProperty("MinimumRate").onInterface(kPlayer).withGetter([] { return 1.0; });
        o.registerProperty("MaximumRate").onInterface(kPlayer).withGetter([] { return 1.0; });
        o.registerProperty("Shuffle")
            .onInterface(kPlayer)
            .withGetter([this] { return info().shuffle; })
            .withSetter([this](bool on) { answer([&] { remote_.setShuffle(on); }); });
        o.registerProperty("Metadata").onInterface(kPlayer).withGetter([this] {
            return metadata(info());
        });
        o.registerProperty("Volume")
            .onInterface(kPlayer)
            .withGetter([this] { return info().volume; })
            .withSetter([this](double v) { answer([&] { remote_.setVolume(v); }); });
        o.registerProperty("Position")
            .onInterface(kPlayer)
            .withGetter([this] { return remote_.positionUs(); })
            .withUpdateBehavior(sdbus::Flags::EMITS_NO_SIGNAL);
        for (const char* name : {"CanGoNext", "CanGoPrevious", "CanPlay", "CanPause"})
            o.registerProperty(name).onInterface(kPlayer).withGetter(
                [this] { return info().hasTrack; });
        o.registerProperty("CanSeek").onInterface(kPlayer).withGetter(
            [this] { return info().canSeek; });
        o.registerProperty("CanControl")
            .onInterface(kPlayer)
            .withGetter([] { return true; })
            .withUpdateBehavior(sdbus::Flags::CONST_PROPERTY_VALUE);
    }

    NowPlayingRemote& remote_;
    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> object_;
    std::optional<NowPlayingInfo> published_;
    bool broken_ = false;
};

} // namespace

} // namespace trovan

extern "C" __attribute__((visibility("default"))) trovan::NowPlayingService*
trovan_now_playing(trovan::NowPlayingRemote& remote, std::string& error) {
    try {
        return new trovan::MprisService(remote);
    } catch (const std::exception& e) {
        error = e.what();
    } catch (...) {
        error = "unknown";
    }
    return nullptr;
}
