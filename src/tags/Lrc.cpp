// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/Lrc.h"
#include "text/Text.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>

namespace trovan {

namespace {

constexpr std::int64_t kMaxOffsetMs = 3600 * 1000;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string_view trim(std::string_view s) {
    return text::trim(s, " \t");
}

// Reads up to `most` digits from the front of `s`; absent when there is none.
std::optional<std::int64_t> digits(std::string_view& s, std::size_t most, std::size_t* count) {
    std::size_t n = 0;
    std::int64_t value = 0;
    while (n < s.size() && n < most && isDigit(s[n]))
        value = value * 10 + (s[n++] - '0');
    if (n == 0) return std::nullopt;
    if (count) *count = n;
    s.remove_prefix(n);
    return value;
}

// Something the user meant as a time ("99:99.99", "1:2:3:4") rather than a tag name.
bool looksLikeStamp(std::string_view inside) {
    if (!inside.empty() && inside.front() == '-') inside.remove_prefix(1);
    return !inside.empty() && isDigit(inside.front()) && inside.find(':') != std::string_view::npos;
}

bool isTagKey(std::string_view key) {
    return !key.empty() && key.size() <= 16 && std::all_of(key.begin(), key.end(), [](char c) {
        return std::isalpha(static_cast<unsigned char>(c)) || c == '#';
    });
}

std::optional<int> parseOffset(std::string_view v) {
    v = trim(v);
    if (!v.empty() && v.front() == '+') v.remove_prefix(1);
    long long n = 0;
    auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
    if (ec != std::errc() || end != v.data() + v.size() || n > kMaxOffsetMs || n < -kMaxOffsetMs)
        return std::nullopt;
    return static_cast<int>(n);
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

} // namespace

std::optional<std::int64_t> Lrc::parseStamp(std::string_view s) {
    s = trim(s);
    bool negative = false;
    if (!s.empty() && s.front() == '-') {
        negative = true;
        s.remove_prefix(1);
    }
    std::size_t n = 0;
    auto minutes = digits(s, 6, &n);
    if (!minutes || s.empty() || s.front() != ':') return std::nullopt;
    s.remove_prefix(1);
    auto seconds = digits(s, 2, &n);
    if (!seconds || *seconds >= 60) return std::nullopt;
    std::int64_t fraction = 0;
    if (!s.empty() && (s.front() == '.' || s.front() == ':')) {
        s.remove_prefix(1);
        auto f = digits(s, 3, &n);
        if (!f) return std::nullopt;
        fraction = n == 1 ? *f * 100 : n == 2 ? *f * 10 : *f;
    }
    if (!s.empty()) return std::nullopt;
    if (negative) return 0;
    return (*minutes * 60 + *seconds) * 1000 + fraction;
}

std::string Lrc::withoutWordStamps(std::string_view text) {
    if (text.find('<') == std::string_view::npos) return std::string(text);
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        if (text[i] == '<') {
            const std::size_t close = text.find('>', i + 1);
            if (close != std::string_view::npos && parseStamp(text.substr(i + 1, close - i - 1))) {
                i = close + 1;
                continue;
            }
        }
        out += text[i++];
    }
    return out;
}

std::optional<Lrc> Lrc::parse(std::string_view text) {
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    Lrc lrc;
    bool timed = false;
    std::int64_t last = 0; // time of the last stamped line, for the lines without one
    std::vector<std::int64_t> stamps;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t end = text.find_first_of("\r\n", pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view rest = trim(text.substr(pos, end - pos));
        pos = end + 1;
        if (end < text.size() && text[end] == '\r' && pos < text.size() && text[pos] == '\n') ++pos;

        stamps.clear();
        bool badStamp = false;
        while (!rest.empty() && rest.front() == '[') {
            const std::size_t close = rest.find(']');
            if (close == std::string_view::npos) break;
            const std::string_view inside = rest.substr(1, close - 1);
            if (auto ms = parseStamp(inside)) {
                stamps.push_back(*ms);
            } else if (looksLikeStamp(inside)) {
                badStamp = true;
            } else if (const std::size_t colon = inside.find(':');
                       stamps.empty() && !badStamp && colon != std::string_view::npos &&
                       isTagKey(trim(inside.substr(0, colon)))) {
                const std::string key = lower(trim(inside.substr(0, colon)));
                const std::string_view value = trim(inside.substr(colon + 1));
                if (key == "offset") {
                    if (auto o = parseOffset(value)) lrc.offsetMs = *o;
                } else {
                    lrc.tags.emplace_back(key, std::string(value));
                }
            } else {
                break; // "[Estribillo]" and the like are text
            }
            rest.remove_prefix(close + 1);
        }
        std::string words(trim(withoutWordStamps(rest)));
        if (!stamps.empty()) {
            timed = true;
            for (std::int64_t ms : stamps)
                lrc.lines.push_back({ms, words});
            last = stamps.back();
        } else if (!words.empty()) {
            lrc.lines.push_back({last, std::move(words)});
        }
        if (end >= text.size()) break;
    }
    if (!timed) return std::nullopt;

    auto earlier = [](const LrcLine& a, const LrcLine& b) { return a.ms < b.ms; };
    if (!std::is_sorted(lrc.lines.begin(), lrc.lines.end(), earlier))
        std::stable_sort(lrc.lines.begin(), lrc.lines.end(), earlier);
    // The same line stamped twice at one time is shown once.
    auto& lines = lrc.lines;
    std::size_t kept = 0, group = 0; // group: first kept line with the current time
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (kept == 0 || lines[kept - 1].ms != lines[i].ms) group = kept;
        const auto from = lines.begin() + static_cast<std::ptrdiff_t>(group);
        const auto to = lines.begin() + static_cast<std::ptrdiff_t>(kept);
        if (std::find(from, to, lines[i]) != to) continue;
        if (kept != i) lines[kept] = std::move(lines[i]);
        ++kept;
    }
    lines.resize(kept);
    return lrc;
}

std::string Lrc::stamp(std::int64_t ms) {
    const long long cs = (std::max<std::int64_t>(ms, 0) + 5) / 10;
    char buf[40];
    std::snprintf(buf, sizeof buf, "[%02lld:%02lld.%02lld]", cs / 6000, cs / 100 % 60, cs % 100);
    return buf;
}

std::string Lrc::serialize() const {
    std::string out;
    for (const auto& [key, value] : tags)
        out += "[" + key + ":" + value + "]\n";
    if (offsetMs != 0)
        out += "[offset:" + std::string(offsetMs > 0 ? "+" : "") + std::to_string(offsetMs) + "]\n";
    for (const auto& line : lines) {
        out += stamp(line.ms);
        out += line.text;
        out += '\n';
    }
    return out;
}

int Lrc::lineAt(std::int64_t ms) const {
    const std::int64_t at = ms + offsetMs;
    auto it = std::upper_bound(lines.begin(), lines.end(), at,
                               [](std::int64_t t, const LrcLine& l) { return t < l.ms; });
    return static_cast<int>(it - lines.begin()) - 1;
}

std::int64_t Lrc::startOf(int i) const {
    if (i < 0 || i >= static_cast<int>(lines.size())) return 0;
    return std::max<std::int64_t>(0, lines[static_cast<std::size_t>(i)].ms - offsetMs);
}

} // namespace trovan
