// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/NowPlayingBridge.h"
#include "config/LifeToken.h"

#include "library/Track.h"
#include "media/ArtworkCache.h"
#include "media/Fingerprint.h"
#include "media/Module.h"
#include "playback/NowPlayingService.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace trovan {

namespace fs = std::filesystem;

namespace {

const char* const kUnknownAlbum = "\xC3\x81lbum desconocido";
const char* const kNoTrack = "/org/mpris/MediaPlayer2/TrackList/NoTrack";

int64_t toMicroseconds(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) return 0;
    return static_cast<int64_t>(std::min(seconds * 1e6, 9e18));
}

// What the connecting thread hands over, guarded against the bridge going away.
struct Handoff {
    std::mutex lock;
    bool cancelled = false;
    std::function<void(NowPlayingBridge::Task)> post;
};

} // namespace

struct NowPlayingBridge::Impl final : NowPlayingRemote {
    explicit Impl(Environment e)
        : env(std::move(e)), art(std::make_shared<ArtworkCache>(env.artFolder)),
          handoff(std::make_shared<Handoff>()) {
        handoff->post = env.post;
    }

    Environment env;
    Dispatch dispatch;
    NowPlayingInfo state;
    // The published window of the queue: ids, their paths and places in the queue.
    std::vector<std::string> trackList;
    std::vector<std::string> trackPaths;
    std::vector<int> trackPlaces;
    std::string trackPath;
    std::shared_ptr<NowPlayingService> service;
    bool connecting = false;
    std::shared_ptr<ArtworkCache> art;
    std::shared_ptr<const std::vector<std::uint8_t>> artBytes; // waiting for a connection
    std::shared_ptr<Handoff> handoff;
    LifeToken alive;

    void publish() {
        if (service) service->publish(state);
    }

    void send(RemoteCommand command) {
        if (dispatch) dispatch(command);
    }
    void send(RemoteCommand::Kind kind) { send(RemoteCommand{kind}); }

    // Writes the waiting cover off the main thread and publishes its URL when it is
    // still the one wanted.
    void writeArt() {
        if (!service || !artBytes || !env.background) return;
        const int generation = art->latest();
        env.background([art = art, bytes = artBytes, generation, post = env.post,
                        alive = alive.watch(), this] {
            auto file = art->write(generation, *bytes);
            if (!file) return;
            post([alive, this, art, generation, url = fileUrl(file->string())] {
                if (!alive || generation != art->latest()) return;
                state.artUrl = url;
                publish();
            });
        });
    }

    // Once connected: the cover waiting to be written, or a clean folder (a cover
    // left by an earlier run is nobody's).
    void syncArt() {
        if (artBytes) {
            writeArt();
        } else if (env.background) {
            env.background([art = art, generation = art->latest()] { art->clear(generation); });
        }
    }

    void clearArt() {
        const int generation = art->next();
        artBytes.reset();
        state.artUrl.clear();
        if (service && env.background)
            env.background([art = art, generation] { art->clear(generation); });
    }

