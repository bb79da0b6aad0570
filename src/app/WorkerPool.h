// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// A few threads for the slow work (folder scans, library loads, cover decoding). Jobs
// run in the order they were submitted; whatever a job produces goes back to the main
// loop through the poster the caller captured, never by touching state here.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace trovan {

class WorkerPool {
public:
    using Job = std::function<void()>;

    // One thread per core this process may run on when `threads` is 0.
    explicit WorkerPool(int threads = 0);
    // Waits for the running jobs; jobs still queued are dropped.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void submit(Job job);
    // Called on the worker with a short description when a job throws; the pool goes on.
    // Set before the first job is submitted.
    std::function<void(const std::string&)> onFailure;
    int size() const { return static_cast<int>(threads_.size()); }
    // Blocks until the queue is empty and no job runs (tests and benchmarks).
    void waitIdle();
    // Runs `work` and says why it threw, in words for the status line; empty when it
    // did not.
    static std::string failureOf(const Job& work);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::deque<Job> jobs_;
    int busy_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace trovan
