#include "EngineHarness.h"

#include "playback/PlaybackController.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <map>

namespace trovan {
namespace {

using testing::advanceSeconds;
using testing::TaskQueue;
using testing::VirtualOutputs;

class PlaybackControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
        controller = std::make_unique<PlaybackController>(
            std::make_unique<AudioEngine>(tasks.poster(), outputs.factory()));
        controller->onChange = [this] { ++changes; };
        controller->onError = [this](const std::string& m) { errors.push_back(m); };
        controller->lookup = [this](const std::string& path) -> std::optional<Track> {
            auto it = library.find(path);
            if (it == library.end()) return std::nullopt;
            return it->second;
        };
        for (int i = 0; i < 3; ++i) {
            fixtures::Tone tone;
            tone.seconds = 5.0;
            tone.frequency = 300 + 100 * i;
            good.push_back(
                add(fixtures::cached("ctl-" + std::to_string(i) + ".flac", tone).string(),
                    "Pista " + std::to_string(i)));
        }
    }

    std::string add(const std::string& path, const std::string& title) {
        Track t;
        t.path = path;
        t.title = title;
        library[path] = t;
        return path;
    }

    std::string broken(const std::string& name) {
        return add(
            fixtures::writeBroken(dir.path(), name + ".flac", fixtures::Broken::garbage).string(),
            name);
    }

    AudioEngine& engine() { return controller->engine(); }
    std::string current() const {
        return controller->state().track ? controller->state().track->path : "";
    }

    fixtures::TempDir dir;
    TaskQueue tasks;
    VirtualOutputs outputs;
    std::unique_ptr<PlaybackController> controller;
    std::map<std::string, Track> library;
    std::vector<std::string> good;
    std::vector<std::string> errors;
    int changes = 0;
};

TEST_F(PlaybackControllerTest, PlayStartsTheChosenTrackOrNothing) {
    controller->play(good, 1);
    EXPECT_EQ(current(), good[1]);
    EXPECT_TRUE(controller->state().isPlaying);
    EXPECT_DOUBLE_EQ(controller->state().duration, 5.0);
    ASSERT_TRUE(controller->state().format);
    EXPECT_EQ(controller->state().format->codec, "FLAC");
    EXPECT_EQ(changes, 1);

    PlaybackControllerTest::changes = 0;
    controller->play(good, 7);
    EXPECT_FALSE(controller->state().isPlaying);
    EXPECT_EQ(changes, 1);
    EXPECT_FALSE(controller->queue().position);
}

TEST_F(PlaybackControllerTest, UnplayableFilesAreReportedAndSkipped) {
    std::vector<std::string> paths = {good[0], broken("Rota"), good[2]};
    controller->play(paths, 1);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "No se pudo reproducir: Rota");
    EXPECT_EQ(current(), good[2]);
    EXPECT_TRUE(controller->state().isPlaying);

    errors.clear();
    controller->setRepeatMode(RepeatMode::one); // skipping never retries the same file
    controller->play({broken("Uno"), broken("Dos"), broken("Tres")}, 0);
    EXPECT_EQ(errors,
              (std::vector<std::string>{"No se pudo reproducir: Uno", "No se pudo reproducir: Dos",
                                        "No se pudo reproducir: Tres"}));
    EXPECT_FALSE(controller->state().isPlaying);
}

TEST_F(PlaybackControllerTest, RepeatOffEndsTheQueueAndKeepsTheLastTrackLoaded) {
    controller->play(good, 2);
    engine().seek(4.9);
    advanceSeconds(engine(), outputs, 0.2);
    ASSERT_TRUE(tasks.waitForTask());
    tasks.runPending(); // the engine's end of track reaches the controller
    EXPECT_FALSE(controller->queue().position);
    EXPECT_FALSE(controller->state().isPlaying);
    EXPECT_EQ(current(), good[2]);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 5.0);

    controller->next();
    EXPECT_EQ(current(), good[2]);
    EXPECT_FALSE(engine().isPlaying());
    controller->previous(); // only rewinds the last track
    EXPECT_EQ(current(), good[2]);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);

    // resume after the end starts over from 0
    engine().seek(5.0);
    EXPECT_NEAR(engine().currentTime(), 4.95, 1e-9);
    controller->resume();
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);
    EXPECT_TRUE(controller->state().isPlaying);
}

TEST_F(PlaybackControllerTest, PreviousRestartsAfterThreeSecondsElseGoesBack) {
    controller->play(good, 0);
    controller->previous(); // first track, repeat off, just started: back to 0
    EXPECT_EQ(current(), good[0]);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);

    controller->setRepeatMode(RepeatMode::all);
    controller->previous();
    EXPECT_EQ(current(), good[2]); // wraps to the last

    controller->seek(3.5);
    controller->previous();
    EXPECT_EQ(current(), good[2]); // restarted instead
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);
    EXPECT_TRUE(controller->state().isPlaying);

    controller->seek(2.5);
    controller->previous();
    EXPECT_EQ(current(), good[1]);
}

TEST_F(PlaybackControllerTest, RepeatOneReplaysAndNextStillWraps) {
    controller->setRepeatMode(RepeatMode::one);
    controller->play(good, 2);
    advanceSeconds(engine(), outputs, 1.0);
    controller->trackEnded();
    EXPECT_EQ(current(), good[2]);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);
    EXPECT_TRUE(controller->state().isPlaying);
    controller->next();
    EXPECT_EQ(current(), good[0]);
}

TEST_F(PlaybackControllerTest, ShuffleKeepsTheCurrentTrackPlaying) {
    controller->play(good, 1);
    advanceSeconds(engine(), outputs, 0.5);
    controller->setShuffle(true);
    EXPECT_EQ(controller->queue().position, 0);
    EXPECT_EQ(controller->queue().order.front(), 1);
    EXPECT_EQ(current(), good[1]);
    EXPECT_NEAR(engine().currentTime(), 0.5, 1e-9);
    controller->setShuffle(false);
    EXPECT_EQ(controller->queue().position, 1);
    EXPECT_TRUE(controller->state().isPlaying);
}

TEST_F(PlaybackControllerTest, PauseResumeSeekAndTagRefresh) {
    controller->pause(); // nothing loaded: harmless
    controller->resume();
    controller->seek(1);
    EXPECT_FALSE(controller->state().track);

    controller->play(good, 0);
    advanceSeconds(engine(), outputs, 1.0);
    controller->togglePlay();
    EXPECT_FALSE(controller->state().isPlaying);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 1.0);
    controller->seek(2.0);
    EXPECT_FALSE(controller->state().isPlaying);
    controller->togglePlay();
    EXPECT_TRUE(controller->state().isPlaying);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 2.0);

    int before = changes;
    controller->refreshCurrentTrack(); // same record: no change
    EXPECT_EQ(changes, before);
    library[good[0]].artist = "Nuevo";
    controller->refreshCurrentTrack();
    EXPECT_EQ(changes, before + 1);
    EXPECT_EQ(controller->state().track->artist, "Nuevo");

    controller->setVolume(0.4f, false);
    EXPECT_FLOAT_EQ(engine().volume(), 0.4f);
    controller->setVolume(0.4f, true);
    EXPECT_FLOAT_EQ(engine().volume(), 0.0f);
    controller->setVolume(3.0f, false);
    EXPECT_FLOAT_EQ(engine().volume(), 1.0f);
}

} // namespace
} // namespace trovan
