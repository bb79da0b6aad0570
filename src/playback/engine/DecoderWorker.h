// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The decoder worker: one thread for the engine's lifetime.
//
// Threads and handshake: the owner hands it the segments to fill (`assign`: the one
// playing, one waiting to crossfade in, ones fading out) and the
// track to open ahead (`prepare`) under `mutex_`, and wakes it; the thread keeps only
// its own references to the segments and lets go of the old one outside the
// lock. It talks back only by posting tasks (`Segment::post`, `Prepared::post`) and
// through the segment's atomics; the owner checks what arrives against its
// generation and load count, so a notice from a stopped segment or an earlier load is
// dropped there.

#include "playback/engine/Segment.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace trovan {

// Keeps the current segment's ring topped up, goes on into the prepared track when
// a file ends, and notices when joins and the last frame have been heard. One
// thread for the engine's lifetime; nothing thrown on it escapes.
class AudioEngine::DecoderWorker {
public:
    using Report = std::function<void(std::string)>;

    explicit DecoderWorker(Report report)
        : report_(std::move(report)), thread_([this] { run(); }) {}
    ~DecoderWorker() {
        {
            std::lock_guard lock(mutex_);
            quit_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    // The segments to keep filled, the playing one first.
    void assign(std::vector<std::shared_ptr<Segment>> segments) {
        std::vector<std::shared_ptr<Segment>> old;
        {
            std::lock_guard lock(mutex_);
            old = std::exchange(next_, std::move(segments));
        }
        wake_.notify_all();
    }
    void prepare(std::shared_ptr<Prepared> p) {
        std::shared_ptr<Prepared> old;
        {
            std::lock_guard lock(mutex_);
            old = std::exchange(prepared_, std::move(p));
        }
        wake_.notify_all();
    }

private:
    bool preparedPending() const;
    void run();
    std::chrono::milliseconds guardedService(Segment& s, std::vector<float>& scratch);
    bool joinNext(Segment& s);
    static void reopenIfRewritten(Segment& s);
    static void recordEnd(Segment& s);
    static bool watchJoins(Segment& s);
    std::chrono::milliseconds service(Segment& s, std::vector<float>& scratch);

    Report report_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<std::shared_ptr<Segment>> next_;
    std::shared_ptr<Prepared> prepared_;
    bool quit_ = false;
    std::thread thread_; // last: starts after the members above exist
};

} // namespace trovan
