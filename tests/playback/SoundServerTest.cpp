// Plays generated tones through a real PulseAudio daemon (a private one with a
// null sink), records the sink's monitor with parec and checks what was heard.

#include "EngineHarness.h"

#include "media/AudioDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

namespace trovan {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
constexpr std::size_t sinkRate = 48000;

// A private PulseAudio daemon with one null sink, stopped on destruction.
struct PulseServer {
    explicit PulseServer(const fs::path& home) {
        fs::create_directories(home);
        fs::permissions(home, fs::perms::owner_all);
        for (const char* var : {"XDG_RUNTIME_DIR", "HOME", "XDG_CONFIG_HOME"})
            setenv(var, home.c_str(), 1);
        unsetenv("PULSE_SERVER");
        auto r = fixtures::runProcess(
            {"pulseaudio", "--daemonize=yes", "--exit-idle-time=-1", "--system=no", "-n",
             "--use-pid-file=yes",
             "--load=module-null-sink sink_name=nullsink rate=48000 channels=2 "
             "norewinds=1",
             "--load=module-native-protocol-unix auth-anonymous=1"});
        if (r.status == 0) std::ifstream(home / "pulse" / "pid") >> pid;
    }
    ~PulseServer() { stop(); }
    void stop() {
        for (int i = 0; pid > 0 && kill(pid, i < 250 ? SIGTERM : SIGKILL) == 0; ++i)
            std::this_thread::sleep_for(20ms);
        pid = -1;
    }
    pid_t pid = -1;
};

struct Heard {
    double levelDb = -300, hz = 0;
};
// Level and pitch (from upward zero crossings, interpolated between samples) of every
// `step`th sample of s[0, n).
Heard measure(const float* s, std::size_t n, std::size_t step = 1) {
    double sum = 0, first = -1, last = -1;
    int crossings = -1;
    for (std::size_t i = 0; i < n; i += step) {
        sum += double(s[i]) * s[i];
        if (i >= step && s[i - step] < 0 && s[i] >= 0) {
            last = double(i / step) - 1 + s[i - step] / (s[i - step] - s[i]);
            if (++crossings == 0) first = last;
        }
    }
    return {10 * std::log10(sum * double(step) / double(n) + 1e-30),
            crossings > 0 ? crossings * double(sinkRate) / (last - first) : 0};
}

double fileLevelDb(const std::string& path) {
    AudioDecoder d(path);
    std::vector<float> all(static_cast<std::size_t>(d.frames()) * 2);
    d.read(all.data(), static_cast<std::size_t>(d.frames()));
    return measure(all.data(), all.size(), 2).levelDb;
}

class SoundServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available() || !fixtures::onPath("pulseaudio") || !fixtures::onPath("parec"))
            GTEST_SKIP() << "ffmpeg, pulseaudio or parec missing";
        engine.onTrackEnd = [this] {
            ++ends;
            endedAt = Clock::now();
        };
    }

    // Runs posted work, as the program's main loop would, for a while.
    void pump(std::chrono::milliseconds duration) {
        for (auto end = Clock::now() + duration; Clock::now() < end;) {
            tasks.runPending();
            std::this_thread::sleep_for(5ms);
        }
        tasks.runPending();
    }

    // The left channel of what the null sink plays during the next `seconds`,
    // while posted work runs; `start` is called once the recording has connected.
    std::vector<float> record(double seconds, const std::function<void()>& start = {}) {
        auto parec = std::async(std::launch::async, [seconds] {
            return fixtures::runProcess({"timeout", std::to_string(seconds), "parec",
                                         "--latency-msec=20", "-d", "nullsink.monitor", "--raw",
                                         "--format=float32le", "--rate=48000", "--channels=2"});
        });
        std::this_thread::sleep_for(150ms);
        if (start) start();
        pump(std::chrono::milliseconds(static_cast<int>(seconds * 1000) - 150));
        auto raw = parec.get().output;
        std::vector<float> left(raw.size() / 8);
        for (std::size_t i = 0; i < left.size(); ++i)
            std::memcpy(&left[i], raw.data() + 8 * i, sizeof(float));
        return left;
    }

    // Plays (from the start of `path`, if given) for ~1.1 s and measures level and pitch:
    // medians over 50 ms pieces of the steady part, from 0.3 s after the first sound and
    // 0.5 s long, so that a dropout on a busy machine spoils one piece, not the result.
    Heard listen(const std::string& path = {}) {
        if (!path.empty()) engine.load(path);
        auto s = record(1.25, [this] { engine.play(); });
        engine.pause();
        std::size_t start = 0;
        while (start < s.size() && std::abs(s[start]) < 1e-3f)
            ++start;
        if (start + sinkRate * 8 / 10 > s.size()) {
            ADD_FAILURE() << "recorded only " << s.size() << " frames of " << path;
            return {};
        }
        std::vector<double> levels, pitches;
        for (std::size_t at = start + sinkRate * 3 / 10; levels.size() < 10; at += sinkRate / 20) {
            levels.push_back(measure(&s[at], sinkRate / 20).levelDb);
            pitches.push_back(measure(&s[at], sinkRate / 20).hz);
        }
        std::sort(levels.begin(), levels.end());
        std::sort(pitches.begin(), pitches.end());
        return {levels[5], pitches[5]};
    }

    fixtures::TempDir dir{"trovan-sound"};
    testing::TaskQueue tasks;
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

    // The server goes away mid-track: playback carries on without a device, to the end.
    engine.seek(0);
    engine.play();
    pump(500ms);
    server.stop();
    pump(500ms);
    EXPECT_EQ(engine.outputKind(), "null");
    EXPECT_TRUE(engine.isPlaying());
    double at = engine.currentTime();
    pump(300ms);
    EXPECT_GT(engine.currentTime(), at);
    pump(1500ms);
    EXPECT_EQ(ends, 2);
}

} // namespace
} // namespace trovan