    // --- NowPlayingRemote: requests from the bus, on the main thread.
    const NowPlayingInfo& info() const override { return state; }
    int64_t positionUs() const override {
        return state.hasTrack && env.position ? toMicroseconds(env.position()) : 0;
    }
    void quit() override {
        // After the reply has gone out.
        env.post([alive = alive.watch(), this] {
            if (alive) send(RemoteCommand::Kind::quit);
        });
    }
    void playPause() override { send(RemoteCommand::Kind::togglePlay); }
    void play() override { send(RemoteCommand::Kind::play); }
    void pause() override { send(RemoteCommand::Kind::pause); }
    void stop() override { send(RemoteCommand::Kind::pause); }
    void next() override { send(RemoteCommand::Kind::next); }
    void previous() override { send(RemoteCommand::Kind::previous); }
    void seek(int64_t offsetUs) override {
        if (!state.canSeek) return;
        send(RemoteCommand(RemoteCommand::Kind::seekBy, static_cast<double>(offsetUs) / 1e6));
    }
    void setPosition(const std::string& id, int64_t us) override {
        // A stale track id or a position outside the track is ignored, as clients expect.
        if (!state.canSeek || id != state.trackId || us < 0 || us > state.lengthUs) return;
        send(RemoteCommand(RemoteCommand::Kind::seekTo, static_cast<double>(us) / 1e6));
    }
    void openUri(const std::string& uri) override {
        auto path = pathFromFileUrl(uri);
        if (!path) throw std::invalid_argument("Solo se abren URI file:// de archivos locales");
        std::error_code ec;
        if (!fs::is_regular_file(*path, ec))
            throw std::invalid_argument("No existe el archivo: " + *path);
        if (!Track::isAudioPath(*path))
            throw std::invalid_argument("No es un archivo de audio: " + *path);
        RemoteCommand c(RemoteCommand::Kind::openFile);
        c.path = *path;
        send(c);
    }
    void setVolume(double volume) override {
        if (std::isnan(volume)) throw std::invalid_argument("Volumen no v\xC3\xA1lido");
        send(RemoteCommand(RemoteCommand::Kind::setVolume, std::clamp(volume, 0.0, 1.0)));
    }
    void setShuffle(bool on) override {
        RemoteCommand c(RemoteCommand::Kind::setShuffle);
        c.flag = on;
        send(c);
    }
    std::vector<std::string> trackIds() const override { return trackList; }
    NowPlayingInfo describe(std::size_t i) const {
        NowPlayingInfo m;
        m.hasTrack = true;
        m.trackId = trackList[i];
        const std::string& path = trackPaths[i];
        m.url = fileUrl(path);
        std::optional<Track> t = env.lookup ? env.lookup(path) : std::nullopt;
        if (!t) {
            t.emplace();
            t->path = path;
        }
        m.title = t->displayTitle();
        m.artists = {t->displayArtist()};
        m.album = t->album.empty() ? kUnknownAlbum : t->album;
        m.albumArtist = t->albumArtist;
        m.lengthUs = toMicroseconds(static_cast<double>(t->durationMs) / 1e3);
        return m;
    }
    std::vector<NowPlayingInfo> tracksMetadata(const std::vector<std::string>& ids) const override {
        std::vector<NowPlayingInfo> out;
        for (const auto& id : ids) {
            auto it = std::find(trackList.begin(), trackList.end(), id);
            if (it != trackList.end())
                out.push_back(describe(static_cast<std::size_t>(it - trackList.begin())));
        }
        return out;
    }
    void goTo(const std::string& id) override {
        auto it = std::find(trackList.begin(), trackList.end(), id);
        if (it == trackList.end()) return; // a stale id is ignored, as for SetPosition
        const auto i = static_cast<std::size_t>(it - trackList.begin());
        RemoteCommand c(RemoteCommand::Kind::goTo, trackPlaces[i]);
        c.path = trackPaths[i];
        send(c);
    }

    // Tells clients how the list changed: an insertion or a removal by itself, anything
    // else as a new list.
    void publishTrackList(const std::vector<std::string>& before) {
        const auto& after = trackList;
        if (!service || before == after) return;
        std::size_t i = 0;
        while (i < before.size() && i < after.size() && before[i] == after[i])
            ++i;
        if (!before.empty() && after.size() > before.size() && after.size() - before.size() <= 20) {
            const std::size_t k = after.size() - before.size();
            if (std::equal(before.begin() + static_cast<std::ptrdiff_t>(i), before.end(),
                           after.begin() + static_cast<std::ptrdiff_t>(i + k))) {
                for (std::size_t j = i; j < i + k; ++j)
                    service->trackAdded(describe(j), j > 0 ? after[j - 1] : kNoTrack);
                return;
            }
        }
        if (after.size() + 1 == before.size() &&
            std::equal(before.begin() + static_cast<std::ptrdiff_t>(i + 1), before.end(),
                       after.begin() + static_cast<std::ptrdiff_t>(i))) {
            service->trackRemoved(before[i]);
            return;
        }
        service->trackListReplaced(after, state.hasTrack ? state.trackId : kNoTrack);
    }

