#include "EngineHarness.h"

#include "media/AudioDecoder.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <cmath>

namespace trovan {
namespace {

using testing::advance;
using testing::advanceSeconds;
using testing::TaskQueue;
using testing::VirtualOutputs;

std::string tone(const std::string& name, fixtures::Format format, int rate, int channels,
                 double seconds) {
    fixtures::Tone t;
    t.format = format;
    t.sampleRate = rate;
    t.channels = channels;
    t.seconds = seconds;
    t.frequency = 440;
    return fixtures::cached(name, t).string();
}

class AudioEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
        engine = std::make_unique<AudioEngine>(tasks.poster(), outputs.factory());
        engine->onTrackEnd = [this] { ++ended; };
        flac = tone("engine-2s.flac", fixtures::Format::flac, 44100, 2, 2.0);
    }

    // Plays until the last frame has been heard and the end notice is queued.
    void playOut() {
        for (int i = 0; i < 400 && tasks.size() == 0; ++i)
            advance(*engine, outputs, 512);
        ASSERT_TRUE(tasks.waitForTask());
    }

    TaskQueue tasks;
    VirtualOutputs outputs;
    std::unique_ptr<AudioEngine> engine;
    int ended = 0;
    std::string flac;
};

TEST_F(AudioEngineTest, LoadPlayPauseResumeKeepsExactTime) {
    AudioFormatInfo info = engine->load(flac);
    EXPECT_EQ(info.summary(), "FLAC \u00B7 44.1 kHz \u00B7 16 bit");
    EXPECT_EQ(info.channels, 2);
    EXPECT_DOUBLE_EQ(engine->duration(), 2.0);
    EXPECT_FALSE(engine->isPlaying());
    EXPECT_EQ(engine->currentTime(), 0.0);

    engine->play();
    ASSERT_TRUE(engine->isPlaying());
    advanceSeconds(*engine, outputs, 0.5);
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.5);

    engine->pause();
    EXPECT_FALSE(engine->isPlaying());
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.5);
    outputs.current->advance(44100); // a paused output renders nothing
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.5);

    engine->play();
    advanceSeconds(*engine, outputs, 0.25);
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.75);
    EXPECT_EQ(tasks.runPending(), 0u);
    EXPECT_EQ(ended, 0);
}

TEST_F(AudioEngineTest, SeekWhilePlayingAndPausedAndOutOfRange) {
    engine->load(flac);
    engine->seek(1.25); // paused: only moves the position
    EXPECT_FALSE(engine->isPlaying());
    EXPECT_DOUBLE_EQ(engine->currentTime(), 1.25);

    engine->play();
    advanceSeconds(*engine, outputs, 0.1);
    engine->seek(0.5);
    EXPECT_TRUE(engine->isPlaying());
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.5);
    advanceSeconds(*engine, outputs, 0.1);
    EXPECT_NEAR(engine->currentTime(), 0.6, 1e-9);

    engine->seek(-3);
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.0);
    EXPECT_TRUE(engine->isPlaying());

    engine->seek(99); // lands 50 ms before the end and plays that last stretch
    EXPECT_NEAR(engine->currentTime(), 1.95, 1e-9);
    EXPECT_TRUE(engine->isPlaying());
    playOut();
    EXPECT_LE(engine->currentTime(), engine->duration());
    tasks.runPending();
    EXPECT_EQ(ended, 1);
    EXPECT_FALSE(engine->isPlaying());
    EXPECT_DOUBLE_EQ(engine->currentTime(), 2.0);
}

TEST_F(AudioEngineTest, SeekedAudioIsTheFileAtThatFrame) {
    AudioDecoder reference(flac);
    std::vector<float> all(static_cast<std::size_t>(reference.frames()) * 2);
    ASSERT_EQ(reference.read(all.data(), static_cast<std::size_t>(reference.frames())),
              static_cast<std::size_t>(reference.frames()));

    engine->load(flac);
    engine->play();
    engine->seek(1.0);
    advance(*engine, outputs, 512);
    auto block = outputs.current->lastBlock();
    ASSERT_EQ(block.size(), 1024u);
    // Flat equalizer, full volume: the samples come out untouched.
    for (std::size_t i = 0; i < block.size(); ++i)
        ASSERT_EQ(block[i], all[44100 * 2 + i]) << "sample " << i;
}

TEST_F(AudioEngineTest, EndOfTrackNoticeArrivesOnceAfterTheLastFrame) {
    engine->load(flac);
    engine->seek(1.5);
    engine->play();
    advanceSeconds(*engine, outputs, 0.4);
    EXPECT_EQ(tasks.size(), 0u); // 0.1 s still to play
    EXPECT_NEAR(engine->currentTime(), 1.9, 1e-9);
    playOut();
    for (int i = 0; i < 20; ++i)
        outputs.current->advance(512); // silence afterwards
    EXPECT_EQ(tasks.runPending(), 1u);
    EXPECT_EQ(ended, 1);
    EXPECT_DOUBLE_EQ(engine->currentTime(), 2.0);

    // Playing from the end ends the track again at once.
    engine->play();
    EXPECT_EQ(ended, 2);
    EXPECT_FALSE(engine->isPlaying());
    EXPECT_EQ(tasks.runPending(), 0u);
}

