// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// What the application benchmarks share: the real program on a pseudo-terminal, and the
// controller in process on a data folder's cache.

#include "app/App.h"
#include "app/AppController.h"
#include "app/WorkerPool.h"
#include "library/LibraryStore.h"
#include "config/SettingsStore.h"
#include "playback/NullOutput.h"
#include "terminal/Renderer.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace trovan::bench {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The real program on a 100 × 40 pseudo-terminal.
class Running {
public:
    // `bus`: the session bus address the program sees; empty keeps ours.
    Running(const fs::path& home, const std::vector<std::string>& args,
            const std::string& bus = {}) {
        struct winsize ws {};
        ws.ws_col = 100;
        ws.ws_row = 40;
        start_ = Clock::now();
        pid_ = forkpty(&fd_, nullptr, nullptr, &ws);
        if (pid_ == 0) {
            setenv("TROVAN_HOME", home.c_str(), 1);
            setenv("COLORTERM", "truecolor", 1);
            if (!bus.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
            // TROVAN_BENCH_BINARY runs another build instead, to compare with.
            const char* other = std::getenv("TROVAN_BENCH_BINARY");
            const char* binary = other ? other : TROVAN_BINARY;
            std::vector<char*> argv{const_cast<char*>(binary)};
            for (const auto& a : args)
                argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(binary, argv.data());
            _exit(127);
        }
    }
    ~Running() {
        send("q");
        const auto end = Clock::now() + std::chrono::seconds(5);
        int status = 0;
        while (Clock::now() < end && waitpid(pid_, &status, WNOHANG) == 0) {
            drain(std::chrono::milliseconds(10));
        }
        if (waitpid(pid_, &status, WNOHANG) == 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
        close(fd_);
    }

    void send(const std::string& bytes) {
        if (write(fd_, bytes.data(), bytes.size()) < 0) return;
    }
    // Reads what the program writes until `text` shows up; the time since the start.
    std::optional<double> waitFor(const std::string& text, std::chrono::milliseconds limit) {
        const auto end = Clock::now() + limit;
        while (out_.find(text, scanned_) == std::string::npos) {
            if (Clock::now() > end) return std::nullopt;
            drain(std::chrono::milliseconds(50));
        }
        scanned_ = out_.find(text, scanned_) + text.size();
        return std::chrono::duration<double>(Clock::now() - start_).count();
    }
    // Reads what is pending and treats it as seen: waitFor looks only at what comes next.
    void skipPending(std::chrono::milliseconds wait) {
        for (std::size_t before = SIZE_MAX; before != out_.size();) {
            before = out_.size();
            drain(wait);
        }
        scanned_ = out_.size();
    }
    void drain(std::chrono::milliseconds wait) {
        struct pollfd p {
            fd_, POLLIN, 0
        };
        if (poll(&p, 1, static_cast<int>(wait.count())) <= 0) return;
        char buf[65536];
        const ssize_t n = read(fd_, buf, sizeof buf);
        if (n > 0) out_.append(buf, static_cast<std::size_t>(n));
    }

    // Context switches of every thread of the process so far.
    long switches() const {
        long total = 0;
        forEachThread("status", [&](const std::string& text) {
            std::istringstream in(text);
            for (std::string line; std::getline(in, line);)
                if (line.find("ctxt_switches:") != std::string::npos)
                    total += std::atol(line.substr(line.find(':') + 1).c_str());
        });
        return total;
    }
    // CPU time of the main thread so far, in seconds.
    double mainThreadCpuSeconds() const {
        std::ifstream in("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) +
                         "/schedstat");
        double ns = 0;
        in >> ns;
        return ns / 1e9;
    }
    // CPU time of every thread so far, in seconds.
    double cpuSeconds() const {
        double total = 0;
        forEachThread("schedstat",
                      [&](const std::string& text) { total += std::atof(text.c_str()) / 1e9; });
        return total;
    }

    pid_t pid() const { return pid_; }

private:
    template <class F> void forEachThread(const char* file, F f) const {
        const std::string dir = "/proc/" + std::to_string(pid_) + "/task";
        for (const auto& entry : fs::directory_iterator(dir)) {
            std::ifstream in(entry.path() / file);
            std::stringstream ss;
            ss << in.rdbuf();
            f(ss.str());
        }
    }

    pid_t pid_ = -1;
    int fd_ = -1;
    Clock::time_point start_;
    std::string out_;
    std::size_t scanned_ = 0;
};

// The controller in process with the cache of a data folder loaded.
struct InProcess {
    explicit InProcess(const fs::path& home)
        : store(std::make_shared<LibraryStore>(home / "library.sqlite")) {
        AppController::Host host;
        host.post = [this](AppController::Task t) {
            std::lock_guard lock(mutex);
            tasks.push_back(std::move(t));
        };
        host.postDelayed = [](std::chrono::milliseconds, AppController::Task) {};
        host.outputs = [](const OutputFormat& f, AudioRenderer& r,
                          OutputEvents) -> std::unique_ptr<AudioOutput> {
            return std::make_unique<NullOutput>(f, r, NullOutput::Clock::virtualClock);
        };
        controller = std::make_unique<AppController>(terminal, Size{100, 40},
                                                     SettingsStore(home / "config.json"), store,
                                                     pool, std::move(host));
        controller->reloadLibrary();
        settle();
        renderer.truecolor = true;
    }
    ~InProcess() {
        pool.waitIdle();
        controller.reset();
    }
    void settle() {
        for (;;) {
            pool.waitIdle();
            std::deque<AppController::Task> batch;
            {
                std::lock_guard lock(mutex);
                batch.swap(tasks);
            }
            if (batch.empty()) return;
            for (auto& t : batch)
                t();
        }
    }
    std::string frame() {
        auto f = App::composeFrame(*controller);
        return renderer.render(std::move(f.buffer), f.cursor);
    }

    Terminal terminal;
    WorkerPool pool{2};
    std::shared_ptr<LibraryStore> store;
    std::mutex mutex;
    std::deque<AppController::Task> tasks;
    std::unique_ptr<AppController> controller;
    Renderer renderer;
};

} // namespace trovan::bench
