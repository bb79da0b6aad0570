// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/ReplayGain.h"
#include "text/Text.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace trovan {

namespace {

constexpr double maxGainDb = 60;
constexpr double maxPeak = 10;

std::string_view trim(std::string_view s) {
    return text::trim(s, std::string_view(" \t\0", 3));
}

// A plain decimal number and nothing else; a comma may stand for the point.
std::optional<double> number(std::string_view s) {
    s = trim(s);
    std::string text;
    if (s.substr(0, 3) == "\xE2\x88\x92") { // U+2212 MINUS SIGN
        text = "-";
        s.remove_prefix(3);
    } else if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
        if (s.front() == '-') text = "-";
        s.remove_prefix(1);
    }
    if (s.empty() || !(std::isdigit(static_cast<unsigned char>(s.front())) || s.front() == '.' ||
                       s.front() == ','))
        return std::nullopt;
    text += s;
    if (text.find('.') == std::string::npos) {
        const auto comma = text.find(',');
        if (comma != std::string::npos && text.find(',', comma + 1) == std::string::npos)
            text[comma] = '.';
    }
    double value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    if (ec != std::errc() || ptr != end || !std::isfinite(value)) return std::nullopt;
    return value;
}

} // namespace

std::optional<double> ReplayGain::parseGain(std::string_view text) {
    text = trim(text);
    if (text.size() >= 2) {
        auto unit = text.substr(text.size() - 2);
        if ((unit[0] == 'd' || unit[0] == 'D') && (unit[1] == 'b' || unit[1] == 'B'))
            text.remove_suffix(2);
    }
    auto db = number(text);
    if (!db || std::abs(*db) > maxGainDb) return std::nullopt;
    return *db;
}

std::optional<double> ReplayGain::parsePeak(std::string_view text) {
    auto peak = number(text);
    if (!peak || *peak <= 0 || *peak > maxPeak) return std::nullopt;
    return *peak;
}

std::optional<double> ReplayGain::parseR128(std::string_view text) {
    text = trim(text);
    int q78 = 0;
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), q78);
    if (text.empty() || ec != std::errc() || ptr != text.data() + text.size() || q78 < -32768 ||
        q78 > 32767)
        return std::nullopt;
    // Against -23 LUFS; ReplayGain 2.0 aims 5 LU higher.
    return q78 / 256.0 + 5.0;
}

std::string ReplayGain::formatGain(double db) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.2f dB", std::abs(db) < 0.005 ? 0.0 : db);
    return buffer;
}

std::string ReplayGain::formatPeak(double peak) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.6f", peak);
    return buffer;
}

} // namespace trovan
