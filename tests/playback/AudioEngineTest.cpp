#include "EngineHarness.h"

#include "media/AudioDecoder.h"

#include <gtest/gtest.h>

#include <cmath>

namespace trovan {
namespace {

using fixtures::Broken;
using fixtures::Format;
using testing::tone;

class AudioEngineTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
        engine.onTrackEnd = [this] { ++ended; };
        flac = tone("engine-2s.flac", {.seconds = 2});
        engine.load(flac);
    }
    void advance(double seconds) { testing::advanceSeconds(engine, outputs, seconds); }

    testing::TaskQueue tasks;
    testing::VirtualOutputs outputs;
    AudioEngine engine{tasks.poster(), outputs.factory()};
    int ended = 0;
    std::string flac;
};

TEST_F(AudioEngineTest, PlayPauseAndSeekKeepExactTime) {
    EXPECT_DOUBLE_EQ(engine.duration(), 2.0);
    engine.seek(1.25); // paused: only moves the position
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_DOUBLE_EQ(engine.currentTime(), 1.25);
    engine.play();
    advance(0.25);
    engine.pause();
    EXPECT_DOUBLE_EQ(engine.currentTime(), 1.5);
    outputs.current->advance(44100); // a paused output renders nothing
    EXPECT_DOUBLE_EQ(engine.currentTime(), 1.5);

    engine.play();
    engine.seek(0.5);
    EXPECT_TRUE(engine.isPlaying());
    advance(0.1);
    EXPECT_NEAR(engine.currentTime(), 0.6, 1e-9);
    engine.seek(-3);
    EXPECT_DOUBLE_EQ(engine.currentTime(), 0.0);
    engine.seek(99); // lands 50 ms before the end and plays that last stretch
    EXPECT_NEAR(engine.currentTime(), 1.95, 1e-9);
    EXPECT_TRUE(engine.isPlaying());
    EXPECT_EQ(tasks.runPending(), 0u);
}

TEST_F(AudioEngineTest, OutputIsTheFileFromTheSeekedFrameScaledByVolume) {
    AudioDecoder reference(flac);
    std::vector<float> all(88200 * 2);
    ASSERT_EQ(reference.read(all.data(), 88200), 88200u);
    engine.play();
    engine.seek(1.0);
    advance(512.0 / 44100);
    auto block = outputs.current->lastBlock();
    ASSERT_EQ(block.size(), 1024u);
    // Flat equalizer, full volume: untouched once a fade in of a few milliseconds is over.
    const std::size_t fadeEnd = 2 * 44100 * 5 / 1000;
    EXPECT_LE(std::abs(block[0]), std::abs(all[44100 * 2]) / 50);
    for (std::size_t i = 0; i < block.size(); ++i)
        if (i < fadeEnd)
            ASSERT_LE(std::abs(block[i]), std::abs(all[44100 * 2 + i]) + 1e-7f) << "sample " << i;
        else
            ASSERT_EQ(block[i], all[44100 * 2 + i]) << "sample " << i;

    engine.setVolume(0.25f);
    advance(0.2); // past the ramp
    block = outputs.current->lastBlock();
    auto at = static_cast<std::size_t>(engine.currentTime() * 44100) * 2 - block.size();
    for (std::size_t i = 0; i < block.size(); ++i)
        ASSERT_NEAR(block[i], all[at + i] * 0.25f, 1e-6);
}

TEST_F(AudioEngineTest, EndNoticeArrivesOnceAfterTheLastFrameAndTimeStaysInTheFile) {
    engine.seek(1.5);
    engine.play();
    double last = engine.currentTime();
    EXPECT_DOUBLE_EQ(last, 1.5); // nothing heard yet: the segment's start
    for (int i = 0; i < 60 && tasks.size() == 0; ++i) {
        advance(0.01);
        EXPECT_GE(engine.currentTime(), last);
        last = engine.currentTime();
        EXPECT_LE(last, 2.0);
    }
    ASSERT_TRUE(tasks.waitForTask());
    EXPECT_DOUBLE_EQ(last, 2.0); // no notice before the last frame was heard
    advance(0.2);                // silence afterwards
    EXPECT_EQ(tasks.runPending(), 1u);
    EXPECT_EQ(ended, 1);
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_DOUBLE_EQ(engine.currentTime(), 2.0);

    engine.play(); // playing from the end ends the track again at once
    EXPECT_EQ(ended, 2);
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_EQ(tasks.runPending(), 0u);
}

