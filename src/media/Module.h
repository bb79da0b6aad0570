// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Modules: parts of the program built as shared objects of their own and loaded at run
// time, so that the large libraries they use are only mapped when they are needed.

#include <string>

namespace trovan::module {

// Loads the module `fileName` (from the build's output folder when the program runs from
// its build tree, else from the installed private folder) and returns the address of its
// symbol `entry`. On failure returns null and sets `error`. A module stays loaded until
// the process ends.
void* load(const std::string& fileName, const char* entry, std::string& error);

} // namespace trovan::module
