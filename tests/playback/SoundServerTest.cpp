// SPDX-License-Identifier: GPL-3.0-or-later
// Plays generated tones through a real PulseAudio daemon (a private one with a
// null sink), records the sink's monitor with parec and checks what was heard.

#include "PulseHarness.h"

#include "media/AudioDecoder.h"
#include "playback/PlaybackController.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

namespace trovan {
namespace {

using namespace std::chrono_literals;
using namespace testing;
using Clock = SteadyClock;

// How much of frequency `hz` a stretch of the recording holds, as an amplitude (Goertzel
// through a Hann window, so that a loud tone nearby does not leak into it).
double amplitudeAt(const std::vector<float>& s, std::size_t from, std::size_t n, double hz) {
    const double w = 2 * M_PI * hz / sinkRate, c = 2 * std::cos(w);
    double a = 0, b = 0, weight = 0;
    for (std::size_t i = 0; i < n && from + i < s.size(); ++i) {
        const double hann = 0.5 - 0.5 * std::cos(2 * M_PI * double(i) / double(n - 1));
        const double v = s[from + i] * hann + c * a - b;
        b = a;
        a = v;
        weight += hann;
    }
    return 2 * std::sqrt(std::max(0.0, a * a + b * b - c * a * b)) / std::max(weight, 1.0);
}

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
        return steady(s, soundSpan(s).first);
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
    auto low = testing::tone("sound-100.flac", {.frequency = 100, .seconds = 2});
    auto mp3 = testing::tone("sound-440.mp3", {.format = fixtures::Format::mp3, .seconds = 2});
    engine.load(khz);
    ASSERT_EQ(engine.outputKind(), "cubeb");

    // Each tone arrives at its own pitch and level.
    auto base = listen(khz), mp3Heard = listen(mp3);
    EXPECT_NEAR(base.hz, 1000, 5);
    EXPECT_NEAR(base.levelDb, fileLevelDb(khz), 1.0);
    EXPECT_NEAR(mp3Heard.hz, 440, 3);
    EXPECT_NEAR(mp3Heard.levelDb, fileLevelDb(mp3), 1.0);

    // Paused: nothing but silence reaches the sink; playing again is heard.
    pump(200ms);
    auto quiet = record(0.6);
    EXPECT_TRUE(quiet.empty() || measure(quiet.data(), quiet.size()).levelDb < -80.0);
    engine.seek(0);
    EXPECT_NEAR(listen().levelDb, mp3Heard.levelDb, 1.0);

