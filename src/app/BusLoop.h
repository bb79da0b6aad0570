// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "config/LifeToken.h"
#include "playback/LoopSource.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <memory>
#include <optional>

namespace trovan {

// Serves a LoopSource from the main loop: waits for its descriptor and its deadline,
// and processes it when either comes. No thread, no polling: between events nothing runs.
class BusLoop {
public:
    BusLoop(asio::io_context& io, LoopSource& source);
    ~BusLoop();
    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

private:
    void arm();
    void process();
    void stop();
    // Completions can be queued after we are gone; they then do nothing.
    template <typename F> auto guard(F f) {
        return [alive = alive_.watch(), f = std::move(f)](auto&&... args) {
            if (alive) f(std::forward<decltype(args)>(args)...);
        };
    }

    asio::io_context& io_;
    LoopSource& source_;
    asio::posix::stream_descriptor descriptor_;
    asio::steady_timer timer_;
    std::optional<asio::steady_timer::time_point> deadline_;
    bool readPending_ = false;
    bool writePending_ = false;
    bool processPending_ = false;
    bool stopped_ = false;
    LifeToken alive_;
};

} // namespace trovan
