// SPDX-License-Identifier: GPL-3.0-or-later
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

TEST_F(AudioEngineTest, PlayPauseSeekAndAFailedLoadKeepExactTime) {
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
    EXPECT_ANY_THROW(engine.load(fixtures::sharedDir() / "missing.flac")); // the old file plays on
    EXPECT_TRUE(engine.isPlaying());
    advance(0.1);
    EXPECT_NEAR(engine.currentTime(), 0.1, 1e-9);
    engine.seek(99); // lands 50 ms before the end and plays that last stretch
    EXPECT_NEAR(engine.currentTime(), 1.95, 1e-9);
    EXPECT_TRUE(engine.isPlaying());
    // The earlier seeks' fades report their end from the decoder thread, whenever it gets
    // there; what must not have come is the track's end.
    tasks.runPending();
    EXPECT_EQ(ended, 0);
    // The end is announced once, after the last frame was heard, and not again in the
    // silence; a late fade's notice may come first.
    advance(0.1);
    for (int i = 0; i < 5 && ended == 0; ++i)
        if (tasks.waitForTask()) tasks.runPending();
    advance(0.2);
    tasks.runPending();
    EXPECT_EQ(ended, 1);
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_DOUBLE_EQ(engine.currentTime(), 2.0);
    engine.unload();
    engine.play();
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_EQ(engine.currentTime(), 0.0);
}

// A recording cut into tracks comes out whole: the decoder goes on into each prepared
// track with no frame lost or doubled (encoder delay and padding trimmed for the lossy
// codecs), and each join is announced with elapsed time counted from its own frame.
TEST_F(AudioEngineTest, CutRecordingPlaysBackWholeAcrossJoins) {
    struct Album {
        const char* name;
        std::vector<std::string> tracks; // each: the file's extension, then ffmpeg's options
        int rate;
        double tolerance; // against the recording, per sample
    };
    const std::string flac = "flac -c:a flac -sample_fmt s16 -f flac";
    const std::vector<Album> albums = {
        {"sin pérdida", {flac, "wav -c:a pcm_s16le -f wav", flac}, 44100, 1e-4},
        // Each lossy track starts with a few milliseconds its decoder cannot rebuild exactly.
        {"mp3", {3, "mp3 -c:a libmp3lame -b:a 192k -f mp3"}, 44100, 0.08},
        {"aac", {3, "m4a -c:a aac -b:a 192k -movie_timescale 44100 -f ipod"}, 44100, 0.08},
        {"opus", {3, "opus -c:a libopus -b:a 128k -f opus"}, 48000, 0.08},
    };
    for (const auto& album : albums) {
        SCOPED_TRACE(album.name);
        fixtures::TempDir dir;
        const int rate = album.rate;
        // Each track longer than the ring, so that the next one is named in time.
        const std::vector<int64_t> cuts = {rate / 10, rate * 11 / 10 + 13, rate * 22 / 10 + 7,
                                           rate * 3 + 111};
        std::vector<std::string> paths;
        for (std::size_t i = 0; i + 1 < cuts.size(); ++i) {
            const auto& track = album.tracks[i];
            const auto space = track.find(' ');
            paths.push_back(testing::CutAlbum::write(
                dir.path(), std::to_string(i) + "." + track.substr(0, space),
                track.substr(space + 1), cuts[i], cuts[i + 1], rate));
        }

        std::vector<std::string> joined;
        std::vector<int64_t> joinFrames;
        engine.onTrackJoined = [&](const std::string& path) {
            joined.push_back(path);
            joinFrames.push_back(outputs.current->playedFrames() -
                                 std::llround(engine.currentTime() * rate));
            const std::size_t next = joined.size() + 1;
            engine.prepareNext(next < paths.size() ? std::optional(paths[next]) : std::nullopt);
        };
        ended = 0;
        engine.load(paths[0]);
        engine.prepareNext(paths[1]);
        engine.play();
        const int64_t start = outputs.current->playedFrames();
        std::vector<float> heard; // left channel
        while (ended == 0 && heard.size() < static_cast<std::size_t>(cuts.back() + rate))
            ASSERT_NO_FATAL_FAILURE(testing::playBlock(engine, outputs, tasks, heard));
        if (ended == 0 && tasks.waitForTask()) tasks.runPending(); // the end notice, if late
        ASSERT_EQ(ended, 1);
        EXPECT_EQ(joined, std::vector(paths.begin() + 1, paths.end()));
        for (auto& f : joinFrames)
            f += cuts[0] - start;
        EXPECT_EQ(joinFrames, std::vector(cuts.begin() + 1, cuts.end() - 1));

        double worstError = 0, worstStep = 0;
        int64_t worstAt = 0;
        const int64_t length = cuts.back() - cuts[0];
        // Playback starts with a fade in of a few milliseconds; the joins have none.
        const int64_t fadeEnd = rate * 5 / 1000;
        for (int64_t n = fadeEnd; n < length; ++n) {
            const auto i = static_cast<std::size_t>(n);
            const double error = std::abs(heard[i] - testing::CutAlbum::sample(cuts[0] + n, rate));
            if (error > worstError) worstError = error, worstAt = n;
            if (n > fadeEnd)
                worstStep = std::max<double>(worstStep, std::abs(heard[i] - heard[i - 1]));
        }
        EXPECT_LE(worstError, album.tolerance) << "at frame " << worstAt;
        EXPECT_LE(worstStep, testing::CutAlbum::maxStep(rate) + 2 * album.tolerance);
        // Silence once the last track has ended: nothing was played twice.
        for (auto n = static_cast<std::size_t>(length); n < heard.size(); ++n)
            ASSERT_EQ(heard[n], 0.0f) << "frame " << n;
        engine.onTrackJoined = nullptr;
    }
}

