// SPDX-License-Identifier: GPL-3.0-or-later
#include "ui/Layout.h"

#include <algorithm>

namespace trovan {

Layout::Layout(Size s) : size(s) {
    const int W = s.width, H = s.height;
    const int m = std::max(H - 6, 2);
    const int L = H - 6 >= 4 ? m - 4 : 0;
    const int A = 30 * W > 2199 ? std::min(30 * W / 100, 40) : 22;
    const int P = std::max(W - A - 7, 0);
    const int infoWidth = std::max(W, 16) - 16;

    header = {2, 0, std::max(W - 4, 0), 1};
    headerRule = 1;
    artists = {2, 2, A, m - 2};
    artistsSearch = {2, 3, A, 1};
    artistsList = {2, 4, A, L};
    library = {A + 5, 2, P, m - 2};
    libraryList = {A + 5, 4, P, L};
    playerRule = m;
    cover = {2, m + 1, 10, 5};
    nowPlaying = {14, m + 1, infoWidth, 3};
    const int B = W > 60 ? (W - 33) / 2 : 14;
    for (int i = 0; i < 5; ++i)
        buttons[kPlayerButtons[i]] = {B + 7 * i, m + 4, 5, 1};
    progress = {14, m + 5, infoWidth, 1};
}

} // namespace trovan
