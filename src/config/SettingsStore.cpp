// SPDX-License-Identifier: GPL-3.0-or-later
#include "config/SettingsStore.h"

#include "config/AppPaths.h"
#include "text/Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <thread>

namespace trovan {

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

// Bounds for values read back: anything beyond them is not something this program
// wrote, and keeps its default.
constexpr std::uintmax_t kMaxFileBytes = 16u << 20;
constexpr std::size_t kMaxText = 4096; // a path or a preset name
constexpr std::size_t kMaxRoots = 1000;
constexpr std::size_t kMaxPresets = 200;
constexpr std::size_t kMaxBands = 64;
constexpr std::string_view kEscapedPrefix = "x-bytes:";

// A float written as the shortest decimal that reads back as the same float, so 0.8
// is stored as 0.8 rather than 0.800000011920929.
json number(float v) {
    char buf[32];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    if (ec != std::errc{}) return static_cast<double>(v);
    double d = 0;
    std::from_chars(buf, end, d);
    return d;
}

json gains(const std::vector<float>& values) {
    json out = json::array();
    for (float g : values)
        out.push_back(number(g));
    return out;
}

std::optional<std::string> shortText(const json& v) {
    if (!v.is_string() || v.get_ref<const std::string&>().size() > kMaxText) return std::nullopt;
    return v.get<std::string>();
}

std::optional<std::vector<float>> floatList(const json& v) {
    if (!v.is_array() || v.size() > kMaxBands) return std::nullopt;
    std::vector<float> out;
    for (const auto& e : v) {
        if (!e.is_number()) return std::nullopt;
        const double d = e.get<double>();
        if (!(d >= -100 && d <= 100)) return std::nullopt; // also NaN
        out.push_back(static_cast<float>(d));
    }
    return out;
}

std::string describeErrno(int error) {
    if (error == ENOSPC) return "el disco est\xC3\xA1 lleno";
    if (error == EROFS) return "el disco es de solo lectura";
    if (error == EACCES || error == EPERM) return "sin permiso de escritura";
    return std::strerror(error);
}

std::vector<std::string> mergeRoots(const std::vector<std::string>& base,
                                    const std::vector<std::string>& ours,
                                    const std::vector<std::string>& theirs) {
    auto has = [](const std::vector<std::string>& v, const std::string& s) {
        return std::find(v.begin(), v.end(), s) != v.end();
    };
    std::vector<std::string> out;
    for (const auto& r : theirs)
        if ((has(ours, r) || !has(base, r)) && !has(out, r)) out.push_back(r);
    for (const auto& r : ours)
        if (!has(base, r) && !has(out, r)) out.push_back(r);
    return out;
}

// Three-way: what this program changed since `base` wins; everything else is taken
// from the file as another instance left it.
Settings merge(const Settings& base, const Settings& ours, const Settings& theirs) {
    Settings out = theirs;
    out.roots = mergeRoots(base.roots, ours.roots, theirs.roots);
    auto pick = [](auto& field, const auto& b, const auto& o) {
        if (!(o == b)) field = o;
    };
    pick(out.volume, base.volume, ours.volume);
    pick(out.shuffle, base.shuffle, ours.shuffle);
    pick(out.repeatMode, base.repeatMode, ours.repeatMode);
    pick(out.eqEnabled, base.eqEnabled, ours.eqEnabled);
    pick(out.eqPreset, base.eqPreset, ours.eqPreset);
    pick(out.eqGains, base.eqGains, ours.eqGains);
    pick(out.customPresets, base.customPresets, ours.customPresets);
    pick(out.coverMode, base.coverMode, ours.coverMode);
    pick(out.watch, base.watch, ours.watch);
    pick(out.pollMinutes, base.pollMinutes, ours.pollMinutes);
    pick(out.replayGain, base.replayGain, ours.replayGain);
    pick(out.preamp, base.preamp, ours.preamp);
    pick(out.crossfade, base.crossfade, ours.crossfade);
    return out;
}

// The file's contents; none when it is missing, and an error when it is unusable.
struct FileRead {
    std::optional<std::string> text;
    bool unusable = false;
};

FileRead readFile(const fs::path& url) {
    FileRead read;
    read.text = AppPaths::readCapped(url, kMaxFileBytes, &read.unusable);
    return read;
}

} // namespace