    void setLoopStatus(const std::string& status) override {
        RemoteCommand c(RemoteCommand::Kind::setRepeatMode);
        if (status == "None")
            c.repeatMode = RepeatMode::off;
        else if (status == "Playlist")
            c.repeatMode = RepeatMode::all;
        else if (status == "Track")
            c.repeatMode = RepeatMode::one;
        else
            throw std::invalid_argument("LoopStatus desconocido: " + status);
        send(c);
    }
};

NowPlayingBridge::NowPlayingBridge(Environment environment)
    : impl_(std::make_unique<Impl>(std::move(environment))) {}

NowPlayingBridge::~NowPlayingBridge() {
    // A connection still being made is dropped by its thread.
    std::lock_guard guard(impl_->handoff->lock);
    impl_->handoff->cancelled = true;
}

void NowPlayingBridge::init(Dispatch dispatch) {
    impl_->dispatch = std::move(dispatch);
}

bool NowPlayingBridge::isConnected() const {
    return impl_->service != nullptr;
}

void NowPlayingBridge::connect(std::function<void(LoopSource&)> serve) {
    if (impl_->connecting || !impl_->env.post) return;
    impl_->connecting = true;
    Impl* impl = impl_.get();
    // Detached: the bus may never answer, and quitting must not wait for it.
    std::thread([handoff = impl_->handoff, impl, serve = std::move(serve)]() mutable {
        try {
            std::string error;
            auto entry = reinterpret_cast<NowPlayingServiceEntry>(
                module::load("trovan-mpris.so", "trovan_now_playing", error));
            if (!entry) return;
            std::shared_ptr<NowPlayingService> service(entry(*impl, error));
            if (!service) return;
            std::lock_guard guard(handoff->lock);
            if (handoff->cancelled) return;
            handoff->post([handoff, impl, service, serve = std::move(serve)] {
                // The bridge is destroyed on this thread, so this check cannot race.
                if (handoff->cancelled) return;
                impl->service = service;
                if (serve) serve(*service);
                impl->publish();
                impl->syncArt();
                if (!impl->trackList.empty()) impl->publishTrackList({});
            });
        } catch (...) {
            // No bus, no player: the program goes on without it.
        }
    }).detach();
}

void NowPlayingBridge::update(const PlaybackState& s) {
    NowPlayingInfo& info = impl_->state;
    const std::string path = s.track ? s.track->path : std::string();
    if (path != impl_->trackPath) {
        impl_->trackPath = path;
        impl_->clearArt();
    }
    const std::string artUrl = info.artUrl;
    const double volume = info.volume;
    const bool shuffle = info.shuffle;
    const std::string loop = info.loopStatus;
    info = NowPlayingInfo{};
    info.volume = volume;
    info.shuffle = shuffle;
    info.loopStatus = loop;
    if (s.track) {
        const Track& t = *s.track;
        info.hasTrack = true;
        info.status = s.isPlaying ? "Playing" : "Paused";
        info.trackId = trackId(t.path);
        info.lengthUs =
            toMicroseconds(s.duration > 0 ? s.duration : static_cast<double>(t.durationMs) / 1e3);
        info.canSeek = s.duration > 0;
        info.title = t.displayTitle();
        info.artists = {t.displayArtist()};
        info.album = t.album.empty() ? kUnknownAlbum : t.album;
        info.albumArtist = t.albumArtist;
        auto small = [](int64_t n) {
            return n > 0 && n <= std::numeric_limits<int>::max() ? static_cast<int>(n) : 0;
        };
        info.trackNumber = small(t.trackNumber);
        info.discNumber = small(t.discNumber);
        info.url = fileUrl(t.path);
        info.artUrl = artUrl;
    }
    impl_->publish();
}

