// Plays generated tones through a real PulseAudio daemon (a private one with a
// null sink), records the sink's monitor with parec and checks what was heard.

#include "EngineHarness.h"

#include "media/AudioDecoder.h"

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
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
// Peak level and pitch (from upward zero crossings, interpolated between samples) of every
// `step`th sample of s[0, n). The peak of a steady tone does not change when part of the
// piece is missing, as a dropout on a busy machine leaves it.
Heard measure(const float* s, std::size_t n, std::size_t step = 1) {
    double peak = 0, first = -1, last = -1;
    int crossings = -1;
    for (std::size_t i = 0; i < n; i += step) {
        peak = std::max(peak, std::abs(double(s[i])));
        if (i >= step && s[i - step] < 0 && s[i] >= 0) {
            last = double(i / step) - 1 + s[i - step] / (s[i - step] - s[i]);
            if (++crossings == 0) first = last;
        }
    }
    return {20 * std::log10(peak + 1e-15),
            crossings > 0 ? crossings * double(sinkRate) / (last - first) : 0};
}

// Medians of level and pitch over the 50 ms pieces of s (every `step`th sample) from
// 0.3 s on that hold sound, at most ten: a dropout spoils a piece, not the result.
Heard steady(const std::vector<float>& s, std::size_t begin, std::size_t step = 1) {
    const std::size_t piece = sinkRate / 20 * step;
    std::vector<double> levels, pitches;
    for (std::size_t at = begin + sinkRate * 3 / 10 * step;
         at + piece <= s.size() && levels.size() < 10; at += piece) {
        auto h = measure(&s[at], piece, step);
        if (h.levelDb < -60) continue;
        levels.push_back(h.levelDb);
        pitches.push_back(h.hz);
    }
    if (levels.size() < 5) {
        ADD_FAILURE() << "only " << levels.size() << " pieces with sound";
        return {};
    }
    std::sort(levels.begin(), levels.end());
    std::sort(pitches.begin(), pitches.end());
    return {levels[levels.size() / 2], pitches[pitches.size() / 2]};
}

double fileLevelDb(const std::string& path) {
    AudioDecoder d(path);
    std::vector<float> all(static_cast<std::size_t>(d.frames()) * 2);
    d.read(all.data(), static_cast<std::size_t>(d.frames()));
    return steady(all, 0, 2).levelDb;
}

// A 32-bit float WAV file.
void writeFloatWav(const fs::path& path, int rate, const std::vector<float>& stereo) {
    std::ofstream f(path, std::ios::binary);
    auto u32 = [&](uint32_t v) { f.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&](uint16_t v) { f.write(reinterpret_cast<const char*>(&v), 2); };
    const auto bytes = static_cast<uint32_t>(stereo.size() * 4);
    f.write("RIFF", 4), u32(36 + bytes), f.write("WAVEfmt ", 8), u32(16);
    u16(3), u16(2), u32(uint32_t(rate)), u32(uint32_t(rate) * 8), u16(8), u16(32);
    f.write("data", 4), u32(bytes);
    f.write(reinterpret_cast<const char*>(stereo.data()), std::streamsize(bytes));
}