struct SettingsStore::Impl {
    fs::path url;
    std::chrono::milliseconds quiet{};
    std::function<void(const std::string&)> report;

    // Writes happen one at a time; `base` is what this store last read or wrote.
    std::mutex writing;
    std::optional<Settings> base;
    bool failing = false;
    std::string loadProblem;

    std::mutex m;
    std::condition_variable wake;
    std::optional<Settings> pending;
    std::chrono::steady_clock::time_point due;
    bool stopping = false;
    std::thread writer;

    ~Impl() {
        {
            std::lock_guard lock(m);
            stopping = true;
        }
        wake.notify_all();
        if (writer.joinable()) writer.join();
        flush();
    }

    void flush() {
        std::lock_guard w(writing);
        std::optional<Settings> s;
        {
            std::lock_guard lock(m);
            s = std::exchange(pending, std::nullopt);
        }
        if (s) write(*s);
    }

    void run() {
        // Signals are for the main loop.
        sigset_t all;
        sigfillset(&all);
        for (int fatal : {SIGSEGV, SIGBUS, SIGABRT, SIGILL, SIGFPE})
            sigdelset(&all, fatal);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::unique_lock lock(m);
        while (!stopping) {
            if (!pending) {
                wake.wait(lock);
                continue;
            }
            if (std::chrono::steady_clock::now() < due) {
                wake.wait_until(lock, due);
                continue;
            }
            lock.unlock();
            try {
                flush();
            } catch (const std::exception& e) {
                if (report) report(std::string("No se pudieron guardar los ajustes: ") + e.what());
            } catch (...) {
                if (report) report("No se pudieron guardar los ajustes");
            }
            lock.lock();
        }
    }

    // With `writing` held.
    bool write(const Settings& ours) {
        Settings merged = ours;
        if (base) {
            const FileRead now = readFile(url);
            if (now.text)
                if (auto theirs = decode(*now.text); theirs && !(*theirs == *base))
                    merged = merge(*base, ours, *theirs);
        }
        errno = 0;
        if (!AppPaths::writeAtomically(url, encode(merged))) {
            const int error = errno;
            if (!failing && report)
                report("No se pudieron guardar los ajustes en " + url.string() + ": " +
                       describeErrno(error));
            failing = true;
            return false;
        }
        failing = false;
        base = ours;
        return true;
    }
};

SettingsStore::SettingsStore(fs::path url, std::chrono::milliseconds quietPeriod)
    : impl_(std::make_shared<Impl>()) {
    impl_->url = std::move(url);
    impl_->quiet = quietPeriod;
}

const fs::path& SettingsStore::url() const {
    return impl_->url;
}

void SettingsStore::onFailure(std::function<void(const std::string&)> report) {
    impl_->report = std::move(report);
}

std::string SettingsStore::encodePath(std::string_view path) {
    if (text::isValidUtf8(path) && path.substr(0, kEscapedPrefix.size()) != kEscapedPrefix)
        return std::string(path);
    std::string out(kEscapedPrefix);
    std::size_t i = 0;
    while (i < path.size()) {
        // Keep every well-formed character as it is; escape the rest byte by byte.
        std::size_t n = 1;
        const auto b = static_cast<unsigned char>(path[i]);
        if (b >= 0x80) {
            n = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : 2;
            if (i + n > path.size() || !text::isValidUtf8(path.substr(i, n))) n = 0;
        }
        if (n == 0) {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02X", b);
            out += hex;
            ++i;
        } else if (path[i] == '\\') {
            out += "\\\\";
            ++i;
        } else {
            out.append(path.substr(i, n));
            i += n;
        }
    }
    return out;
}

