// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/SessionBus.h"

#include "support/Process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace trovan::fixtures {

bool SessionBus::available() {
    return onPath("dbus-daemon");
}

SessionBus::SessionBus() {
    address_ = "unix:path=" + (dir_ / "bus").string();
    // --fork returns once the daemon listens.
    const ProcessResult r = runProcess({"dbus-daemon", "--session", "--fork", "--nopidfile",
                                        "--address=" + address_, "--print-pid"});
    pid_ = std::atoi(r.output.c_str());
    if (r.status != 0 || pid_ <= 0) throw std::runtime_error("dbus-daemon failed: " + r.errors);
}

SessionBus::~SessionBus() {
    if (pid_ > 0 && kill(pid_, SIGTERM) == 0) {
        // Not our child (it forked away), and whoever adopted it may never reap it: gone
        // means no process or a zombie.
        const std::string stat = "/proc/" + std::to_string(pid_) + "/stat";
        auto running = [&] {
            std::ifstream in(stat);
            std::string line;
            std::getline(in, line);
            const auto close = line.rfind(')');
            return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z';
        };
        for (int i = 0; i < 200 && running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace trovan::fixtures
