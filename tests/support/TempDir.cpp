// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/TempDir.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <vector>

namespace trovan::fixtures {

TempDir::TempDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + "-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests make folders unreadable on purpose; give permissions back before removing.
    for (auto it = std::filesystem::recursive_directory_iterator(
             path_, std::filesystem::directory_options::skip_permission_denied, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) chmod(it->path().c_str(), 0755);
    }
    chmod(path_.c_str(), 0755);
    std::filesystem::remove_all(path_, ec);
}

std::filesystem::path TempDir::subdir(const std::filesystem::path& name) const {
    auto p = path_ / name;
    std::filesystem::create_directories(p);
    return p;
}

std::string slurp(const std::filesystem::path& file) {
    // Streamed, not sized first: files under /proc say they are empty.
    std::ifstream in(file, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

} // namespace trovan::fixtures
