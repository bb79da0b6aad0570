// SPDX-License-Identifier: GPL-3.0-or-later
#include "text/Text.h"

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

namespace trovan::text {
namespace {

bool allAscii(std::string_view s) {
    for (unsigned char c : s)
        if (c >= 0x80) return false;
    return true;
}

// Creating a break iterator is costly; each thread keeps one and re-targets it.
icu::BreakIterator* characterIterator() {
    thread_local std::unique_ptr<icu::BreakIterator> it = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::BreakIterator> bi(
            icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status)) bi.reset();
        return bi;
    }();
    return it.get();
}

// Most text (accented Latin, box drawing, CJK ideographs) is made only of scalars that
// always stand alone as a cluster; those need no break iterator. Returns false when
// some scalar can join its neighbour (marks, joiners, Hangul jamo, flags, prepends).
bool simpleBoundaries(std::string_view s, std::vector<std::size_t>& out) {
    out.clear();
    out.push_back(0);
    int32_t i = 0, n = static_cast<int32_t>(s.size());
    bool previousCR = false;
    while (i < n) {
        UChar32 c;
        U8_NEXT(s.data(), i, n, c);
        if (c < 0) return false; // ill-formed bytes: let ICU decide
        bool isLF = false;
        if (c >= 0x80) {
            int gcb = u_getIntPropertyValue(c, UCHAR_GRAPHEME_CLUSTER_BREAK);
            if (gcb != U_GCB_OTHER && gcb != U_GCB_CONTROL) return false;
        } else {
            isLF = c == '\n';
        }
        if (previousCR && isLF)
            out.back() = static_cast<std::size_t>(i);
        else
            out.push_back(static_cast<std::size_t>(i));
        previousCR = c == '\r';
    }
    return true;
}

void nonAsciiBoundaries(std::string_view s, std::vector<std::size_t>& out) {
    if (simpleBoundaries(s, out)) return;
    out.clear();
    icu::BreakIterator* bi = characterIterator();
    UErrorCode status = U_ZERO_ERROR;
    UText* ut = utext_openUTF8(nullptr, s.data(), static_cast<int64_t>(s.size()), &status);
    if (bi == nullptr || U_FAILURE(status)) {
        // No ICU data: fall back to one scalar per cluster.
        if (ut) utext_close(ut);
        std::size_t i = 0;
        out.push_back(0);
        while (i < s.size()) {
            int32_t idx = static_cast<int32_t>(i);
            UChar32 c;
            U8_NEXT(s.data(), idx, static_cast<int32_t>(s.size()), c);
            (void)c;
            i = static_cast<std::size_t>(idx);
            out.push_back(i);
        }
        return;
    }
    bi->setText(ut, status);
    for (int32_t b = bi->first(); b != icu::BreakIterator::DONE; b = bi->next())
        out.push_back(static_cast<std::size_t>(b));
    // Detach the iterator from the text before closing it.
    static const char empty[] = "";
    UText* none = utext_openUTF8(nullptr, empty, 0, &status);
    bi->setText(none, status);
    utext_close(none);
    utext_close(ut);
    if (out.empty() || out.front() != 0) out.insert(out.begin(), 0);
    if (out.back() != s.size()) out.push_back(s.size());
}

bool inWideRange(UChar32 c) {
    struct Range {
        UChar32 lo, hi;
    };
    static constexpr Range ranges[] = {
        {0x1100, 0x115F}, {0x2E80, 0x303E}, {0x3041, 0x4DBF}, {0x4E00, 0xA4CF}, {0xAC00, 0xD7A3},
        {0xF900, 0xFAFF}, {0xFE30, 0xFE4F}, {0xFF00, 0xFF60}, {0xFFE0, 0xFFE6},
    };
    for (const auto& r : ranges)
        if (c >= r.lo && c <= r.hi) return true;
    return false;
}

int scalarWidth(UChar32 c) {
    if (c < 0) return 0;
    if (c < 32 || (c >= 127 && c <= 159)) return 0;
    if (c < 0x1100) return 1;
    if (inWideRange(c)) return 2;
    if (u_hasBinaryProperty(c, UCHAR_EMOJI_PRESENTATION)) return 2;
    if (c >= 0x20000 && c <= 0x3FFFD) return 2;
    return 1;
}

icu::UnicodeString fromUtf8(std::string_view s) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
}

std::string toUtf8(const icu::UnicodeString& u) {
    std::string out;
    u.toUTF8String(out);
    return out;
}

} // namespace

