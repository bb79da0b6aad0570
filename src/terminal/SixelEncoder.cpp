// SPDX-License-Identifier: GPL-3.0-or-later
#include "terminal/SixelEncoder.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <vector>

namespace trovan {

namespace {

// Colours are grouped by their top five bits per channel.
constexpr int kBits = 5;
constexpr int kBins = 1 << (3 * kBits);

int binOf(const std::uint8_t* p) {
    return ((p[0] >> 3) << 10) | ((p[1] >> 3) << 5) | (p[2] >> 3);
}

struct Box {
    std::vector<int> bins; // occupied bins
    long long count = 0;
};

struct Colour {
    int r = 0, g = 0, b = 0;
};

int channel(int bin, int c) {
    return (bin >> (10 - 5 * c)) & 31;
}

// Median cut over the occupied bins, weighted by pixel counts.
std::vector<Colour> palette(const std::vector<std::uint32_t>& counts,
                            const std::vector<std::array<std::uint64_t, 3>>& sums, int colors) {
    std::vector<Box> boxes(1);
    for (int bin = 0; bin < kBins; ++bin)
        if (counts[static_cast<std::size_t>(bin)]) {
            boxes[0].bins.push_back(bin);
            boxes[0].count += counts[static_cast<std::size_t>(bin)];
        }
    while (static_cast<int>(boxes.size()) < colors) {
        // Split the box with the most pixels that can still be split.
        int best = -1;
        for (int i = 0; i < static_cast<int>(boxes.size()); ++i)
            if (boxes[static_cast<std::size_t>(i)].bins.size() > 1 &&
                (best < 0 || boxes[static_cast<std::size_t>(i)].count >
                                 boxes[static_cast<std::size_t>(best)].count))
                best = i;
        if (best < 0) break;
        Box& box = boxes[static_cast<std::size_t>(best)];
        int axis = 0, widest = -1;
        for (int c = 0; c < 3; ++c) {
            int lo = 31, hi = 0;
            for (int bin : box.bins) {
                lo = std::min(lo, channel(bin, c));
                hi = std::max(hi, channel(bin, c));
            }
            if (hi - lo > widest) {
                widest = hi - lo;
                axis = c;
            }
        }
        std::sort(box.bins.begin(), box.bins.end(),
                  [axis](int a, int b) { return channel(a, axis) < channel(b, axis); });
        long long half = 0;
        std::size_t cut = 0;
        while (cut + 1 < box.bins.size() && half * 2 < box.count) {
            half += counts[static_cast<std::size_t>(box.bins[cut])];
            ++cut;
        }
        cut = std::max<std::size_t>(cut, 1);
        Box upper;
        upper.bins.assign(box.bins.begin() + static_cast<std::ptrdiff_t>(cut), box.bins.end());
        box.bins.resize(cut);
        box.count = 0;
        for (int bin : box.bins)
            box.count += counts[static_cast<std::size_t>(bin)];
        for (int bin : upper.bins)
            upper.count += counts[static_cast<std::size_t>(bin)];
        boxes.push_back(std::move(upper));
    }
    std::vector<Colour> out;
    for (const Box& box : boxes) {
        std::uint64_t r = 0, g = 0, b = 0, n = 0;
        for (int bin : box.bins) {
            const auto& s = sums[static_cast<std::size_t>(bin)];
            r += s[0];
            g += s[1];
            b += s[2];
            n += counts[static_cast<std::size_t>(bin)];
        }
        if (n)
            out.push_back(
                Colour{static_cast<int>(r / n), static_cast<int>(g / n), static_cast<int>(b / n)});
    }
    return out;
}

void appendInt(std::string& out, int v) {
    char buf[16];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    (void)ec;
    out.append(buf, end);
}

void appendRun(std::string& out, char c, int n) {
    if (n >= 4) {
        out += '!';
        appendInt(out, n);
        out += c;
    } else {
        out.append(static_cast<std::size_t>(n), c);
    }
}

} // namespace

std::string SixelEncoder::encode(const PixelImage& image, int top, int height, int colors) {
    top = std::max(top, 0);
    height = std::min(height, image.height - top);
    const int w = image.width;
    if (w <= 0 || height <= 0 ||
        image.rgb.size() < static_cast<std::size_t>(w) * static_cast<std::size_t>(image.height) * 3)
        return {};
    colors = std::clamp(colors, 2, 256);
    const std::uint8_t* px = image.rgb.data() + static_cast<std::size_t>(top) * w * 3;
    const std::size_t n = static_cast<std::size_t>(w) * static_cast<std::size_t>(height);

    std::vector<std::uint32_t> counts(kBins, 0);
    std::vector<std::array<std::uint64_t, 3>> sums(kBins, {0, 0, 0});
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint8_t* p = px + 3 * i;
        const auto bin = static_cast<std::size_t>(binOf(p));
        ++counts[bin];
        sums[bin][0] += p[0];
        sums[bin][1] += p[1];
        sums[bin][2] += p[2];
    }
    const std::vector<Colour> pal = palette(counts, sums, colors);

