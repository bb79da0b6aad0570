// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sched.h>

namespace trovan {

// The cores this process may run on (its affinity, not the machine's count); at least 1.
inline int activeCores() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
    const int n = CPU_COUNT(&set);
    return n > 0 ? n : 1;
}

} // namespace trovan
