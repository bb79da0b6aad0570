// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>

namespace trovan {

// Single-producer single-consumer ring of floats. One thread writes, one thread
// reads; neither ever blocks, locks or allocates after construction.
class SpscRing {
public:
    explicit SpscRing(std::size_t minCapacity) {
        capacity_ = 1;
        while (capacity_ < minCapacity)
            capacity_ <<= 1;
        mask_ = capacity_ - 1;
        data_ = std::make_unique<float[]>(capacity_);
    }

    std::size_t capacity() const { return capacity_; }

    // Safe from either side; exact only from the side that asks for its own view.
    std::size_t readable() const {
        return head_.load(std::memory_order_acquire) - tail_.load(std::memory_order_acquire);
    }
    std::size_t writable() const { return capacity_ - readable(); }

    std::size_t write(const float* src, std::size_t count) {
        std::size_t head = head_.load(std::memory_order_relaxed);
        std::size_t tail = tail_.load(std::memory_order_acquire);
        count = std::min(count, capacity_ - (head - tail));
        copyIn(head, src, count);
        head_.store(head + count, std::memory_order_release);
        return count;
    }

    std::size_t read(float* dst, std::size_t count) {
        std::size_t tail = tail_.load(std::memory_order_relaxed);
        std::size_t head = head_.load(std::memory_order_acquire);
        count = std::min(count, head - tail);
        copyOut(tail, dst, count);
        tail_.store(tail + count, std::memory_order_release);
        return count;
    }

private:
    void copyIn(std::size_t at, const float* src, std::size_t count) {
        std::size_t start = at & mask_;
        std::size_t first = std::min(count, capacity_ - start);
        std::memcpy(data_.get() + start, src, first * sizeof(float));
        std::memcpy(data_.get(), src + first, (count - first) * sizeof(float));
    }
    void copyOut(std::size_t at, float* dst, std::size_t count) const {
        std::size_t start = at & mask_;
        std::size_t first = std::min(count, capacity_ - start);
        std::memcpy(dst, data_.get() + start, first * sizeof(float));
        std::memcpy(dst + first, data_.get(), (count - first) * sizeof(float));
    }

    std::size_t capacity_ = 0;
    std::size_t mask_ = 0;
    std::unique_ptr<float[]> data_;
    alignas(64) std::atomic<std::size_t> head_{0}; // written by the producer
    alignas(64) std::atomic<std::size_t> tail_{0}; // written by the consumer
};

} // namespace trovan
