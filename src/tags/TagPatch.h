// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One batch of tag changes, applied alike to every selected file.

#include <map>
#include <set>
#include <string>
#include <vector>

namespace trovan {

struct TagPatch {
    // Tag key → the complete new list of values.
    std::map<std::string, std::vector<std::string>> changes;
    // Keys to delete.
    std::set<std::string> remove;

    bool isEmpty() const { return changes.empty() && remove.empty(); }
    bool operator==(const TagPatch&) const = default;
};

// Per-file tag properties: key → values, as read from the file.
using PropertyMap = std::map<std::string, std::vector<std::string>>;

} // namespace trovan
