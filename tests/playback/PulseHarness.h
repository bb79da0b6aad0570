// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A private PulseAudio daemon with one null sink, what its monitor records, and the
// measures the sound-server tests take of it.

#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace trovan::testing {

using SteadyClock = std::chrono::steady_clock;
constexpr std::size_t sinkRate = 48000;

inline bool canRunPulse() {
    return fixtures::available() && fixtures::onPath("pulseaudio") && fixtures::onPath("parec");
}

// Runs posted work, as the program's main loop would, for a while.
inline void pump(TaskQueue& tasks, std::chrono::milliseconds duration) {
    for (auto end = SteadyClock::now() + duration; SteadyClock::now() < end;) {
        tasks.runPending();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    tasks.runPending();
}

// A private PulseAudio daemon with one null sink at 48 kHz, stopped on destruction.
struct PulseServer {
    explicit PulseServer(const std::filesystem::path& home) {
        std::filesystem::create_directories(home);
        std::filesystem::permissions(home, std::filesystem::perms::owner_all);
        for (const char* var : {"XDG_RUNTIME_DIR", "HOME", "XDG_CONFIG_HOME"})
            setenv(var, home.c_str(), 1);
        unsetenv("PULSE_SERVER");
        auto r = fixtures::runProcess(
            {"pulseaudio", "--daemonize=yes", "--exit-idle-time=-1", "--system=no", "-n",
             "--use-pid-file=yes",
             "--load=module-null-sink sink_name=nullsink rate=48000 channels=2 norewinds=1",
             "--load=module-native-protocol-unix auth-anonymous=1"});
        if (r.status == 0) std::ifstream(home / "pulse" / "pid") >> pid;
    }
    ~PulseServer() { stop(); }
    void stop() {
        for (int i = 0; pid > 0 && kill(pid, i < 250 ? SIGTERM : SIGKILL) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        pid = -1;
    }
    pid_t pid = -1;
};

// The left channel of what the sink plays during the next `seconds` while posted work
// runs; `start` runs once parec listens (an idle sink's monitor records nothing, so
// there is nothing to wait for but time).
inline std::vector<float> recordSink(TaskQueue& tasks, double seconds,
                                     const std::function<void()>& start = {}) {
    auto recording = std::async(std::launch::async, [seconds] {
        return fixtures::runProcess({"timeout", std::to_string(seconds), "parec",
                                     "--latency-msec=20", "-d", "nullsink.monitor", "--raw",
                                     "--format=float32le", "--rate=48000", "--channels=2"})
            .output;
    });
    const auto listening = std::chrono::milliseconds(200);
    std::this_thread::sleep_for(listening);
    if (start) start();
    pump(tasks, std::chrono::milliseconds(int(seconds * 1000)) - listening);
    const std::string bytes = recording.get();
    std::vector<float> left(bytes.size() / 8);
    for (std::size_t i = 0; i < left.size(); ++i)
        std::memcpy(&left[i], bytes.data() + 8 * i, sizeof(float));
    return left;
}

struct Heard {
    double levelDb = -300, hz = 0;
};

// Peak level and pitch (from upward zero crossings, interpolated between samples) of every
// `step`th sample of s[0, n). The peak of a steady tone does not change when part of the
// piece is missing, as a dropout on a busy machine leaves it.
inline Heard measure(const float* s, std::size_t n, std::size_t step = 1) {
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
// 0.3 s after `begin` on that hold sound, at most ten: a dropout spoils a piece, not the
// result.
inline Heard steady(const std::vector<float>& s, std::size_t begin, std::size_t step = 1) {
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

} // namespace trovan::testing
