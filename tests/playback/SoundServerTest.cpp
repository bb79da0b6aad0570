// SPDX-License-Identifier: GPL-3.0-or-later
// Plays generated tones through a real PulseAudio daemon (a private one with a
// null sink), records the sink's monitor with parec and checks what was heard.

#include "PulseHarness.h"

#include "media/AudioDecoder.h"

#include <gtest/gtest.h>

#include <optional>

namespace trovan {
namespace {

using namespace std::chrono_literals;
using namespace testing;
using Clock = SteadyClock;

double fileLevelDb(const std::string& path) {
    AudioDecoder d(path);
    std::vector<float> all(static_cast<std::size_t>(d.frames()) * 2);
    d.read(all.data(), static_cast<std::size_t>(d.frames()));
    return steady(all, 0, 2).levelDb;
}

class SoundServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!canRunPulse()) GTEST_SKIP() << "ffmpeg, pulseaudio or parec missing";
        engine.onTrackEnd = [this] {
            ++ends;
            endedAt = Clock::now();
        };
    }

    void pump(std::chrono::milliseconds duration) { testing::pump(tasks, duration); }
    std::vector<float> record(double seconds, const std::function<void()>& start = {}) {
        return recordSink(tasks, seconds, start);
    }

    // Plays (from the start of `path`, if given) for ~1.1 s and measures level and pitch
    // from 0.3 s after the first sound.
    Heard listen(const std::string& path = {}) {
        if (!path.empty()) engine.load(path);
        auto s = record(1.5, [this] { engine.play(); });
        engine.pause();
        SCOPED_TRACE(path);
        const auto first =
            std::find_if(s.begin(), s.end(), [](float v) { return std::abs(v) > 1e-3f; });
        return steady(s, static_cast<std::size_t>(first - s.begin()));
    }

    fixtures::TempDir dir{"trovan-sound"};
    TaskQueue tasks;
    AudioEngine engine{tasks.poster()};
    int ends = 0;
    Clock::time_point endedAt;
};

TEST_F(SoundServerTest, TonesEqualizerPauseAndEndThroughPulseAudio) {
    PulseServer server(dir / "pulse");
    ASSERT_GT(server.pid, 0) << "pulseaudio did not start";
    auto khz = testing::tone("sound-1k.flac", {.frequency = 1000, .seconds = 2});
    engine.load(khz);
    ASSERT_EQ(engine.outputKind(), "cubeb");

    // A tone arrives at its own pitch and level.
    auto base = listen(khz);
    EXPECT_NEAR(base.hz, 1000, 5);
    EXPECT_NEAR(base.levelDb, fileLevelDb(khz), 1.0);

    // Paused: nothing but silence reaches the sink; playing again is heard.
    pump(200ms);
    auto quiet = record(0.6);
    EXPECT_TRUE(quiet.empty() || measure(quiet.data(), quiet.size()).levelDb < -80.0);
    engine.seek(0);
    EXPECT_NEAR(listen().levelDb, base.levelDb, 1.0);

    // Cutting the 1 kHz band by 6 dB is heard; switching the equalizer off undoes it.
    std::vector<float> gains(10, 0.0f);
    gains[5] = -6;
    engine.equalizer().apply(gains, true);
    EXPECT_NEAR(listen(khz).levelDb - base.levelDb, -6.0, 1.0);
    engine.equalizer().apply(gains, false);
    EXPECT_NEAR(listen(khz).levelDb - base.levelDb, 0.0, 1.0);

    // The end is announced once, when the last frame has been heard: two seconds
    // after the first one was.
    engine.load(khz);
    ends = 0;
    engine.play();
    std::optional<Clock::time_point> firstHeard;
    for (auto deadline = Clock::now() + 2600ms; Clock::now() < deadline;) {
        tasks.runPending();
        if (!firstHeard && engine.currentTime() > 0) firstHeard = Clock::now();
        std::this_thread::sleep_for(2ms);
    }
    tasks.runPending();
    EXPECT_EQ(ends, 1);
    ASSERT_TRUE(firstHeard);
    EXPECT_NEAR(std::chrono::duration<double>(endedAt - *firstHeard).count(), 2.0, 0.1);
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_DOUBLE_EQ(engine.currentTime(), 2.0);

    // The server goes away mid-track: playback carries on without a device, the user is
    // told once, and when a server answers on the same socket the sound comes back by itself.
    std::vector<std::string> notices;
    engine.onOutputNotice = [&](const std::string& message, bool) { notices.push_back(message); };
    auto longTone = testing::tone("sound-long.flac", {.frequency = 1000, .seconds = 8});
    engine.load(longTone);
    engine.play();
    pump(300ms);
    server.stop();
    pump(500ms);
    EXPECT_EQ(engine.outputKind(), "null");
    EXPECT_TRUE(engine.isPlaying());
    double at = engine.currentTime();
    pump(300ms);
    EXPECT_GT(engine.currentTime(), at);
    PulseServer again(dir / "pulse");
    ASSERT_GT(again.pid, 0) << "pulseaudio did not start again";
    for (auto deadline = Clock::now() + 4s;
         engine.outputKind() != "cubeb" && Clock::now() < deadline;)
        pump(20ms);
    ASSERT_EQ(engine.outputKind(), "cubeb");
    EXPECT_TRUE(engine.isPlaying());
    auto back = listen();
    EXPECT_NEAR(back.hz, 1000, 5);
    EXPECT_NEAR(back.levelDb, base.levelDb, 1.0);
    EXPECT_EQ(notices, (std::vector<std::string>{
                           "Sin salida de audio: no se puede conectar con el servidor de sonido",
                           "Salida de audio recuperada"}));
}

} // namespace
} // namespace trovan
