// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <filesystem>
#include <string>

namespace trovan::fixtures {

// A fresh folder under $TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "trovan-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const {
        return path_ / name;
    }
    // Creates (with parents) and returns a sub-folder.
    std::filesystem::path subdir(const std::filesystem::path& name) const;

private:
    std::filesystem::path path_;
};

// The whole file in one read; empty when it cannot be read.
std::string slurp(const std::filesystem::path& file);

} // namespace trovan::fixtures