TEST_F(AudioEngineTest, LateNoticeAfterPauseOrSeekIsIgnored) {
    engine->load(flac);
    engine->seek(1.9);
    engine->play();
    playOut();
    engine->pause(); // the notice of the finished segment is already queued
    tasks.runPending();
    EXPECT_EQ(ended, 0);
    EXPECT_DOUBLE_EQ(engine->currentTime(), 2.0); // paused at the very end

    engine->seek(1.9);
    engine->play();
    playOut();
    engine->seek(0.5);
    tasks.runPending();
    EXPECT_EQ(ended, 0);
    EXPECT_TRUE(engine->isPlaying());
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.5);
}

TEST_F(AudioEngineTest, CurrentTimeStaysWithinTheFile) {
    engine->load(flac);
    engine->seek(1.0);
    engine->play();
    double last = engine->currentTime();
    EXPECT_DOUBLE_EQ(last, 1.0); // nothing heard yet: the segment's start
    for (int i = 0; i < 300 && tasks.size() == 0; ++i) {
        advance(*engine, outputs, 512);
        double now = engine->currentTime();
        EXPECT_GE(now, last);
        EXPECT_LE(now, engine->duration());
        last = now;
    }
    EXPECT_DOUBLE_EQ(last, 2.0);
}

TEST_F(AudioEngineTest, ReconnectsOnlyWhenRateOrChannelsChange) {
    auto wav = tone("engine-44k.wav", fixtures::Format::wav, 44100, 2, 0.5);
    auto rate48 = tone("engine-48k.flac", fixtures::Format::flac, 48000, 2, 0.5);
    auto mono48 = tone("engine-48k-mono.flac", fixtures::Format::flac, 48000, 1, 0.5);

    engine->load(flac);
    EXPECT_EQ(outputs.created(), 1u);
    engine->load(wav);
    EXPECT_EQ(outputs.created(), 1u);
    engine->load(rate48);
    EXPECT_EQ(outputs.created(), 2u);
    engine->load(mono48);
    ASSERT_EQ(outputs.created(), 3u);
    EXPECT_EQ(outputs.formats.back(), (OutputFormat{48000, 1}));

    engine->play();
    advanceSeconds(*engine, outputs, 0.1);
    EXPECT_NEAR(engine->currentTime(), 0.1, 1e-9);
}

TEST_F(AudioEngineTest, DeviceChangeWhilePlayingResumesAtTheSamePosition) {
    engine->load(flac);
    engine->play();
    advanceSeconds(*engine, outputs, 0.6);
    outputs.deviceChanged(); // as the output would, from its own thread
    EXPECT_EQ(tasks.runPending(), 1u);
    EXPECT_EQ(outputs.created(), 2u);
    EXPECT_TRUE(engine->isPlaying());
    EXPECT_DOUBLE_EQ(engine->currentTime(), 0.6);
    advanceSeconds(*engine, outputs, 0.2);
    EXPECT_NEAR(engine->currentTime(), 0.8, 1e-9);

    engine->pause();
    outputs.deviceChanged();
    tasks.runPending();
    EXPECT_FALSE(engine->isPlaying());
    EXPECT_NEAR(engine->currentTime(), 0.8, 1e-9);

    // A reconnection that fails leaves the engine stopped, quietly.
    engine->play();
    outputs.failNext = true;
    outputs.deviceChanged();
    tasks.runPending();
    EXPECT_FALSE(engine->isPlaying());
    engine->play(); // no output: stays stopped, no crash
    EXPECT_FALSE(engine->isPlaying());
}

TEST_F(AudioEngineTest, FailedLoadKeepsTheCurrentFile) {
    fixtures::TempDir dir;
    auto broken = fixtures::writeBroken(dir.path(), "broken.flac", fixtures::Broken::garbage);
    auto empty = fixtures::writeBroken(dir.path(), "empty.mp3", fixtures::Broken::zeroBytes);
    engine->load(flac);
    engine->play();
    advanceSeconds(*engine, outputs, 0.3);
    EXPECT_ANY_THROW(engine->load(broken.string()));
    EXPECT_ANY_THROW(engine->load(empty.string()));
    EXPECT_ANY_THROW(engine->load((dir.path() / "missing.flac").string()));
    EXPECT_TRUE(engine->isPlaying());
    EXPECT_DOUBLE_EQ(engine->duration(), 2.0);
    advanceSeconds(*engine, outputs, 0.1);
    EXPECT_NEAR(engine->currentTime(), 0.4, 1e-9);

    engine->unload();
    EXPECT_FALSE(engine->hasFile());
    EXPECT_EQ(engine->currentTime(), 0.0);
    engine->play();
    engine->seek(1);
    EXPECT_FALSE(engine->isPlaying());
}

TEST_F(AudioEngineTest, VolumeScalesTheOutput) {
    engine->load(flac);
    engine->setVolume(0.5f);
    EXPECT_FLOAT_EQ(engine->volume(), 0.5f);
    engine->setVolume(7.0f);
    EXPECT_FLOAT_EQ(engine->volume(), 1.0f);

    AudioDecoder reference(flac);
    std::vector<float> all(static_cast<std::size_t>(reference.frames()) * 2);
    reference.read(all.data(), static_cast<std::size_t>(reference.frames()));

    engine->setVolume(0.25f);
    engine->play();
    advanceSeconds(*engine, outputs, 0.2); // past the ramp
    auto block = outputs.current->lastBlock();
    std::size_t at = static_cast<std::size_t>(engine->currentTime() * 44100) * 2 - block.size();
    for (std::size_t i = 0; i < block.size(); ++i)
        ASSERT_NEAR(block[i], all[at + i] * 0.25f, 1e-6);
}

} // namespace
} // namespace trovan