// parec on the null sink's monitor for as long as it lives, with the time each piece
// of the recording arrived. A sample reached the monitor no later than any piece that
// holds it, less the samples after it: the earliest such bound times it (the null sink
// renders up to its latency ahead, so this is when the sink took it, not when a device
// would sound it).
class Recorder {
public:
    Recorder() {
        int fds[2];
        if (pipe(fds) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        const char* argv[] = {"parec", "--latency-msec=5",   "-d",           "nullsink.monitor",
                              "--raw", "--format=float32le", "--rate=48000", "--channels=2",
                              nullptr};
        if (posix_spawnp(&pid_, "parec", &actions, nullptr, const_cast<char**>(argv), environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        fd_ = fds[0];
        reader_ = std::thread([this] {
            char buffer[4096];
            for (ssize_t n; (n = read(fd_, buffer, sizeof buffer)) > 0;) {
                auto now = Clock::now();
                std::lock_guard lock(mutex_);
                bytes_.append(buffer, std::size_t(n));
                arrivals_.push_back({bytes_.size() / 8, now});
            }
        });
    }
    ~Recorder() { finish(); }
    void finish() {
        if (pid_ > 0) kill(pid_, SIGTERM), waitpid(pid_, nullptr, 0);
        pid_ = -1;
        if (reader_.joinable()) reader_.join();
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }
    // The left channel, and when each sample reached the sink.
    std::pair<std::vector<float>, std::vector<Clock::time_point>> take() {
        finish();
        std::vector<float> left(bytes_.size() / 8);
        for (std::size_t i = 0; i < left.size(); ++i)
            std::memcpy(&left[i], bytes_.data() + 8 * i, sizeof(float));
        std::vector<Clock::time_point> at(left.size());
        auto latest = Clock::time_point::max();
        auto arrival = arrivals_.rbegin();
        for (std::size_t i = left.size(); i-- > 0;) {
            for (; arrival != arrivals_.rend() && arrival->first > i; ++arrival)
                latest = std::min(latest, arrival->second -
                                              std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(
                                                      double(arrival->first - i) / sinkRate)));
            at[i] = latest;
            latest -= std::chrono::duration_cast<Clock::duration>(
                std::chrono::duration<double>(1.0 / sinkRate));
        }
        return {std::move(left), std::move(at)};
    }

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::thread reader_;
    std::mutex mutex_;
    std::string bytes_;
    std::vector<std::pair<std::size_t, Clock::time_point>> arrivals_;
};

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

    // Plays (from the start of `path`, if given) for ~1.1 s and measures level and pitch
    // from 0.3 s after the first sound.
    Heard listen(const std::string& path = {}) {
        if (!path.empty()) engine.load(path);
        auto s = record(1.5, [this] { engine.play(); });
        engine.pause();
        std::size_t start = 0;
        while (start < s.size() && std::abs(s[start]) < 1e-3f)
            ++start;
        SCOPED_TRACE(path);
        return steady(s, start);
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
// next without a jump), seeked back and forth and paused: each new position reaches the
// sink within 50 ms of its command and the old one for at most 10 ms after it.
TEST_F(SoundServerTest, SeeksDropTheOldAudioAndPausesFade) {
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
    engine.load((dir / "steps.wav").string());
    ASSERT_EQ(engine.outputKind(), "cubeb");

    struct Command {
        Clock::time_point at;
        int from, to; // the second heard before and after it
        bool resume;
    };
    std::vector<Command> commands;
    std::vector<Clock::time_point> pauses;
    Recorder recorder;
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
    for (int j = 0; j < 10; ++j) {
        pauses.push_back(Clock::now());
        engine.pause();
        pump(150ms);
        const int at = int(engine.currentTime());
        commands.push_back({Clock::now(), at, at, true});
        engine.play();
        pump(250ms);
    }
    pauses.push_back(Clock::now());
    engine.pause();
    auto [heard, when] = recorder.take();
    ASSERT_GT(heard.size(), sinkRate * 5);

    // Digital silence of 2 ms or more that no command explains (a pause fading out, a
    // resume, the gap while a seek opens a new stream) is a dropout: the server ran dry on
    // a loaded machine. Its edges are not clicks of ours, and a command next to one is
    // not timed.
    std::vector<std::pair<std::size_t, std::size_t>> dropouts;
    auto near = [](Clock::time_point t, Clock::time_point at, auto before, auto after) {
        return t > at - before && t < at + after;
    };
    for (std::size_t i = 0; i < heard.size();) {
        std::size_t end = i;
        while (end < heard.size() && heard[end] == 0.0f)
            ++end;
        if (end - i >= sinkRate / 500 && i > 0 && end < heard.size()) {
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
    // What the engine does to the sound happens around a command: a seek cuts the old
    // position (through cubeb the server's buffer can only be dropped whole: one jump,
    // within 25 ms of it) and fades the new one in within 50 ms; a pause fades out once
    // the device has played what it held, within 120 ms; a resume fades in within 60 ms.
    // No other jump is allowed there. A jump away from every command is a dropout too.
    const double allowed = 2 * pi * 1300 * amplitude / sinkRate * 1.05 + amplitude / 150;
    std::vector<int> cuts(commands.size());
    for (std::size_t i = 1; i < heard.size(); ++i) {
        if (std::abs(heard[i] - heard[i - 1]) <= allowed) continue;
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
        auto c = std::find_if(commands.begin(), commands.end(), [&](const Command& c) {
            return !c.resume && near(when[i], c.at, 25ms, 25ms);
        });
        if (c != commands.end() && ++cuts[std::size_t(c - commands.begin())] == 1) continue;
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
        SCOPED_TRACE((c.resume ? "resume in second " : "seek from second ") +
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
        EXPECT_LE((oldUntil - double(first)) * 1000 / sinkRate, 10.0) << "ms of the old position";
        EXPECT_LE(ms(when[std::size_t(*newFrom)] - c.at), 50.0) << "ms until the new position";
    }
    EXPECT_GE(timed, 15) << dropouts.size() << " dropouts";
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

} // namespace
} // namespace trovan
