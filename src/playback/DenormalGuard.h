// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#if defined(__SSE__) || defined(__x86_64__)
#include <xmmintrin.h>
#endif

namespace trovan {

// Flushes denormal results to zero and treats denormal inputs as zero for the
// lifetime of the guard, on this thread. Filters fed silence after loud audio
// otherwise decay through denormals, which are slow enough on many CPUs to
// miss audio deadlines.
class DenormalGuard {
public:
#if defined(__SSE__) || defined(__x86_64__)
    DenormalGuard() : saved_(_mm_getcsr()) {
        _mm_setcsr(saved_ | 0x8040u);
    } // FTZ | DAZ
    ~DenormalGuard() {
        _mm_setcsr(saved_);
    }

private:
    unsigned saved_;
#elif defined(__aarch64__)
    DenormalGuard() {
        asm volatile("mrs %0, fpcr" : "=r"(saved_));
        unsigned long fz = saved_ | (1ul << 24);
        asm volatile("msr fpcr, %0" : : "r"(fz));
    }
    ~DenormalGuard() {
        asm volatile("msr fpcr, %0" : : "r"(saved_));
    }

private:
    unsigned long saved_;
#else
    DenormalGuard() = default;
#endif
public:
    DenormalGuard(const DenormalGuard&) = delete;
    DenormalGuard& operator=(const DenormalGuard&) = delete;
};

} // namespace trovan
