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

// RMS level in dB of the 50 ms pieces of s from `from` on, at most ten: the median of
// those without a dropout (16 zero samples in a row: a busy machine's server ran dry).
double steadyRmsDb(const std::vector<float>& s, std::size_t from) {
    const std::size_t piece = sinkRate / 20;
    std::vector<double> levels;
    for (std::size_t at = from; at + piece <= s.size() && levels.size() < 10; at += piece) {
        double sum = 0;
        std::size_t zeros = 0, longest = 0;
        for (std::size_t i = at; i < at + piece; ++i) {
            sum += double(s[i]) * s[i];
            zeros = s[i] == 0.0f ? zeros + 1 : 0;
            longest = std::max(longest, zeros);
        }
        if (longest < 16) levels.push_back(10 * std::log10(sum / double(piece) + 1e-30));
    }
    if (levels.size() < 5) {
        ADD_FAILURE() << "only " << levels.size() << " pieces without a dropout";
        return 0;
    }
    std::sort(levels.begin(), levels.end());
    return levels[levels.size() / 2];
}

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
    // A float file holding NaN and infinities, in the same format: its bad samples are
    // silence, and the next track still sounds at its level through the equalizer.
    std::vector<float> damaged(44100 * 2 * 3 / 2);
    for (std::size_t i = 0; i < damaged.size(); ++i)
        damaged[i] = i % 97 == 0 ? std::numeric_limits<float>::quiet_NaN()
                     : i % 89 == 0
                         ? std::numeric_limits<float>::infinity() * (i % 2 ? -1 : 1)
                         : 0.25f * float(std::sin(2 * 3.14159265 * 1000 * double(i / 2) / 44100));
    writeFloatWav(dir / "damaged.wav", 44100, damaged);
    EXPECT_LT(listen((dir / "damaged.wav").string()).levelDb, 0.0);
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