    // Cutting the 1 kHz band by 6 dB is heard; switching the equalizer off undoes it.
    std::vector<float> gains(10, 0.0f);
    gains[5] = -6;
    engine.equalizer().apply(gains, true);
    EXPECT_NEAR(listen(khz).levelDb - base.levelDb, -6.0, 1.0);
    engine.equalizer().apply(gains, false);
    EXPECT_NEAR(listen(khz).levelDb - base.levelDb, 0.0, 1.0);
    // Raising it by 6 dB is taken back by the pre-gain, which lowers other tones.
    auto lowBase = listen(low);
    gains[5] = 6;
    engine.equalizer().apply(gains, true);
    EXPECT_NEAR(listen(khz).levelDb - base.levelDb, 0.0, 1.0);
    auto lowBoosted = listen(low);
    EXPECT_NEAR(lowBoosted.hz, 100, 2);
    EXPECT_NEAR(lowBoosted.levelDb - lowBase.levelDb, -6.0, 1.0);
    engine.equalizer().apply(std::vector<float>(10, 0.0f), true);

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

// Through the playback controller, as :rg and :crossfade set it: a tone tagged -6 dB plays
// 6 dB lower in track mode and by its album gain in album mode; +12 dB on a tone peaking at
// -3 dBFS (no peak tag) is held below full scale; two tones of different albums overlap
// for the crossfade, both heard and never clipping.
TEST_F(SoundServerTest, ReplayGainLimiterAndCrossfadeThroughPulseAudio) {
    PulseServer server(dir / "pulse");
    ASSERT_GT(server.pid, 0) << "pulseaudio did not start";
    auto tagged = testing::tone("rg-1k.flac", {.frequency = 1000,
                                               .seconds = 3,
                                               .sampleRate = 48000,
                                               .tags = {{"REPLAYGAIN_TRACK_GAIN", {"-6.00 dB"}},
                                                        {"REPLAYGAIN_ALBUM_GAIN", {"-10.00 dB"}},
                                                        {"ALBUM", {"A"}}}});
    std::vector<float> loud(sinkRate * 2 * 3);
    for (std::size_t i = 0; i < loud.size() / 2; ++i)
        loud[2 * i] = loud[2 * i + 1] =
            float(0.7079 * std::sin(2 * M_PI * 1000 * double(i) / sinkRate));
    writeFloatWav(dir / "loud.wav", int(sinkRate), loud);
    const auto loudPath = (dir / "loud.wav").string();
    PlaybackController player(std::make_unique<AudioEngine>(tasks.poster()));
    std::map<std::string, Track> tracks;
    player.lookup = [&](const std::string& path) -> std::optional<Track> {
        if (!tracks.count(path))
            if (auto t = Track::read(path)) tracks[path] = *t;
        if (tracks.count(path)) return tracks[path];
        return std::nullopt;
    };
    tracks[loudPath] = *Track::read(loudPath);
    tracks[loudPath].replayGain.trackGain = 12.0;
    struct Heard {
        double level, peak;
    };
    auto hear = [&](ReplayGainMode mode, const std::string& path) {
        player.setLoudness(mode, 0);
        auto s = record(1.6, [&] { player.play({path}, 0); });
        player.pause();
        pump(100ms);
        double peak = 0;
        for (float v : s)
            peak = std::max(peak, double(std::abs(v)));
        return Heard{steady(s, soundSpan(s).first).levelDb, peak};
    };
    const auto off = hear(ReplayGainMode::off, tagged);
    EXPECT_NEAR(hear(ReplayGainMode::track, tagged).level - off.level, -6.0, 0.05);
    EXPECT_NEAR(hear(ReplayGainMode::album, tagged).level - off.level, -10.0, 0.05);
    EXPECT_NEAR(hear(ReplayGainMode::off, tagged).level - off.level, 0.0, 0.05);
    const auto loudOff = hear(ReplayGainMode::off, loudPath),
               loudOn = hear(ReplayGainMode::track, loudPath);
    EXPECT_GT(loudOn.level, loudOff.level + 2.0); // louder, as far as full scale allows
    EXPECT_LT(loudOn.peak, 0.999) << "a sample clipped";

    // Crossfade: 6 s of 440 Hz (album X), then 6 s of 1 kHz (album Y), overlapping 4 s.
    auto low = testing::tone(
        "xf-440.flac",
        {.frequency = 440, .seconds = 6, .sampleRate = 48000, .tags = {{"ALBUM", {"X"}}}});
    auto high = testing::tone(
        "xf-1k.flac",
        {.frequency = 1000, .seconds = 6, .sampleRate = 48000, .tags = {{"ALBUM", {"Y"}}}});
    player.setLoudness(ReplayGainMode::off, 0);
    player.setCrossfade(4);
    auto s = record(10.5, [&] { player.play({low, high}, 0); });
    // Each tone's presence, 50 ms at a time. A dropout on a busy machine is silence in
    // both and counts for neither.
    const std::size_t window = sinkRate / 20;
    std::vector<std::pair<double, double>> heard;
    for (std::size_t at = 0; at + window <= s.size(); at += window)
        heard.push_back({amplitudeAt(s, at, window, 440), amplitudeAt(s, at, window, 1000)});
    const double present = 0.001;
    // The onset and the end of the sound are clicks of the files' own: broadband.
    const auto [start, end] = soundSpan(s);
    std::optional<std::size_t> firstHigh, lastLow;
    for (std::size_t w = start / window + 20; w + 20 < end / window; ++w) {
        if (heard[w].first > present) lastLow = w;
        if (heard[w].second > present && !firstHigh) firstHigh = w;
    }
    ASSERT_TRUE(firstHigh && lastLow);
    EXPECT_NEAR(double(*lastLow - *firstHigh) / 20, 4.0, 0.2) << "s of overlap";
    int together = 0, sounding = 0;
    for (std::size_t w = *firstHigh + 6; w + 6 < *lastLow; ++w) {
        if (heard[w].first < present / 5 && heard[w].second < present / 5) continue; // dropout
        ++sounding;
        together += heard[w].first > present && heard[w].second > present;
    }
    EXPECT_GT(sounding, 50);
    EXPECT_EQ(together, sounding) << "windows of the overlap without both tones";
    double peak = 0;
    for (float v : s)
        peak = std::max(peak, double(std::abs(v)));
    EXPECT_LT(peak, 0.999) << "the sum clipped";
}

} // namespace
} // namespace trovan
