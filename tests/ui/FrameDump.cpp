#include <gtest/gtest.h>

#include "FrameDump.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

namespace trovan::testing {

std::string dumpChars(const ScreenBuffer& b) {
    std::string out;
    for (int y = 0; y < b.height(); ++y) {
        std::string row;
        for (int x = 0; x < b.width(); ++x) {
            const Cell& c = b.at(x, y);
            if (c.ch.empty()) continue; // right half of a wide character
            row += c.ch.view();
        }
        while (!row.empty() && row.back() == ' ')
            row.pop_back();
        out += "|" + row + "\n";
    }
    return out;
}

namespace {
std::string describe(const Style& s) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "fg %d,%d,%d bg %d,%d,%d%s%s", s.fg.r, s.fg.g, s.fg.b, s.bg.r,
                  s.bg.g, s.bg.b, s.bold ? " bold" : "", s.underline ? " underline" : "");
    return buf;
}
} // namespace

std::string dumpStyles(const ScreenBuffer& b) {
    // Letters by first appearance; "." is the empty frame's style, spaces in it count too.
    const Style base{{198, 202, 211}, {20, 22, 28}, false, false};
    const std::string letters =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789@#$%&*+=?!";
    std::vector<Style> seen;
    std::string rows;
    for (int y = 0; y < b.height(); ++y) {
        std::string row;
        for (int x = 0; x < b.width(); ++x) {
            const Style& s = b.at(x, y).style;
            if (s == base) {
                row += '.';
                continue;
            }
            std::size_t i = 0;
            while (i < seen.size() && !(seen[i] == s))
                ++i;
            if (i == seen.size()) seen.push_back(s);
            row += i < letters.size() ? letters[i] : '~';
        }
        while (!row.empty() && row.back() == '.')
            row.pop_back();
        rows += "|" + row + "\n";
    }
    std::string legend = ". = " + describe(base) + "\n";
    for (std::size_t i = 0; i < seen.size(); ++i)
        legend += std::string(1, i < letters.size() ? letters[i] : '~') + " = " +
                  describe(seen[i]) + "\n";
    return legend + rows;
}

std::string dumpFrame(const ScreenBuffer& b, std::optional<std::pair<int, int>> cursor) {
    std::ostringstream os;
    os << "size " << b.width() << "x" << b.height() << ", cursor ";
    if (cursor)
        os << cursor->first << "," << cursor->second;
    else
        os << "none";
    os << "\n-- characters\n" << dumpChars(b) << "-- styles\n" << dumpStyles(b);
    return os.str();
}

::testing::AssertionResult matchesGolden(const std::string& name, const std::string& actual) {
    namespace fs = std::filesystem;
    const fs::path path = fs::path(TROVAN_SOURCE_DIR) / "tests/ui/golden" / (name + ".txt");
    const char* update = std::getenv("TROVAN_UPDATE_GOLDEN");
    if (update && std::string(update) == "1") {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << actual;
        return ::testing::AssertionSuccess() << "written";
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) return ::testing::AssertionFailure() << "no golden file " << path;
    std::stringstream expected;
    expected << in.rdbuf();
    if (expected.str() == actual) return ::testing::AssertionSuccess();
    // Point at the first differing line to keep failures readable.
    std::istringstream a(actual), e(expected.str());
    std::string la, le;
    int line = 1;
    while (true) {
        bool ga = static_cast<bool>(std::getline(a, la)),
             ge = static_cast<bool>(std::getline(e, le));
        if (!ga && !ge) break;
        if (!ga || !ge || la != le)
            return ::testing::AssertionFailure()
                   << name << " differs at line " << line << "\n  expected: " << (ge ? le : "<end>")
                   << "\n  actual:   " << (ga ? la : "<end>");
        ++line;
    }
    return ::testing::AssertionFailure() << name << " differs";
}

} // namespace trovan::testing
