#pragma once
// Modules: parts of the program built as shared objects of their own and loaded at run
// time, so that the large libraries they use are only mapped when they are needed.

#include <string>

namespace trovan::module {

// Loads the module `fileName` (looked for beside the executable, then in the build's
// own output folder) and returns the address of its symbol `entry`. On failure returns
// null and sets `error`. A module stays loaded until the process ends.
void* load(const std::string& fileName, const char* entry, std::string& error);

} // namespace trovan::module
