#include "library/SettingsStore.h"

#include "library/AppPaths.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <fstream>
#include <sstream>

namespace trovan {

namespace {

using nlohmann::json;

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

// Each reader leaves the target alone when the key is absent (or null) and fails on a
// value of the wrong type.
struct Reader {
    const json& object;
    bool ok = true;

    const json* find(const char* key) const {
        auto it = object.find(key);
        if (it == object.end() || it->is_null()) return nullptr;
        return &*it;
    }

    void read(const char* key, bool& out) {
        if (auto* v = find(key)) {
            if (v->is_boolean())
                out = v->get<bool>();
            else
                ok = false;
        }
    }
    void read(const char* key, float& out) {
        if (auto* v = find(key)) {
            if (v->is_number())
                out = v->get<float>();
            else
                ok = false;
        }
    }
    void read(const char* key, std::string& out) {
        if (auto* v = find(key)) {
            if (v->is_string())
                out = v->get<std::string>();
            else
                ok = false;
        }
    }
};

std::optional<std::vector<float>> floatList(const json& v) {
    if (!v.is_array()) return std::nullopt;
    std::vector<float> out;
    for (const auto& e : v) {
        if (!e.is_number()) return std::nullopt;
        out.push_back(e.get<float>());
    }
    return out;
}

} // namespace

std::string SettingsStore::encode(const Settings& s) {
    json presets = json::array();
    for (const auto& p : s.customPresets)
        presets.push_back({{"name", p.name}, {"gains", gains(p.gains)}});
    json j = {
        {"roots", s.roots},
        {"volume", number(s.volume)},
        {"shuffle", s.shuffle},
        {"repeatMode", std::string(toString(s.repeatMode))},
        {"eqEnabled", s.eqEnabled},
        {"eqPreset", s.eqPreset},
        {"eqGains", gains(s.eqGains)},
        {"customPresets", presets},
    };
    // json objects keep their keys sorted. Ill-formed UTF-8 (a folder name in another
    // encoding) is replaced rather than making the whole save fail.
    return j.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::optional<Settings> SettingsStore::decode(std::string_view text) {
    json j = json::parse(text.begin(), text.end(), nullptr, false);
    if (j.is_discarded() || !j.is_object()) return std::nullopt;

    Settings s;
    Reader r{j};
    if (auto* v = r.find("roots")) {
        if (!v->is_array()) return std::nullopt;
        s.roots.clear();
        for (const auto& e : *v) {
            if (!e.is_string()) return std::nullopt;
            s.roots.push_back(e.get<std::string>());
        }
    }
    r.read("volume", s.volume);
    r.read("shuffle", s.shuffle);
    if (auto* v = r.find("repeatMode")) {
        if (!v->is_string()) return std::nullopt;
        auto mode = repeatModeFromString(v->get<std::string>());
        if (!mode) return std::nullopt;
        s.repeatMode = *mode;
    }
    r.read("eqEnabled", s.eqEnabled);
    r.read("eqPreset", s.eqPreset);
    if (auto* v = r.find("eqGains")) {
        auto list = floatList(*v);
        if (!list) return std::nullopt;
        s.eqGains = std::move(*list);
    }
    if (auto* v = r.find("customPresets")) {
        if (!v->is_array()) return std::nullopt;
        for (const auto& e : *v) {
            // Both keys are required in a preset.
            if (!e.is_object() || !e.contains("name") || !e.contains("gains")) return std::nullopt;
            if (!e["name"].is_string()) return std::nullopt;
            auto list = floatList(e["gains"]);
            if (!list) return std::nullopt;
            s.customPresets.push_back({e["name"].get<std::string>(), std::move(*list)});
        }
    }
    if (!r.ok) return std::nullopt;
    return s;
}

Settings SettingsStore::load() const {
    std::ifstream in(url_, std::ios::binary);
    if (!in) return {};
    std::ostringstream buf;
    buf << in.rdbuf();
    if (in.bad()) return {};
    return decode(buf.str()).value_or(Settings{});
}

bool SettingsStore::save(const Settings& settings) const {
    return AppPaths::writeAtomically(url_, encode(settings));
}

} // namespace trovan
