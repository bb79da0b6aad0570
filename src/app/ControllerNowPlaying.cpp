// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop's media controls: the now-playing bridge is fed from playback and the
// settings, and its remote requests run through the same flows as keys.

#include "app/AppController.h"

#include "app/WorkerPool.h"
#include "config/AppPaths.h"
#include "playback/AudioEngine.h"
#include "playback/NowPlayingBridge.h"
#include "playback/PlaybackController.h"

namespace trovan {

void AppController::createNowPlaying() {
    NowPlayingBridge::Environment env;
    env.post = host_.post;
    env.background = [this](NowPlayingBridge::Task task) { pool_.submit(std::move(task)); };
    env.position = [this] { return elapsed(); };
    env.artFolder = AppPaths::support() / "artwork";
    env.lookup = [this](const std::string& path) { return state_.index.find(path); };
    nowPlaying_ = std::make_unique<NowPlayingBridge>(std::move(env));
    nowPlaying_->init([this](const RemoteCommand& command) { handleRemote(command); });
    playback_->onSeek = [this] { nowPlaying_->seeked(); };
    publishSettings();
}

void AppController::connectNowPlaying() {
    nowPlaying_->connect([this](LoopSource& source) {
        if (serveBus) serveBus(source);
    });
}

void AppController::publishSettings() {
    if (!nowPlaying_) return; // settings saved while the controller is being built
    const Settings& s = state_.settings;
    nowPlaying_->updateSettings(s.volume, s.shuffle, s.repeatMode);
}

void AppController::handleRemote(const RemoteCommand& command) {
    using K = RemoteCommand::Kind;
    switch (command.kind) {
    case K::quit:
        quit();
    case K::togglePlay:
        dispatch(Action::Kind::togglePlay);
        break;
    case K::play:
        dispatch(Action::Kind::play);
        break;
    case K::pause:
        dispatch(Action::Kind::pause);
        break;
    case K::next:
        dispatch(Action::Kind::next);
        break;
    case K::previous:
        dispatch(Action::Kind::previous);
        break;
    case K::seekTo:
        dispatch(Action::seekTo(command.value));
        break;
    case K::seekBy:
        dispatch(Action::seekBy(command.value));
        break;
    case K::setVolume:
        dispatch(Action::setVolume(static_cast<float>(command.value)));
        break;
    case K::setShuffle:
        if (command.flag != playback_->queue().shuffle) dispatch(Action::Kind::toggleShuffle);
        break;
    case K::setRepeatMode:
        setRepeatMode(command.repeatMode);
        break;
    case K::openFile:
        playback_->play({command.path}, 0);
        break;
    case K::goTo: {
        // The id named the entry at this place when the list was published.
        const auto at = static_cast<std::size_t>(command.value);
        if (playback_->queue().pathAt(static_cast<int>(at)) == command.path) playback_->playAt(at);
        break;
    }
    }
    requestRender();
}

} // namespace trovan