// Ten seconds at 48 kHz, one tone a second (second k at 400 + 100 k Hz, each joined to the
// next without a jump), seeked back and forth, skipped away from and back to, and paused:
// the old audio plays out what the server holds (its latency, 50 ms) and ends in a fade,
// never a jump, and each new position reaches the sink within 80 ms of its command.
TEST_F(SoundServerTest, SeeksAndSkipsFadeTheOldAudioAndPausesFade) {
    PulseServer server(dir / "pulse");
    ASSERT_GT(server.pid, 0) << "pulseaudio did not start";
    constexpr double pi = 3.14159265358979323846, amplitude = 0.5;
    std::vector<float> steps(sinkRate * 2 * 10);
    double phase = 0;
    for (std::size_t i = 0; i < steps.size() / 2; ++i) {
        phase += 2 * pi * double(400 + 100 * (i / sinkRate)) / sinkRate;
        steps[2 * i] = steps[2 * i + 1] = float(amplitude * std::sin(phase));
    }
    writeFloatWav(dir / "steps.wav", int(sinkRate), steps);
    // Another track to skip to: 1400 Hz, which counts as "second 10".
    constexpr double highAmplitude = 0.3;
    std::vector<float> high(sinkRate * 2 * 3);
    for (std::size_t i = 0; i < high.size() / 2; ++i)
        high[2 * i] = high[2 * i + 1] =
            float(highAmplitude * std::sin(2 * pi * 1400 * double(i) / sinkRate));
    writeFloatWav(dir / "high.wav", int(sinkRate), high);
    const std::string stepsPath = (dir / "steps.wav").string(),
                      highPath = (dir / "high.wav").string();
    engine.load(stepsPath);
    ASSERT_EQ(engine.outputKind(), "cubeb");

    struct Command {
        Clock::time_point at;
        int from, to; // the second heard before and after it
        bool resume;
        bool skip = false;
    };
    std::vector<Command> commands;
    std::vector<Clock::time_point> pauses;
    SinkRecorder recorder(5);
    std::this_thread::sleep_for(150ms);
    engine.play();
    pump(300ms);
    for (int j = 0; j < 20; ++j) {
        const double to = (j % 2 ? 2.1 : 7.1) + 0.01 * j;
        const int from = int(engine.currentTime());
        commands.push_back({Clock::now(), from, int(to), false});
        engine.seek(to);
        pump(250ms);
    }
    // Skips, as the player makes them: the new file opens in the background, then plays.
    for (int j = 0; j < 20; ++j) {
        const bool toHigh = j % 2 == 0;
        const int from = toHigh ? int(engine.currentTime()) : 10;
        commands.push_back({Clock::now(), from, toHigh ? 10 : 0, false, true});
        engine.loadInBackground(toHigh ? highPath : stepsPath, {},
                                [this](std::optional<AudioFormatInfo> info) {
                                    if (info) engine.play();
                                });
        pump(250ms);
    }
    for (int j = 0; j < 10; ++j) {
        pauses.push_back(Clock::now());
        engine.pause();
        pump(150ms);
        // A pause in the last moments of a second resumes into the next one.
        const int at = int(engine.currentTime() + 0.02);
        commands.push_back({Clock::now(), at, at, true});
        engine.play();
        pump(250ms);
    }
    pauses.push_back(Clock::now());
    engine.pause();
    auto [heard, when] = recorder.take();
    ASSERT_GT(heard.size(), sinkRate * 5);

    // Digital silence (the tones never hold 0 for 16 samples) that no command explains (a
    // pause fading out, a resume, the gap while a seek opens a new stream) is a dropout: the
    // server ran dry on a loaded machine. Its edges are not clicks of ours, and a command
    // next to one is not timed.
    std::vector<std::pair<std::size_t, std::size_t>> dropouts;
    auto near = [](Clock::time_point t, Clock::time_point at, auto before, auto after) {
        return t > at - before && t < at + after;
    };
    for (std::size_t i = 0; i < heard.size();) {
        std::size_t end = i;
        while (end < heard.size() && heard[end] == 0.0f)
            ++end;
        if (end - i >= 16 && i > 0 && end < heard.size()) {
            bool explained = false;
            for (auto p : pauses)
                explained |= near(when[i], p, 0ms, 300ms);
            for (const auto& c : commands)
                explained |=
                    c.resume ? near(when[end], c.at, 0ms, 300ms) : near(when[i], c.at, 25ms, 100ms);
            if (!explained) dropouts.push_back({i, end});
        }
        i = std::max(end, i + 1);
    }
    auto ms = [](Clock::duration d) {
        return std::chrono::duration<double, std::milli>(d).count();
    };
    // What the engine does to the sound happens around a command: a seek or a skip fades
    // the old position out while the new one fades in (for a moment both sound, and their
    // sum may move faster than either tone), a pause fades out once the device has played
    // what it held, within 120 ms; a resume fades in within 60 ms. No jump is allowed
    // there. A jump away from every command is a dropout.
    const double allowed = 2 * pi * 1300 * amplitude / sinkRate * 1.05 + amplitude / 150;
    const double allowedMixed =
        2 * pi * (1300 * amplitude + 1400 * highAmplitude) / sinkRate * 1.05 + amplitude / 150;
    for (std::size_t i = 1; i < heard.size(); ++i) {
        const double step = std::abs(heard[i] - heard[i - 1]);
        if (step <= allowed) continue;
        if (step <= allowedMixed && std::any_of(commands.begin(), commands.end(), [&](auto& c) {
                return !c.resume && near(when[i], c.at, 0ms, 150ms);
            }))
            continue;
        if (std::any_of(dropouts.begin(), dropouts.end(), [&](auto d) {
                return (i + 2 >= d.first && i <= d.first + 2) ||
                       (i + 2 >= d.second && i <= d.second + 2);
            }))
            continue;
        bool ours = false;
        for (auto p : pauses)
            ours |= near(when[i], p, 0ms, 120ms);
        for (const auto& c : commands)
            ours |= c.resume ? near(when[i], c.at, 0ms, 60ms) : near(when[i], c.at, 25ms, 50ms);
        if (!ours) {
            dropouts.push_back({i, i});
            continue;
        }
        auto last = std::find_if(commands.rbegin(), commands.rend(),
                                 [&](const Command& c) { return c.at <= when[i]; });
        ADD_FAILURE() << "a jump of " << std::abs(heard[i] - heard[i - 1]) << " "
                      << ms(when[i] - commands.front().at) << " ms after the first seek, "
                      << (last == commands.rend() ? -1.0 : ms(when[i] - last->at))
                      << " ms after the last command";
    }
    RecordProperty("dropouts", int(dropouts.size()));
    auto beside = [&](Clock::time_point t, auto before, auto after) {
        return std::any_of(dropouts.begin(), dropouts.end(), [&](auto d) {
            return when[d.second] > t - before && when[d.first] < t + after;
        });
    };

    // Upward zero crossings, and the second whose tone each period belongs to (-1: none).
    std::vector<double> crossings;
    for (std::size_t i = 1; i < heard.size(); ++i)
        if (heard[i - 1] < 0 && heard[i] >= 0)
            crossings.push_back(double(i) - 1 + heard[i - 1] / (heard[i - 1] - heard[i]));
    auto second = [&](std::size_t m) {
        const double hz = sinkRate / (crossings[m + 1] - crossings[m]);
        const double k = std::round((hz - 400) / 100);
        return std::abs(hz - 400 - 100 * k) < 25 ? int(k) : -1;
    };
    int timed = 0;
    for (const auto& c : commands) {
        if (beside(c.at, 30ms, 250ms)) continue;
        ++timed;
        SCOPED_TRACE((c.resume ? "resume in second "
                      : c.skip ? "skip from second "
                               : "seek from second ") +
                     std::to_string(c.from) + " to " + std::to_string(c.to));
        const auto first =
            std::size_t(std::lower_bound(when.begin(), when.end(), c.at) - when.begin());
        auto m = std::size_t(std::lower_bound(crossings.begin(), crossings.end(), double(first)) -
                             crossings.begin());
        double oldUntil = double(first);
        std::optional<double> newFrom;
        for (; m + 3 < crossings.size() && crossings[m] < double(first + sinkRate / 5); ++m) {
            if (!c.resume && second(m) == c.from) oldUntil = crossings[m + 1];
            if (second(m) == c.to && second(m + 1) == c.to && second(m + 2) == c.to) {
                newFrom = crossings[m];
                break;
            }
        }
        if (!newFrom) {
            ADD_FAILURE() << "the new position was not heard";
            continue;
        }
        // What the server held, then the fade (5 ms for a seek, 30 ms for a skip).
        EXPECT_LE((oldUntil - double(first)) * 1000 / sinkRate, c.skip ? 90.0 : 65.0)
            << "ms of the old position";
        EXPECT_LE(ms(when[std::size_t(*newFrom)] - c.at), 80.0) << "ms until the new position";
    }
    EXPECT_GE(timed, 40) << dropouts.size() << " dropouts";
    // Keys faster than anyone presses them, seeks on top of seeks, past the end and
    // before the start: nothing sticks, and the last seek is what plays.
    engine.play();
    for (int j = 0; j < 100; ++j) {
        engine.seek(double(j * 37 % 140) / 10 - 2);
        if (j % 3 == 0) engine.seek(double(j % 11));
        if (j % 10 == 0) j % 20 ? engine.play() : engine.pause();
        pump(10ms);
    }
    engine.seek(-5);
    engine.play();
    EXPECT_NEAR(listen().hz, 400, 5);
    engine.seek(3.1);
    EXPECT_NEAR(listen().hz, 700, 5);
    ends = 0;
    engine.seek(99);
    engine.play();
    pump(400ms);
    EXPECT_EQ(ends, 1);
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
        double rms, peak;
    };
    auto hear = [&](ReplayGainMode mode, const std::string& path) {
        player.setLoudness(mode, 0);
        auto s = record(1.6, [&] { player.play({path}, 0); });
        player.pause();
        pump(100ms);
        double peak = 0;
        for (float v : s)
            peak = std::max(peak, double(std::abs(v)));
        return Heard{steadyRmsDb(s, soundSpan(s).first + sinkRate * 3 / 10), peak};
    };
    const auto off = hear(ReplayGainMode::off, tagged);
    EXPECT_NEAR(hear(ReplayGainMode::track, tagged).rms - off.rms, -6.0, 0.05);
    EXPECT_NEAR(hear(ReplayGainMode::album, tagged).rms - off.rms, -10.0, 0.05);
    EXPECT_NEAR(hear(ReplayGainMode::off, tagged).rms - off.rms, 0.0, 0.05);
    const auto loudOff = hear(ReplayGainMode::off, loudPath),
               loudOn = hear(ReplayGainMode::track, loudPath);
    EXPECT_GT(loudOn.rms, loudOff.rms + 2.0); // louder, as far as full scale allows
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
