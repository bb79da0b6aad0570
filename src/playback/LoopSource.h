// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace trovan {

// A connection that the main loop serves: the loop waits until `fd` is ready for what
// `wait()` asks or its deadline passes, calls `process()`, and then asks again.
class LoopSource {
public:
    struct Wait {
        int fd = -1;
        bool readable = true;
        bool writable = false;
        std::optional<std::chrono::steady_clock::time_point> deadline;
    };

    virtual ~LoopSource() = default;
    virtual Wait wait() const = 0;
    virtual void process() = 0;

    // Installed by the loop; the source calls it when it queued output of its own
    // (outside process()), since that may change what it waits for.
    std::function<void()> rearm;
};

} // namespace trovan
