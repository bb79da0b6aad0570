#pragma once
// The tags of one or many files as a plain text document for the user's own editor, and
// the patch read back from the edited text. One line per value ("KEY: value"); a key
// whose files disagree shows "<varios>" and is left alone unless edited; deleting a line
// deletes the tag; line breaks inside a value are written as \n. Lyrics have their own
// document and never appear here.

#include "tags/TagPatch.h"

#include <string>
#include <vector>

namespace trovan {

class TagDocument {
public:
    static std::string render(const std::vector<PropertyMap>& files);
    static TagPatch parse(const std::string& text, const std::vector<PropertyMap>& original);

    // The ten common keys first, always; then every other key of any file but the
    // excluded ones, in plain text order.
    static std::vector<std::string> orderedKeys(const std::vector<PropertyMap>& files);
    static bool excluded(const std::string& key) { return key == "LYRICS"; }
    static std::string escape(const std::string& value);
    static std::string unescape(const std::string& value);
};

} // namespace trovan
