// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Reads and writes the settings file (config.json): pretty-printed JSON with sorted
// keys, written atomically (through a symbolic link, when config.json is one). Reading
// never fails: anything unusable gives the defaults, key by key.

#include "config/Settings.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace trovan {

class SettingsStore {
public:
    // With a quiet period, saveLater() writes on a thread of its own once no save has
    // been asked for during that long; without one it writes at once.
    explicit SettingsStore(std::filesystem::path url, std::chrono::milliseconds quietPeriod = {});

    const std::filesystem::path& url() const;

    // Called with a Spanish message when a write fails (once until a write succeeds
    // again), from whichever thread wrote. Set before the first save.
    void onFailure(std::function<void(const std::string&)> report);

    // The stored settings; defaults when the file is missing or not a JSON object, and
    // per key when a value has the wrong type or is out of bounds. A file that is not
    // read whole is copied to config.json.bak first (see loadProblem()).
    Settings load() const;
    // What went wrong in the last load, in Spanish; empty when nothing did.
    std::string loadProblem() const;

    // Writes the settings now, creating the folder. Changes another program made to the
    // file since this store last read or wrote it are kept where these settings did not
    // change the same value (folders are merged one by one). False on failure (callers
    // go on with the settings in memory).
    bool save(const Settings& settings) const;
    // Writes after the quiet period, off the calling thread; later calls replace the
    // settings waiting.
    void saveLater(const Settings& settings) const;
    // Writes whatever is waiting now, and waits for a write under way.
    void flush() const;

    // The file's text for these settings (two-space indent, keys in alphabetical order).
    static std::string encode(const Settings& settings);
    // None for anything that is not a JSON object. `rejected` tells whether a value
    // present in it was left out (wrong type, out of bounds).
    static std::optional<Settings> decode(std::string_view json, bool* rejected = nullptr);

    // A folder name as stored: itself when it is UTF-8, else "\x" escapes for the bytes
    // that are not (and "\\" for a backslash) after a marker no path starts with.
    static std::string encodePath(std::string_view path);
    static std::string decodePath(std::string_view stored);

private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

} // namespace trovan
