#include "media/Module.h"

#include <dlfcn.h>
#include <filesystem>
#include <system_error>

namespace trovan::module {

namespace {

std::string besideExecutable(const std::string& fileName) {
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    return (self.parent_path() / fileName).string();
}

} // namespace

void* load(const std::string& fileName, const char* entry, std::string& error) {
    std::string candidates[] = {besideExecutable(fileName),
                                std::string(TROVAN_MODULE_DIR) + "/" + fileName};
    void* handle = nullptr;
    error.clear();
    for (const auto& path : candidates) {
        if (path.empty() || !std::filesystem::exists(path)) continue;
        handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle) break;
        if (const char* e = dlerror()) error = e;
    }
    if (!handle) {
        if (error.empty()) error = fileName + ": no se encontró el módulo";
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