void NowPlayingBridge::updateSettings(float volume, bool shuffle, RepeatMode repeatMode) {
    NowPlayingInfo& info = impl_->state;
    info.volume = std::clamp(static_cast<double>(volume), 0.0, 1.0);
    info.shuffle = shuffle;
    switch (repeatMode) {
    case RepeatMode::off:
        info.loopStatus = "None";
        break;
    case RepeatMode::all:
        info.loopStatus = "Playlist";
        break;
    case RepeatMode::one:
        info.loopStatus = "Track";
        break;
    }
    impl_->publish();
}

void NowPlayingBridge::setArtwork(std::optional<std::vector<std::uint8_t>> data) {
    impl_->clearArt();
    if (data && !data->empty() && !impl_->trackPath.empty()) {
        impl_->artBytes = std::make_shared<const std::vector<std::uint8_t>>(std::move(*data));
        impl_->writeArt();
    }
    impl_->publish();
}

void NowPlayingBridge::updateQueue(const PlaybackQueue& queue) {
    const int count = static_cast<int>(queue.order.size());
    const int current = queue.position.value_or(0);
    const int from = std::max(0, current - kTrackListBefore);
    const int to = std::min(count, current + kTrackListAfter);
    std::vector<std::string> before = std::move(impl_->trackList);
    impl_->trackList.clear();
    impl_->trackPaths.clear();
    impl_->trackPlaces.clear();
    for (int i = from; i < to; ++i) {
        const std::string& path =
            queue.paths[static_cast<std::size_t>(queue.order[static_cast<std::size_t>(i)])];
        std::string id = trackId(path);
        if (std::find(impl_->trackList.begin(), impl_->trackList.end(), id) !=
            impl_->trackList.end())
            continue;
        impl_->trackList.push_back(std::move(id));
        impl_->trackPaths.push_back(path);
        impl_->trackPlaces.push_back(i);
    }
    impl_->publishTrackList(before);
}

void NowPlayingBridge::seeked() {
    if (impl_->service) impl_->service->seeked(impl_->positionUs());
}

std::string NowPlayingBridge::trackId(const std::string& path) {
    return "/org/trovan/Trovan/track/t" + fingerprint(path);
}

std::string NowPlayingBridge::fileUrl(const std::string& path) {
    static const char digits[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            url += static_cast<char>(c);
        } else {
            url += '%';
            url += digits[c >> 4];
            url += digits[c & 15];
        }
    }
    return url;
}

std::optional<std::string> NowPlayingBridge::pathFromFileUrl(const std::string& url) {
    std::string_view rest = url;
    auto lower = [](std::string_view s) {
        std::string out(s);
        for (char& c : out)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return out;
    };
    if (rest.size() < 7 || lower(rest.substr(0, 7)) != "file://") return std::nullopt;
    rest.remove_prefix(7);
    // An authority, when present, must name this machine.
    if (rest.substr(0, 9) == "localhost") rest.remove_prefix(9);
    if (rest.empty() || rest.front() != '/') return std::nullopt;
    std::string path;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        char c = rest[i];
        if (c == '?' || c == '#') return std::nullopt;
        if (c == '%') {
            auto value = [](char h) {
                if (h >= '0' && h <= '9') return h - '0';
                h = static_cast<char>(std::tolower(static_cast<unsigned char>(h)));
                return h >= 'a' && h <= 'f' ? h - 'a' + 10 : -1;
            };
            if (i + 2 >= rest.size()) return std::nullopt;
            const int hi = value(rest[i + 1]), lo = value(rest[i + 2]);
            if (hi < 0 || lo < 0 || (hi == 0 && lo == 0)) return std::nullopt;
            c = static_cast<char>(hi * 16 + lo);
            i += 2;
        }
        path += c;
    }
    return path;
}

} // namespace trovan