Graphemes::Graphemes(std::string_view s) : s_(s), ascii_(allAscii(s)) {
    if (!ascii_) nonAsciiBoundaries(s, bounds_);
}

bool Graphemes::next(std::string_view& cluster) {
    if (ascii_) {
        if (pos_ >= s_.size()) return false;
        std::size_t len =
            (s_[pos_] == '\r' && pos_ + 1 < s_.size() && s_[pos_ + 1] == '\n') ? 2 : 1;
        cluster = s_.substr(pos_, len);
        pos_ += len;
        return true;
    }
    if (boundIndex_ + 1 >= bounds_.size()) return false;
    std::size_t a = bounds_[boundIndex_], b = bounds_[boundIndex_ + 1];
    ++boundIndex_;
    cluster = s_.substr(a, b - a);
    return true;
}

std::vector<std::size_t> graphemeBoundaries(std::string_view s) {
    std::vector<std::size_t> out;
    if (allAscii(s)) {
        out.push_back(0);
        for (std::size_t i = 0; i < s.size();) {
            i += (s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n') ? 2 : 1;
            out.push_back(i);
        }
        return out;
    }
    nonAsciiBoundaries(s, out);
    return out;
}

std::size_t graphemeCount(std::string_view s) {
    std::size_t n = 0;
    Graphemes g(s);
    std::string_view c;
    while (g.next(c))
        ++n;
    return n;
}

int32_t firstScalar(std::string_view s) {
    if (s.empty()) return -1;
    int32_t i = 0;
    UChar32 c;
    U8_NEXT(s.data(), i, static_cast<int32_t>(s.size()), c);
    return c < 0 ? 0xFFFD : c;
}

int charWidth(std::string_view cluster) {
    if (cluster.empty()) return 0;
    auto b = static_cast<unsigned char>(cluster[0]);
    if (b < 0x80) return (b < 32 || b == 127) ? 0 : 1;
    return scalarWidth(firstScalar(cluster));
}

int displayWidth(std::string_view s) {
    if (allAscii(s)) {
        int w = 0;
        for (unsigned char c : s)
            w += (c >= 32 && c != 127) ? 1 : 0;
        return w;
    }
    int w = 0;
    Graphemes g(s);
    std::string_view c;
    while (g.next(c))
        w += charWidth(c);
    return w;
}

namespace {

std::string foldFull(std::string_view s);

// Folds of U+0080 to U+024F (the Latin supplements and extensions), each worked out once
// by the full path. None of these depends on its neighbours, and no mark is among them,
// so a string of ASCII and these characters folds piece by piece, without ICU.
constexpr char32_t kLatinEnd = 0x250;

const std::array<std::string, kLatinEnd - 0x80>& latinFolds() {
    static const auto table = [] {
        std::array<std::string, kLatinEnd - 0x80> t;
        for (char32_t c = 0x80; c < kLatinEnd; ++c) {
            const char utf8[] = {static_cast<char>(0xC0 | (c >> 6)),
                                 static_cast<char>(0x80 | (c & 0x3F))};
            t[c - 0x80] = foldFull(std::string_view(utf8, 2));
        }
        return t;
    }();
    return table;
}

// The fold of a string of ASCII and Latin letters; none for anything else.
std::optional<std::string> foldLatin(std::string_view s) {
    const auto& table = latinFolds();
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            out += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : static_cast<char>(c);
            continue;
        }
        if ((c & 0xE0) != 0xC0 || i + 1 == s.size()) return std::nullopt;
        const auto next = static_cast<unsigned char>(s[i + 1]);
        if ((next & 0xC0) != 0x80) return std::nullopt;
        const char32_t scalar = static_cast<char32_t>((c & 0x1F) << 6 | (next & 0x3F));
        if (scalar < 0x80 || scalar >= kLatinEnd) return std::nullopt;
        out += table[scalar - 0x80];
        ++i;
    }
    return out;
}

} // namespace

std::string fold(std::string_view s) {
    if (allAscii(s)) {
        std::string out(s);
        for (char& c : out)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        return out;
    }
    if (auto latin = foldLatin(s)) return std::move(*latin);
    return foldFull(s);
}

namespace {

std::string foldFull(std::string_view s) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
    const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
    const icu::Normalizer2* nfkd = icu::Normalizer2::getNFKDInstance(status);
    if (U_FAILURE(status)) return std::string(s);

