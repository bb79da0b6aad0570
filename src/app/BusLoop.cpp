// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/BusLoop.h"

#include <asio/post.hpp>

#include <poll.h>

namespace trovan {

BusLoop::BusLoop(asio::io_context& io, LoopSource& source)
    : io_(io), source_(source), descriptor_(io), timer_(io) {
    source_.rearm = [this] { arm(); };
    arm();
}

BusLoop::~BusLoop() {
    source_.rearm = nullptr;
    stop();
}

void BusLoop::stop() {
    stopped_ = true;
    timer_.cancel();
    // The connection owns its descriptor: let go of it without closing it.
    if (descriptor_.is_open()) (void)descriptor_.release();
}

void BusLoop::process() {
    processPending_ = false;
    if (stopped_) return;
    source_.process();
    arm();
}

void BusLoop::arm() {
    if (stopped_ || processPending_) return;
    const LoopSource::Wait w = source_.wait();
    if (w.fd < 0) {
        stop();
        return;
    }
    if (!descriptor_.is_open()) {
        asio::error_code ec;
        descriptor_.assign(w.fd, ec);
        if (ec) {
            stop();
            return;
        }
    }
    // The reactor reports edges; what is already waiting would never be reported.
    struct pollfd ready {
        w.fd, static_cast<short>((w.readable ? POLLIN : 0) | (w.writable ? POLLOUT : 0)), 0
    };
    const bool due = w.deadline && *w.deadline <= asio::steady_timer::clock_type::now();
    if (due || poll(&ready, 1, 0) > 0) {
        processPending_ = true;
        asio::post(io_, guard([this] { process(); }));
        return;
    }
    if (w.readable && !readPending_) {
        readPending_ = true;
        descriptor_.async_wait(asio::posix::descriptor_base::wait_read,
                               guard([this](const asio::error_code& ec) {
                                   readPending_ = false;
                                   if (!ec) process();
                               }));
    }
    if (w.writable && !writePending_) {
        writePending_ = true;
        descriptor_.async_wait(asio::posix::descriptor_base::wait_write,
                               guard([this](const asio::error_code& ec) {
                                   writePending_ = false;
                                   if (!ec) process();
                               }));
    }
    if (w.deadline != deadline_) {
        deadline_ = w.deadline;
        timer_.cancel();
        if (deadline_) {
            timer_.expires_at(*deadline_);
            timer_.async_wait(guard([this](const asio::error_code& ec) {
                if (ec) return;
                deadline_.reset();
                process();
            }));
        }
    }
}

} // namespace trovan
