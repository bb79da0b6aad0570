// Plays generated tones through a real PulseAudio daemon (a private one with a
// null sink), records the sink's monitor with parec and checks what was heard.

#include "EngineHarness.h"

#include "media/AudioDecoder.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace trovan {
namespace {

using namespace std::chrono_literals;
using testing::TaskQueue;
namespace fs = std::filesystem;

constexpr int sinkRate = 48000;

pid_t spawn(const std::vector<std::string>& argv, const fs::path& stdoutFile) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, stdoutFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

bool waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (kill(pid, 0) != 0) return true;
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

// A private PulseAudio daemon with one null sink, stopped on destruction.
class PulseServer {
public:
    explicit PulseServer(const fs::path& root) : root_(root) {
        auto run = root / "run";
        fs::create_directories(run);
        fs::permissions(run, fs::perms::owner_all);
        fs::create_directories(root / "home");
        fs::create_directories(root / "config");
        setenv("XDG_RUNTIME_DIR", run.c_str(), 1);
        setenv("HOME", (root / "home").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
        unsetenv("PULSE_SERVER");
        auto r = fixtures::runProcess(
            {"pulseaudio", "--daemonize=yes", "--exit-idle-time=-1", "--system=no", "-n",
             "--use-pid-file=yes",
             "--load=module-null-sink sink_name=nullsink rate=48000 channels=2 norewinds=1",
             "--load=module-native-protocol-unix auth-anonymous=1"});
        started_ = r.status == 0;
        std::ifstream pidFile(run / "pulse" / "pid");
        pidFile >> pid_;
    }

    ~PulseServer() { stop(); }

    void stop() {
        if (pid_ <= 0) return;
        fixtures::runProcess({"pulseaudio", "--kill"});
        if (!waitForExit(pid_, 5s)) {
            kill(pid_, SIGKILL);
            waitForExit(pid_, 2s);
        }
        pid_ = -1;
    }

    bool running() const { return started_ && pid_ > 0 && kill(pid_, 0) == 0; }

private:
    fs::path root_;
    bool started_ = false;
    pid_t pid_ = -1;
};

// Records the null sink's monitor as 48 kHz stereo float while it lives.
class Recorder {
public:
    explicit Recorder(fs::path file) : file_(std::move(file)) {
        pid_ = spawn({"parec", "--latency-msec=20", "-d", "nullsink.monitor", "--raw",
                      "--format=float32le", "--rate=48000", "--channels=2"},
                     file_);
        std::this_thread::sleep_for(150ms); // let the stream connect
    }
    ~Recorder() { stop(); }

    std::size_t framesSoFar() const {
        std::error_code ec;
        auto size = fs::file_size(file_, ec);
        return ec ? 0 : static_cast<std::size_t>(size / 8);
    }

    // The left channel of everything recorded.
    std::vector<float> stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            int status = 0;
            waitpid(pid_, &status, 0);
            pid_ = -1;
        }
        std::ifstream in(file_, std::ios::binary);
        std::vector<float> interleaved;
        float frame[2];
        std::vector<float> left;
        while (in.read(reinterpret_cast<char*>(frame), sizeof frame))
            left.push_back(frame[0]);
        return left;
    }

private:
    fs::path file_;
    pid_t pid_ = -1;
};

double rmsDb(const std::vector<float>& s, std::size_t from, std::size_t to) {
    double sum = 0;
    for (std::size_t i = from; i < to; ++i)
        sum += double(s[i]) * s[i];
    return 10 * std::log10(sum / static_cast<double>(to - from) + 1e-30);
}

// Frequency from upward zero crossings, interpolated between samples.
double frequency(const std::vector<float>& s, std::size_t from, std::size_t to) {
    double first = -1, last = -1;
    int crossings = 0;
    for (std::size_t i = from + 1; i < to; ++i) {
        if (s[i - 1] < 0 && s[i] >= 0) {
            double t = static_cast<double>(i - 1) + s[i - 1] / (s[i - 1] - s[i]);
            if (first < 0)
                first = t;
            else
                ++crossings;
            last = t;
        }
    }
    return crossings > 0 ? crossings * sinkRate / (last - first) : 0;
}

