#pragma once
// Readable dumps of a frame for golden files: the characters row by row, then each
// row's styles as letters with a legend.

#include "terminal/ScreenBuffer.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace trovan::testing {

std::string dumpChars(const ScreenBuffer& buffer);
std::string dumpStyles(const ScreenBuffer& buffer);
// Both, with a header naming the size and the cursor.
std::string dumpFrame(const ScreenBuffer& buffer, std::optional<std::pair<int, int>> cursor);

// Compares `actual` with tests/ui/golden/<name>.txt. With TROVAN_UPDATE_GOLDEN=1 the
// file is (re)written instead, for review before it is committed.
::testing::AssertionResult matchesGolden(const std::string& name, const std::string& actual);

} // namespace trovan::testing
