// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

namespace trovan::fixtures {

struct ProcessResult {
    int status = -1;    // exit status, or -1 when the program could not run or was killed
    std::string output; // standard output
    std::string errors; // standard error
};

// Runs a program found on PATH with the given arguments (no shell involved) and waits.
ProcessResult runProcess(const std::vector<std::string>& argv);

// True when `program` can be found on PATH.
bool onPath(const std::string& program);

} // namespace trovan::fixtures
