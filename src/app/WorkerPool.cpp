// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/WorkerPool.h"

#include "config/ActiveCores.h"

#include <exception>
#include <new>

namespace trovan {

WorkerPool::WorkerPool(int threads) {
    const int n = threads > 0 ? threads : activeCores();
    threads_.reserve(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        threads_.emplace_back([this] { run(); });
}

WorkerPool::~WorkerPool() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        jobs_.clear();
    }
    wake_.notify_all();
    for (auto& t : threads_)
        t.join();
}

void WorkerPool::submit(Job job) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
}

void WorkerPool::waitIdle() {
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return jobs_.empty() && busy_ == 0; });
}

void WorkerPool::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) return;
        Job job = std::move(jobs_.front());
        jobs_.pop_front();
        ++busy_;
        lock.unlock();
        // Whatever a job throws is reported and the thread goes on; so is a report that
        // throws in turn (no memory left to build its message).
        try {
            if (auto why = failureOf(job); !why.empty() && onFailure) onFailure(why);
        } catch (...) {
        }
        try {
            job = nullptr; // release what the job captured before reporting idle
        } catch (...) {
        }
        lock.lock();
        --busy_;
        if (jobs_.empty() && busy_ == 0) idle_.notify_all();
    }
}

std::string WorkerPool::failureOf(const Job& work) {
    try {
        work();
        return {};
    } catch (const std::bad_alloc&) {
        return "no hay memoria suficiente";
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "error desconocido";
    }
}

} // namespace trovan
