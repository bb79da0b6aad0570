#pragma once
// Reads and writes the settings file (config.json): pretty-printed JSON with sorted
// keys, written atomically. Reading never fails: anything unusable gives the defaults.

#include "library/Settings.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace trovan {

class SettingsStore {
public:
    explicit SettingsStore(std::filesystem::path url) : url_(std::move(url)) {}

    const std::filesystem::path& url() const { return url_; }

    // The stored settings; defaults when the file is missing, unreadable, not JSON, or
    // has a key of the wrong type. Missing keys keep their defaults.
    Settings load() const;
    // Writes the settings, creating the folder. False on failure (callers go on with the
    // settings in memory).
    bool save(const Settings& settings) const;

    // The file's text for these settings (two-space indent, keys in alphabetical order).
    static std::string encode(const Settings& settings);
    // None for anything that is not a valid settings object.
    static std::optional<Settings> decode(std::string_view json);

private:
    std::filesystem::path url_;
};

} // namespace trovan