std::string SettingsStore::decodePath(std::string_view stored) {
    if (stored.substr(0, kEscapedPrefix.size()) != kEscapedPrefix) return std::string(stored);
    stored.remove_prefix(kEscapedPrefix.size());
    std::string out;
    for (std::size_t i = 0; i < stored.size(); ++i) {
        if (stored[i] == '\\' && i + 1 < stored.size() && stored[i + 1] == '\\') {
            out += '\\';
            ++i;
        } else if (stored[i] == '\\' && i + 3 < stored.size() && stored[i + 1] == 'x') {
            unsigned value = 0;
            auto [end, ec] =
                std::from_chars(stored.data() + i + 2, stored.data() + i + 4, value, 16);
            if (ec != std::errc{} || end != stored.data() + i + 4) {
                out += stored[i];
                continue;
            }
            out += static_cast<char>(value);
            i += 3;
        } else {
            out += stored[i];
        }
    }
    return out;
}

std::string SettingsStore::encode(const Settings& s) {
    json presets = json::array();
    for (const auto& p : s.customPresets)
        presets.push_back({{"name", p.name}, {"gains", gains(p.gains)}});
    json roots = json::array();
    for (const auto& r : s.roots)
        roots.push_back(encodePath(r));
    json j = {
        {"roots", roots},
        {"volume", number(s.volume)},
        {"shuffle", s.shuffle},
        {"repeatMode", std::string(toString(s.repeatMode))},
        {"eqEnabled", s.eqEnabled},
        {"eqPreset", s.eqPreset},
        {"eqGains", gains(s.eqGains)},
        {"customPresets", presets},
        {"coverMode", s.coverMode},
        {"watch", s.watch},
        {"pollMinutes", s.pollMinutes},
        {"replayGain", std::string(toString(s.replayGain))},
        {"preamp", s.preamp},
        {"crossfade", s.crossfade},
    };
    // json objects keep their keys sorted. Names typed in the program are UTF-8; should
    // one not be, it is repaired rather than making the whole save fail.
    return j.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::optional<Settings> SettingsStore::decode(std::string_view text, bool* rejected) {
    json j = json::parse(text.begin(), text.end(), nullptr, false);
    if (j.is_discarded() || !j.is_object()) return std::nullopt;

    // Each key on its own: a value of the wrong type or out of bounds keeps the
    // default, and the rest of the file still counts.
    Settings s;
    bool dropped = false;
    auto find = [&](const char* key) -> const json* {
        auto it = j.find(key);
        return it == j.end() || it->is_null() ? nullptr : &*it;
    };
    auto take = [&dropped](bool ok) {
        dropped = dropped || !ok;
        return ok;
    };
    if (auto* v = find("roots"); v && take(v->is_array() && v->size() <= kMaxRoots)) {
        s.roots.clear();
        for (const auto& e : *v)
            if (auto r = shortText(e); take(r && !r->empty())) s.roots.push_back(decodePath(*r));
    }
    if (auto* v = find("volume"); v && take(v->is_number())) {
        const double d = v->get<double>();
        if (take(d >= 0 && d <= 10)) s.volume = static_cast<float>(d); // clamped when changed
    }
    if (auto* v = find("shuffle"); v && take(v->is_boolean())) s.shuffle = v->get<bool>();
    if (auto* v = find("repeatMode"); v && take(v->is_string()))
        if (auto mode = repeatModeFromString(v->get<std::string>()); take(mode.has_value()))
            s.repeatMode = *mode;
    if (auto* v = find("eqEnabled"); v && take(v->is_boolean())) s.eqEnabled = v->get<bool>();
    if (auto* v = find("watch"); v && take(v->is_boolean())) s.watch = v->get<bool>();
    if (auto* v = find("pollMinutes"); v && take(v->is_number_integer())) {
        const auto minutes = v->get<long long>();
        if (take(minutes >= 1 && minutes <= 1440)) s.pollMinutes = static_cast<int>(minutes);
    }
    if (auto* v = find("eqPreset"))
        if (auto name = shortText(*v); take(name.has_value())) s.eqPreset = *name;
    if (auto* v = find("eqGains"))
        if (auto list = floatList(*v); take(list && list->size() == s.eqGains.size()))
            s.eqGains = std::move(*list);
    if (auto* v = find("customPresets"); v && take(v->is_array() && v->size() <= kMaxPresets)) {
        for (const auto& e : *v) {
            // A preset needs both keys; a broken one is left out.
            if (!take(e.is_object() && e.contains("name") && e.contains("gains"))) continue;
            auto name = shortText(e["name"]);
            auto list = floatList(e["gains"]);
            if (take(name && list)) s.customPresets.push_back({*name, std::move(*list)});
        }
    }
    if (auto* v = find("coverMode"); v && take(v->is_string())) {
        const std::string mode = v->get<std::string>();
        if (take(mode == "auto" || mode == "kitty" || mode == "sixel" || mode == "bloques"))
            s.coverMode = mode;
    }
    if (auto* v = find("replayGain"); v && take(v->is_string()))
        if (auto mode = replayGainModeFromString(v->get<std::string>()); take(mode.has_value()))
            s.replayGain = *mode;
    if (auto* v = find("preamp"); v && take(v->is_number())) {
        const double d = v->get<double>();
        if (take(d >= -15 && d <= 15)) s.preamp = d;
    }
    if (auto* v = find("crossfade"); v && take(v->is_number())) {
        const double d = v->get<double>();
        if (take(d >= 0 && d <= 12)) s.crossfade = d;
    }
    if (rejected) *rejected = dropped;
    return s;
}

Settings SettingsStore::load() const {
    std::lock_guard w(impl_->writing);
    impl_->loadProblem.clear();
    const FileRead file = readFile(impl_->url);
    std::optional<Settings> s;
    bool rejected = false;
    if (file.text) s = decode(*file.text, &rejected);
    if ((!s && (file.unusable || file.text)) || rejected) {
        // Keep what the user had before the next save replaces it.
        fs::path backup = impl_->url;
        backup += ".bak";
        std::error_code ec;
        fs::copy_file(impl_->url, backup, fs::copy_options::overwrite_existing, ec);
        impl_->loadProblem =
            (s ? "Valores no v\xC3\xA1lidos en " : "No se pudo leer ") +
            impl_->url.filename().string() +
            (ec ? std::string() : "; se guard\xC3\xB3 una copia en " + backup.string()) +
            (s ? "" : ". Se usan los ajustes por omisi\xC3\xB3n");
    }
    impl_->base = s.value_or(Settings{});
    return *impl_->base;
}

std::string SettingsStore::loadProblem() const {
    std::lock_guard w(impl_->writing);
    return impl_->loadProblem;
}

bool SettingsStore::save(const Settings& settings) const {
    std::lock_guard w(impl_->writing);
    {
        std::lock_guard lock(impl_->m);
        impl_->pending.reset(); // these settings replace any that were waiting
    }
    return impl_->write(settings);
}

void SettingsStore::saveLater(const Settings& settings) const {
    if (impl_->quiet.count() <= 0) {
        save(settings);
        return;
    }
    {
        std::lock_guard lock(impl_->m);
        impl_->pending = settings;
        impl_->due = std::chrono::steady_clock::now() + impl_->quiet;
        if (!impl_->writer.joinable())
            impl_->writer = std::thread([impl = impl_.get()] { impl->run(); });
    }
    impl_->wake.notify_all();
}

void SettingsStore::flush() const {
    impl_->flush();
}

} // namespace trovan
