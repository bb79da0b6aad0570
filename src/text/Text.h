// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Unicode text rules shared by the whole program: user-perceived characters,
// terminal column widths, folding for grouping and search, and the ordering
// that compares digit runs as numbers. Everything is UTF-8 in, UTF-8 out.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trovan::text {

// Walks the extended grapheme clusters of a UTF-8 string. Ill-formed bytes
// stay part of the clusters ICU assigns them to (they read as U+FFFD).
class Graphemes {
public:
    explicit Graphemes(std::string_view s);
    // The next cluster, or false at the end.
    bool next(std::string_view& cluster);

private:
    std::string_view s_;
    std::vector<std::size_t> bounds_; // only used for non-ASCII strings
    std::size_t pos_ = 0;
    std::size_t boundIndex_ = 0;
    bool ascii_ = true;
};

// `s` without the `blanks` at either end.
std::string_view trim(std::string_view s, std::string_view blanks = " \t\n\r\v\f");

// Byte offsets of every cluster boundary, 0 and s.size() included.
std::vector<std::size_t> graphemeBoundaries(std::string_view s);
// Number of clusters.
std::size_t graphemeCount(std::string_view s);

// First Unicode scalar of a UTF-8 string (U+FFFD for ill-formed bytes), or -1 if empty.
int32_t firstScalar(std::string_view s);

// Columns a cluster takes in the terminal: 0, 1 or 2, decided by its first scalar.
int charWidth(std::string_view cluster);
// Sum of charWidth over the clusters of s.
int displayWidth(std::string_view s);

// Case, diacritic and width insensitive form of s, with no locale.
std::string fold(std::string_view s);

// Upper-case and lower-case forms (root locale).
std::string upper(std::string_view s);
std::string lower(std::string_view s);

// Three-way comparison on code points, where runs of ASCII digits compare as numbers
// ("2" before "10"). Returns <0, 0 or >0.
int compareNumeric(std::string_view a, std::string_view b);
inline bool lessNumeric(std::string_view a, std::string_view b) {
    return compareNumeric(a, b) < 0;
}

// True if the first scalar of the cluster has a Unicode numeric type.
bool isNumeric(std::string_view cluster);

// s with every ill-formed UTF-8 sequence replaced by U+FFFD.
// "1 canción", "0 canciones", "2 canciones": the number and the noun it agrees with.
std::string counted(long long n, std::string_view one, std::string_view many);

std::string repairUtf8(std::string_view s);
bool isValidUtf8(std::string_view s);

// Appends the UTF-8 encoding of a scalar.
void appendUtf8(std::string& out, char32_t c);

} // namespace trovan::text