// Pausing, seeking and renaming the next track while the ring already holds the start
// of the next one: the listener hears exactly what was asked for.
TEST_F(AudioEngineTest, ActionsAroundAJoinStayExact) {
    const auto second = tone("engine-2s-880.flac", {.frequency = 880, .seconds = 2});
    const auto third = tone("engine-1s.flac", {.seconds = 1});
    std::vector<std::string> joined;
    engine.onTrackJoined = [&](const std::string& path) { joined.push_back(path); };
    auto playFor = [&](double seconds) { testing::playFor(engine, outputs, tasks, seconds); };
    engine.prepareNext(second);
    engine.play();
    playFor(1.8); // the next track is in the ring, not yet heard
    engine.pause();
    EXPECT_DOUBLE_EQ(engine.currentTime(), 1.8);
    engine.play();
    engine.seek(1.0); // back in the old track: it joins again later
    playFor(1.1);
    EXPECT_EQ(joined, std::vector<std::string>{second});
    EXPECT_EQ(engine.currentPath(), second);
    EXPECT_NEAR(engine.currentTime(), 0.1, 1e-9);
    engine.prepareNext(flac); // named at the join, as the controller does
    engine.seek(1.5);         // in the new track
    EXPECT_NEAR(engine.currentTime(), 1.5, 1e-9);
    playFor(0.4); // the first track again is in the ring; now the third is wanted instead
    engine.prepareNext(third);
    EXPECT_NEAR(engine.currentTime(), 1.9, 1e-9);
    playFor(0.2);
    EXPECT_EQ(joined, (std::vector<std::string>{second, third}));
    EXPECT_NEAR(engine.currentTime(), 0.1, 1e-9);
    EXPECT_DOUBLE_EQ(engine.duration(), 1.0);
    engine.onTrackJoined = nullptr;
}

// What is heard is the file from the frame sought, scaled by the volume. A tag write that
// rewrites the playing file in place (a large picture moves the audio further in) changes
// nothing of it: the decoder opens it again where it was.
TEST_F(AudioEngineTest, RewritingThePlayingFileKeepsTheSoundExact) {
    fixtures::TempDir dir;
    const auto original = tone("engine-noise.flac", {.wave = fixtures::Wave::noise, .seconds = 4});
    const auto plain = fixtures::copyTo(original, dir.path(), "playing.flac");
    // The same FLAC frames behind a larger header: a picture added without re-encoding.
    const auto picture = dir.path() / "cover.png"; // noise: some hundred kilobytes
    const auto covered = dir.path() / "covered.flac";
    ASSERT_EQ(fixtures::runProcess({"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                                    "nullsrc=s=256x256,geq=random(1)*255:128:128", "-frames:v", "1",
                                    picture.string()})
                  .status,
              0);
    ASSERT_EQ(fixtures::runProcess({"ffmpeg", "-nostdin", "-v", "error", "-i", original, "-i",
                                    picture.string(), "-map", "0", "-map", "1", "-c", "copy",
                                    "-disposition:v", "attached_pic", covered.string()})
                  .status,
              0);
    AudioDecoder reference(original);
    std::vector<float> all(176400 * 2);
    ASSERT_EQ(reference.read(all.data(), 176400), 176400u);

    engine.load(plain.string());
    engine.seek(1.0);
    engine.play();
    std::vector<float> heard;
    for (int i = 0; i < 290; ++i) { // to 3.9 s: past the decoder's read-ahead
        if (i == 30)
            std::filesystem::copy_file(covered, plain,
                                       std::filesystem::copy_options::overwrite_existing);
        advance(0.01);
        auto block = outputs.current->lastBlock();
        heard.insert(heard.end(), block.end() - 441 * 2, block.end());
    }
    const std::size_t from = 2 * 44100, fadeEnd = 2 * 44100 * 5 / 1000;
    for (std::size_t i = 0; i < heard.size(); ++i)
        if (i < fadeEnd)
            ASSERT_LE(std::abs(heard[i]), std::abs(all[from + i]) + 1e-7f) << "frame " << i / 2;
        else
            ASSERT_EQ(heard[i], all[from + i]) << "frame " << i / 2;

    engine.seek(1.0);
    engine.setVolume(0.25f);
    advance(0.2); // past the ramp
    const auto block = outputs.current->lastBlock();
    const auto at = static_cast<std::size_t>(engine.currentTime() * 44100) * 2 - block.size();
    for (std::size_t i = 0; i < block.size(); ++i)
        ASSERT_NEAR(block[i], all[at + i] * 0.25f, 1e-6);
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
