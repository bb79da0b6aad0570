// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/AppState.h"

#include "text/Text.h"

#include <algorithm>

namespace trovan {

std::string CoverArt::albumKey(const LibraryIndex::Artist& artist,
                               const LibraryIndex::Album& album) {
    return "album\x1f" + artist.key + "\x1f" + text::fold(album.title);
}

void ListViewport::scrollToCursor(int height) {
    if (height < 1) return;
    if (cursor - 1 < offset) offset = std::max(cursor - 1, 0);
    if (cursor >= offset + height) offset = cursor - height + 1;
}

} // namespace trovan
