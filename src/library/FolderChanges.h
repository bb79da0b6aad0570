// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// What changed on disk since the last update, as folders to look at again: whole trees
// (a folder created, moved or deleted) and single folders (files in them written,
// moved or deleted). Gathered by the folder watcher, applied by Indexer::update.

#include <set>
#include <string>

namespace trovan {

struct FolderChanges {
    std::set<std::string> trees;   // every folder below these, at any depth
    std::set<std::string> folders; // the files directly in these
    bool rescan = false;           // events were lost: only a full rescan is safe

    bool empty() const { return trees.empty() && folders.empty() && !rescan; }
    void merge(const FolderChanges& other) {
        trees.insert(other.trees.begin(), other.trees.end());
        folders.insert(other.folders.begin(), other.folders.end());
        rescan = rescan || other.rescan;
    }
    bool operator==(const FolderChanges&) const = default;
};

} // namespace trovan
