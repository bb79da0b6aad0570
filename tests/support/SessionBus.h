// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "support/TempDir.h"

#include <string>

namespace trovan::fixtures {

// A private D-Bus session bus (dbus-daemon) in a temporary folder, stopped on
// destruction. Throws std::runtime_error when the daemon cannot be started.
class SessionBus {
public:
    SessionBus();
    ~SessionBus();
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

    // For DBUS_SESSION_BUS_ADDRESS.
    const std::string& address() const { return address_; }

    // True when dbus-daemon is installed.
    static bool available();

private:
    TempDir dir_{"trovan-bus"};
    std::string address_;
    int pid_ = 0;
};

} // namespace trovan::fixtures