    icu::UnicodeString in = fromUtf8(s);
    // Full-width and half-width forms become their ordinary counterparts.
    icu::UnicodeString widthFolded;
    for (int32_t i = 0; i < in.length();) {
        UChar32 c = in.char32At(i);
        i += U16_LENGTH(c);
        int dt = u_getIntPropertyValue(c, UCHAR_DECOMPOSITION_TYPE);
        icu::UnicodeString decomposition;
        if ((dt == U_DT_WIDE || dt == U_DT_NARROW) && nfkd->getDecomposition(c, decomposition))
            widthFolded.append(decomposition);
        else
            widthFolded.append(c);
    }
    widthFolded.foldCase(U_FOLD_CASE_DEFAULT);
    icu::UnicodeString decomposed = nfd->normalize(widthFolded, status);
    if (U_FAILURE(status)) return std::string(s);
    icu::UnicodeString stripped;
    for (int32_t i = 0; i < decomposed.length();) {
        UChar32 c = decomposed.char32At(i);
        i += U16_LENGTH(c);
        if (u_charType(c) != U_NON_SPACING_MARK) stripped.append(c);
    }
    icu::UnicodeString composed = nfc->normalize(stripped, status);
    if (U_FAILURE(status)) return toUtf8(stripped);
    return toUtf8(composed);
}

} // namespace

std::string upper(std::string_view s) {
    if (allAscii(s)) {
        std::string out(s);
        for (char& c : out)
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        return out;
    }
    icu::UnicodeString u = fromUtf8(s);
    u.toUpper(icu::Locale::getRoot());
    return toUtf8(u);
}

std::string lower(std::string_view s) {
    if (allAscii(s)) {
        std::string out(s);
        for (char& c : out)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        return out;
    }
    icu::UnicodeString u = fromUtf8(s);
    u.toLower(icu::Locale::getRoot());
    return toUtf8(u);
}

int compareNumeric(std::string_view a, std::string_view b) {
    auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t ia = i, jb = j;
            while (ia < a.size() && a[ia] == '0')
                ++ia;
            while (jb < b.size() && b[jb] == '0')
                ++jb;
            std::size_t ea = ia, eb = jb;
            while (ea < a.size() && isDigit(a[ea]))
                ++ea;
            while (eb < b.size() && isDigit(b[eb]))
                ++eb;
            std::size_t la = ea - ia, lb = eb - jb;
            if (la != lb) return la < lb ? -1 : 1;
            if (int c = a.substr(ia, la).compare(b.substr(jb, lb)); c != 0) return c < 0 ? -1 : 1;
            // Same value: fewer leading zeros first, then go on.
            std::size_t za = ia - i, zb = jb - j;
            if (za != zb) return za < zb ? -1 : 1;
            i = ea;
            j = eb;
            continue;
        }
        // UTF-8 byte order is code point order.
        auto ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
        if (ca != cb) return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}

bool isNumeric(std::string_view cluster) {
    int32_t c = firstScalar(cluster);
    if (c < 0) return false;
    return u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

bool isValidUtf8(std::string_view s) {
    int32_t i = 0, n = static_cast<int32_t>(s.size());
    while (i < n) {
        UChar32 c;
        U8_NEXT(s.data(), i, n, c);
        if (c < 0) return false;
    }
    return true;
}

void appendUtf8(std::string& out, char32_t c) {
    char buf[4];
    int32_t len = 0;
    UBool error = false;
    U8_APPEND(buf, len, 4, static_cast<UChar32>(c), error);
    if (error) {
        out += "\xEF\xBF\xBD";
        return;
    }
    out.append(buf, static_cast<std::size_t>(len));
}

std::string repairUtf8(std::string_view s) {
    if (isValidUtf8(s)) return std::string(s);
    std::string out;
    out.reserve(s.size() + 8);
    int32_t i = 0, n = static_cast<int32_t>(s.size());
    while (i < n) {
        int32_t start = i;
        UChar32 c;
        U8_NEXT(s.data(), i, n, c);
        if (c < 0)
            out += "\xEF\xBF\xBD";
        else
            out.append(s.data() + start, static_cast<std::size_t>(i - start));
    }
    return out;
}

std::string counted(long long n, std::string_view one, std::string_view many) {
    std::string out = std::to_string(n);
    out += ' ';
    out += n == 1 ? one : many;
    return out;
}

std::string_view trim(std::string_view s, std::string_view blanks) {
    const auto first = s.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return s.substr(first, s.find_last_not_of(blanks) - first + 1);
}

} // namespace trovan::text