TEST_F(AudioEngineTest, LateNoticeAfterPauseOrSeekIsIgnored) {
    for (bool bySeek : {false, true}) {
        engine.seek(1.9);
        engine.play();
        for (int i = 0; i < 400 && tasks.size() == 0; ++i)
            advance(0.01);
        ASSERT_TRUE(tasks.waitForTask()); // the finished segment's notice is queued...
        bySeek ? engine.seek(0.5) : engine.pause();
        tasks.runPending(); // ...and must not end the track
        EXPECT_EQ(ended, 0);
        EXPECT_EQ(engine.isPlaying(), bySeek);
        EXPECT_DOUBLE_EQ(engine.currentTime(), bySeek ? 0.5 : 2.0);
    }
}

TEST_F(AudioEngineTest, OutputReopensOnlyForANewFormatOrDevice) {
    engine.load(tone("engine-44k.wav", {.format = Format::wav, .seconds = 0.5}));
    EXPECT_EQ(outputs.formats.size(), 1u);
    engine.load(tone("engine-48k-mono.flac", {.seconds = 0.5, .sampleRate = 48000, .channels = 1}));
    EXPECT_EQ(outputs.formats.back(), (OutputFormat{48000, 1}));
    engine.load(tone("engine-48k.flac", {.seconds = 0.5, .sampleRate = 48000}));
    EXPECT_EQ(outputs.formats.size(), 3u);

    engine.load(flac);
    engine.play();
    advance(0.6);
    outputs.events.deviceChanged(); // as the output would, from its own thread
    EXPECT_EQ(tasks.runPending(), 1u);
    EXPECT_EQ(outputs.formats.size(), 5u);
    EXPECT_TRUE(engine.isPlaying());
    EXPECT_DOUBLE_EQ(engine.currentTime(), 0.6);
    advance(0.2);
    EXPECT_NEAR(engine.currentTime(), 0.8, 1e-9);

    engine.pause();
    outputs.events.deviceChanged();
    tasks.runPending();
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_NEAR(engine.currentTime(), 0.8, 1e-9);

    engine.play(); // a reconnection that fails leaves the engine quietly stopped
    outputs.failNext = true;
    outputs.events.deviceChanged();
    tasks.runPending();
    engine.play();
    EXPECT_FALSE(engine.isPlaying());
}

TEST_F(AudioEngineTest, FailedLoadKeepsTheCurrentFileAndUnloadStops) {
    engine.play();
    advance(0.3);
    EXPECT_ANY_THROW(engine.load(fixtures::sharedDir() / "missing.flac"));
    EXPECT_TRUE(engine.isPlaying());
    advance(0.1);
    EXPECT_NEAR(engine.currentTime(), 0.4, 1e-9);
    engine.unload();
    engine.play();
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_EQ(engine.currentTime(), 0.0);
}

// Damaged files (generated ones, and the real-world corpus when it is there) either play
// for a second or fail to load; nothing may crash, hang or spin.
TEST_F(AudioEngineTest, EveryDamagedFilePlaysOrFailsCleanly) {
    fixtures::TempDir dir;
    std::vector<std::filesystem::path> files = {
        fixtures::writeBroken(dir.path(), "g.flac", Broken::garbage),
        fixtures::writeBroken(dir.path(), "z.mp3", Broken::zeroBytes)};
    for (auto f : {Format::flac, Format::mp3, Format::aac, Format::wav})
        files.push_back(fixtures::writeBroken(dir.path(), "cut." + fixtures::extension(f),
                                              Broken::truncated, f));
    const std::filesystem::path corpus = TROVAN_SOURCE_DIR "/../shared/corpus/taglib";
    if (std::filesystem::is_directory(corpus))
        files.insert(files.end(), std::filesystem::directory_iterator(corpus), {});
    int played = 0;
    for (const auto& file : files) {
        SCOPED_TRACE(file.filename().string());
        try {
            engine.load(file.string());
        } catch (const std::exception&) {
            continue;
        }
        ++played;
        EXPECT_GT(engine.duration(), 0.0);
        engine.play();
        const auto rate = static_cast<std::size_t>(outputs.current->format().sampleRate);
        for (std::size_t done = 0; done < rate && engine.isPlaying(); done += 512) {
            ASSERT_TRUE(engine.waitUntilBuffered(std::chrono::seconds(20))) << "decoder stuck";
            outputs.current->advance(512);
            tasks.runPending();
        }
        for (float v : outputs.current->lastBlock())
            ASSERT_TRUE(std::isfinite(v));
        EXPECT_LE(engine.currentTime(), engine.duration());
        engine.seek(engine.duration() / 2);
        engine.pause();
    }
    EXPECT_GT(played, 0);
}

} // namespace
} // namespace trovan
