// SPDX-License-Identifier: GPL-3.0-or-later
#include "media/Module.h"

#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace trovan::module {

namespace {

// Where this process's modules live. A program running from its build tree (the
// program itself, tests, benchmarks) takes the build's module folder; an installed
// program only ever looks in its own private folder, found from its executable, so a
// build tree left on the machine is never touched.
fs::path moduleDir() {
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return TROVAN_MODULE_DIR;
    const fs::path build = fs::weakly_canonical(TROVAN_BUILD_DIR, ec);
    if (!ec) {
        const auto [b, s] = std::mismatch(build.begin(), build.end(), self.begin(), self.end());
        if (b == build.end()) return TROVAN_MODULE_DIR;
    }
    return (self.parent_path() / TROVAN_MODULE_RELATIVE_DIR).lexically_normal();
}

} // namespace

void* load(const std::string& fileName, const char* entry, std::string& error) {
    static const fs::path dir = moduleDir();
    const fs::path path = dir / fileName;
    error.clear();
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        error = path.string() + ": no se encontró el módulo";
        return nullptr;
    }
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* e = dlerror();
        error = e ? e : path.string() + ": no se pudo cargar el módulo";
        return nullptr;
    }
    dlerror();
    void* symbol = dlsym(handle, entry);
    if (!symbol) {
        const char* e = dlerror();
        error = e ? e : fileName + ": falta " + entry;
    }
    return symbol;
}

} // namespace trovan::module