    // Each occupied bin goes to its nearest palette colour.
    std::vector<std::int16_t> nearest(kBins, -1);
    std::vector<std::uint8_t> index(n);
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint8_t* p = px + 3 * i;
        const auto bin = static_cast<std::size_t>(binOf(p));
        if (nearest[bin] < 0) {
            const auto& s = sums[bin];
            const int r = static_cast<int>(s[0] / counts[bin]),
                      g = static_cast<int>(s[1] / counts[bin]),
                      b = static_cast<int>(s[2] / counts[bin]);
            int best = 0, bestDistance = 1 << 30;
            for (int k = 0; k < static_cast<int>(pal.size()); ++k) {
                const Colour& c = pal[static_cast<std::size_t>(k)];
                const int d = (c.r - r) * (c.r - r) + (c.g - g) * (c.g - g) + (c.b - b) * (c.b - b);
                if (d < bestDistance) {
                    bestDistance = d;
                    best = k;
                }
            }
            nearest[bin] = static_cast<std::int16_t>(best);
        }
        index[i] = static_cast<std::uint8_t>(nearest[bin]);
    }

    std::string out;
    out.reserve(n / 2 + 64);
    // P2 = 1: pixels left unset keep what is under them.
    out += "\x1bP0;1;0q\"1;1;";
    appendInt(out, w);
    out += ';';
    appendInt(out, height);
    for (std::size_t k = 0; k < pal.size(); ++k) {
        out += '#';
        appendInt(out, static_cast<int>(k));
        out += ";2;";
        appendInt(out, (pal[k].r * 100 + 127) / 255);
        out += ';';
        appendInt(out, (pal[k].g * 100 + 127) / 255);
        out += ';';
        appendInt(out, (pal[k].b * 100 + 127) / 255);
    }

    std::vector<std::uint8_t> bits(static_cast<std::size_t>(w));
    std::vector<bool> used(pal.size());
    for (int band = 0; band < height; band += 6) {
        const int rows = std::min(6, height - band);
        std::fill(used.begin(), used.end(), false);
        for (int r = 0; r < rows; ++r)
            for (int x = 0; x < w; ++x)
                used[index[static_cast<std::size_t>(band + r) * w + x]] = true;
        bool first = true;
        for (std::size_t k = 0; k < pal.size(); ++k) {
            if (!used[k]) continue;
            std::fill(bits.begin(), bits.end(), 0);
            for (int r = 0; r < rows; ++r)
                for (int x = 0; x < w; ++x)
                    if (index[static_cast<std::size_t>(band + r) * w + x] == k)
                        bits[static_cast<std::size_t>(x)] |= static_cast<std::uint8_t>(1 << r);
            int end = w;
            while (end > 0 && bits[static_cast<std::size_t>(end - 1)] == 0)
                --end;
            if (!first) out += '$';
            first = false;
            out += '#';
            appendInt(out, static_cast<int>(k));
            for (int x = 0; x < end;) {
                int run = 1;
                while (x + run < end &&
                       bits[static_cast<std::size_t>(x + run)] == bits[static_cast<std::size_t>(x)])
                    ++run;
                appendRun(out, static_cast<char>(63 + bits[static_cast<std::size_t>(x)]), run);
                x += run;
            }
        }
        if (band + 6 < height) out += '-';
    }
    out += "\x1b\\";
    return out;
}

} // namespace trovan