// The steady middle of a recording: from 0.3 s after the first sound, 0.5 s long.
struct Window {
    std::size_t from = 0, to = 0;
};
std::optional<Window> steadyPart(const std::vector<float>& s) {
    std::size_t start = 0;
    while (start < s.size() && std::abs(s[start]) < 1e-3f)
        ++start;
    Window w{start + sinkRate * 3 / 10, start + sinkRate * 8 / 10};
    if (w.to > s.size()) return std::nullopt;
    return w;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

double fileLevelDb(const std::string& path) {
    AudioDecoder d(path);
    std::vector<float> all(static_cast<std::size_t>(d.frames()) * 2);
    d.read(all.data(), static_cast<std::size_t>(d.frames()));
    double sum = 0;
    for (std::size_t i = 0; i < all.size(); i += 2)
        sum += double(all[i]) * all[i];
    return 10 * std::log10(sum / static_cast<double>(all.size() / 2));
}

class SoundServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
        if (!fixtures::onPath("pulseaudio") || !fixtures::onPath("parec"))
            GTEST_SKIP() << "pulseaudio or parec missing";
    }

    // Runs posted work (as the program's main loop would) for a while.
    void pump(TaskQueue& tasks, std::chrono::milliseconds duration) {
        auto end = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < end) {
            tasks.runPending();
            std::this_thread::sleep_for(5ms);
        }
        tasks.runPending();
    }

    struct Heard {
        double levelDb = -300;
        double hz = 0;
    };

    // Plays `path` from the start for ~1.1 s while recording, then pauses.
    Heard listen(AudioEngine& engine, TaskQueue& tasks, const std::string& path) {
        engine.load(path);
        Recorder rec(dir.path() / "rec.raw");
        engine.play();
        pump(tasks, 1100ms);
        engine.pause();
        auto samples = rec.stop();
        auto w = steadyPart(samples);
        if (!w) {
            ADD_FAILURE() << "recorded only " << samples.size() << " frames of " << path;
            return {};
        }
        // Medians over 50 ms pieces: a dropout on a busy machine spoils one piece,
        // not the measurement.
        std::vector<double> levels, pitches;
        for (std::size_t at = w->from; at + sinkRate / 20 <= w->to; at += sinkRate / 20) {
            levels.push_back(rmsDb(samples, at, at + sinkRate / 20));
            pitches.push_back(frequency(samples, at, at + sinkRate / 20));
        }
        Heard heard{median(levels), median(pitches)};
        std::cout << fs::path(path).filename().string() << ": " << heard.hz << " Hz, "
                  << heard.levelDb << " dBFS\n";
        return heard;
    }

    fixtures::TempDir dir{"trovan-sound"};
};

TEST_F(SoundServerTest, WithoutAServerPlaybackFallsBackToTheNullOutput) {
    auto run = dir.path() / "empty-run";
    fs::create_directories(run);
    setenv("XDG_RUNTIME_DIR", run.c_str(), 1);
    setenv("PULSE_SERVER", (run / "nothing-here").c_str(), 1);
    fixtures::Tone t;
    t.seconds = 0.6;
    auto path = fixtures::cached("sound-short.flac", t).string();

    TaskQueue tasks;
    AudioEngine engine(tasks.poster());
    int ends = 0;
    engine.onTrackEnd = [&] { ++ends; };
    engine.load(path);
    if (!fs::exists("/dev/snd")) {
        EXPECT_EQ(engine.outputKind(), "null");
    }
    engine.play();
    EXPECT_TRUE(engine.isPlaying());
    pump(tasks, 300ms);
    EXPECT_GT(engine.currentTime(), 0.1);
    pump(tasks, 700ms);
    EXPECT_EQ(ends, 1);
    EXPECT_DOUBLE_EQ(engine.currentTime(), 0.6);
}

