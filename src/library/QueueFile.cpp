// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/QueueFile.h"

#include "text/Text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <unordered_map>

namespace trovan {

using nlohmann::json;

namespace {

// File names are bytes: text when they are UTF-8, else the list of byte values.
json name(std::string_view s) {
    if (text::isValidUtf8(s)) return std::string(s);
    json bytes = json::array();
    for (unsigned char c : s)
        bytes.push_back(static_cast<int>(c));
    return bytes;
}

std::optional<std::string> name(const json& j) {
    if (j.is_string()) return j.get<std::string>();
    if (!j.is_array()) return std::nullopt;
    std::string out;
    for (const auto& b : j) {
        if (!b.is_number_integer() || b.get<int>() < 1 || b.get<int>() > 255) return std::nullopt;
        out += static_cast<char>(b.get<int>());
    }
    return out;
}

} // namespace

std::string QueueFile::encode(const SavedQueue& queue) {
    json folders = json::array(), entries = json::array();
    std::unordered_map<std::string_view, int> folderIds;
    for (const auto& path : queue.paths) {
        // The folder keeps its slash: the path is the two joined, whatever it was.
        const auto slash = path.rfind('/');
        const std::size_t cut = slash == std::string::npos ? 0 : slash + 1;
        const std::string_view folder = std::string_view(path).substr(0, cut);
        const std::string_view file = std::string_view(path).substr(cut);
        auto [it, added] = folderIds.emplace(folder, static_cast<int>(folderIds.size()));
        if (added) folders.push_back(name(folder));
        entries.push_back(json::array({it->second, name(file)}));
    }
    json j = {
        {"version", kVersion}, {"folders", std::move(folders)}, {"entries", std::move(entries)}};
    if (!queue.order.empty()) j["order"] = queue.order;
    if (queue.position) j["position"] = *queue.position;
    if (queue.seconds > 0 && std::isfinite(queue.seconds)) j["seconds"] = queue.seconds;
    return j.dump() + "\n";
}

QueueFile::Decoded QueueFile::decode(std::string_view bytes) {
    Decoded d;
    json j = json::parse(bytes, nullptr, false);
    if (j.is_discarded() || !j.is_object()) {
        d.problem = Problem::corrupt;
        return d;
    }
    const auto version = j.find("version");
    if (version == j.end() || !version->is_number_integer()) {
        d.problem = Problem::corrupt;
        return d;
    }
    if (version->get<long long>() > kVersion) {
        d.problem = Problem::newer;
        return d;
    }
    std::vector<std::optional<std::string>> folders;
    if (auto f = j.find("folders"); f != j.end() && f->is_array())
        for (const auto& folder : *f)
            folders.push_back(name(folder));
    // Entries that cannot be read are dropped; the order is renumbered around them.
    std::vector<int> newIndex;
    if (auto e = j.find("entries"); e != j.end() && e->is_array()) {
        for (const auto& entry : *e) {
            std::optional<std::string> path;
            if (entry.is_array() && entry.size() == 2 && entry[0].is_number_integer()) {
                const auto f = entry[0].get<long long>();
                auto file = name(entry[1]);
                if (f >= 0 && static_cast<std::size_t>(f) < folders.size() && folders[f] && file &&
                    !file->empty())
                    path = *folders[f] + *file;
            }
            newIndex.push_back(path ? static_cast<int>(d.queue.paths.size()) : -1);
            if (path)
                d.queue.paths.push_back(std::move(*path));
            else
                d.problem = Problem::corrupt;
        }
    }
    const int count = static_cast<int>(d.queue.paths.size());
    std::vector<int> order;
    bool orderFits = false;
    if (auto o = j.find("order"); o != j.end() && o->is_array() && o->size() == newIndex.size()) {
        orderFits = true;
        for (const auto& i : *o) {
            if (!i.is_number_integer() || i.get<long long>() < 0 ||
                i.get<long long>() >= static_cast<long long>(newIndex.size())) {
                orderFits = false;
                break;
            }
            const int mapped = newIndex[static_cast<std::size_t>(i.get<long long>())];
            if (mapped >= 0) order.push_back(mapped);
        }
        std::vector<int> sorted = order;
        std::sort(sorted.begin(), sorted.end());
        std::vector<int> all(static_cast<std::size_t>(count));
        std::iota(all.begin(), all.end(), 0);
        orderFits = orderFits && sorted == all;
    }
    if (orderFits) d.queue.order = std::move(order);
    if (auto p = j.find("position"); p != j.end() && p->is_number_integer()) {
        const auto at = p->get<long long>();
        if (at >= 0 && at < count) d.queue.position = static_cast<int>(at);
    }
    if (auto s = j.find("seconds"); s != j.end() && s->is_number()) {
        const double seconds = s->get<double>();
        if (std::isfinite(seconds) && seconds > 0) d.queue.seconds = seconds;
    }
    return d;
}

} // namespace trovan