TEST_F(SoundServerTest, TonesEqualizerPauseAndEndThroughPulseAudio) {
    PulseServer server(dir.path() / "pulse");
    ASSERT_TRUE(server.running()) << "pulseaudio did not start";

    fixtures::Tone t;
    t.seconds = 2.0;
    t.frequency = 1000;
    auto khz = fixtures::cached("sound-1k.flac", t).string();
    t.frequency = 100;
    auto low = fixtures::cached("sound-100.flac", t).string();
    t.format = fixtures::Format::mp3;
    t.frequency = 440;
    auto mp3 = fixtures::cached("sound-440.mp3", t).string();

    TaskQueue tasks;
    AudioEngine engine(tasks.poster());
    int ends = 0;
    std::chrono::steady_clock::time_point endedAt;
    engine.onTrackEnd = [&] {
        ++ends;
        endedAt = std::chrono::steady_clock::now();
    };
    engine.load(khz);
    ASSERT_EQ(engine.outputKind(), "cubeb");

    // The tone arrives at its own pitch and level.
    auto base = listen(engine, tasks, khz);
    EXPECT_NEAR(base.hz, 1000, 5);
    EXPECT_NEAR(base.levelDb, fileLevelDb(khz), 1.0);
    auto mp3Heard = listen(engine, tasks, mp3);
    EXPECT_NEAR(mp3Heard.hz, 440, 3);
    EXPECT_NEAR(mp3Heard.levelDb, fileLevelDb(mp3), 1.0);

    // Cutting the 1 kHz band by 6 dB is heard; switching the equalizer off undoes it.
    std::vector<float> gains(10, 0.0f);
    gains[5] = -6;
    engine.equalizer().apply(gains, true);
    EXPECT_NEAR(listen(engine, tasks, khz).levelDb - base.levelDb, -6.0, 1.0);
    engine.equalizer().apply(gains, false);
    EXPECT_NEAR(listen(engine, tasks, khz).levelDb - base.levelDb, 0.0, 1.0);
    // Raising it by 6 dB is taken back by the pre-gain, which lowers other tones.
    auto lowBase = listen(engine, tasks, low);
    gains[5] = 6;
    engine.equalizer().apply(gains, true);
    EXPECT_NEAR(listen(engine, tasks, khz).levelDb - base.levelDb, 0.0, 1.0);
    auto lowBoosted = listen(engine, tasks, low);
    EXPECT_NEAR(lowBoosted.hz, 100, 2);
    EXPECT_NEAR(lowBoosted.levelDb - lowBase.levelDb, -6.0, 1.0);
    engine.equalizer().apply(std::vector<float>(10, 0.0f), true);

    // Paused: nothing but silence reaches the sink; playing again is heard.
    engine.load(khz);
    engine.play();
    pump(tasks, 400ms);
    engine.pause();
    pump(tasks, 200ms);
    {
        Recorder rec(dir.path() / "pause.raw");
        pump(tasks, 600ms);
        std::size_t pausedFrames = rec.framesSoFar();
        engine.play();
        pump(tasks, 800ms);
        engine.pause();
        auto samples = rec.stop();
        ASSERT_GT(samples.size(), pausedFrames + sinkRate / 2);
        std::cout << "recorded while paused: " << pausedFrames << " frames\n";
        if (pausedFrames > 0) {
            EXPECT_LT(rmsDb(samples, 0, pausedFrames), -80.0);
        }
        EXPECT_GT(rmsDb(samples, pausedFrames, samples.size()), base.levelDb - 3);
    }

    // The end of the track is announced once, when its last frame has been heard:
    // two seconds after its first frame was.
    engine.load(khz);
    ends = 0;
    engine.play();
    std::optional<std::chrono::steady_clock::time_point> firstHeard;
    auto deadline = std::chrono::steady_clock::now() + 2600ms;
    while (std::chrono::steady_clock::now() < deadline) {
        tasks.runPending();
        if (!firstHeard && engine.currentTime() > 0) firstHeard = std::chrono::steady_clock::now();
        std::this_thread::sleep_for(2ms);
    }
    tasks.runPending();
    EXPECT_EQ(ends, 1);
    ASSERT_TRUE(firstHeard);
    double late = std::chrono::duration<double>(endedAt - *firstHeard).count() - 2.0;
    std::cout << "end of track announced " << late * 1000 << " ms after the file's length\n";
    EXPECT_NEAR(late, 0.0, 0.1);
    EXPECT_FALSE(engine.isPlaying());
    EXPECT_DOUBLE_EQ(engine.currentTime(), 2.0);

    // The server goes away mid-track: playback carries on without a device.
    engine.seek(0);
    engine.play();
    pump(tasks, 500ms);
    server.stop();
    pump(tasks, 500ms);
    EXPECT_EQ(engine.outputKind(), "null");
    EXPECT_TRUE(engine.isPlaying());
    double at = engine.currentTime();
    pump(tasks, 300ms);
    EXPECT_GT(engine.currentTime(), at);
}

} // namespace
} // namespace trovan
