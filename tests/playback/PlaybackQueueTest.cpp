#include "playback/PlaybackQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace trovan {
namespace {

PlaybackQueue queueOf(int n, int startAt, RepeatMode mode = RepeatMode::off) {
    std::mt19937_64 rng(1);
    PlaybackQueue q;
    q.repeatMode = mode;
    std::vector<std::string> paths;
    for (int i = 0; i < n; ++i)
        paths.push_back("/m/" + std::to_string(i));
    q.replace(paths, startAt, rng);
    return q;
}

bool isPermutation(const PlaybackQueue& q) {
    std::vector<int> ids(q.paths.size());
    std::iota(ids.begin(), ids.end(), 0);
    return std::is_permutation(q.order.begin(), q.order.end(), ids.begin(), ids.end());
}

TEST(PlaybackQueueTest, RepeatModesAtTheEndsAndOutOfRangeStarts) {
    for (auto [n, start] : {std::pair{3, 3}, {3, -1}, {0, 0}}) {
        auto q = queueOf(n, start);
        EXPECT_FALSE(q.position || q.advance(false) || q.retreat()) << n << " " << start;
    }
    auto off = queueOf(3, 1);
    EXPECT_EQ(off.advance(true), "/m/2");
    EXPECT_FALSE(off.advance(false)); // the user's next at the end stays put
    EXPECT_EQ(off.position, 2);
    EXPECT_FALSE(off.advance(true)); // the last track ended by itself: the queue is over
    EXPECT_FALSE(off.position);
    auto first = queueOf(3, 0);
    EXPECT_FALSE(first.retreat());
    EXPECT_EQ(first.position, 0);

    auto all = queueOf(3, 2, RepeatMode::all);
    EXPECT_EQ(all.advance(true), "/m/0");
    EXPECT_EQ(all.retreat(), "/m/2");
    auto one = queueOf(3, 2, RepeatMode::one);
    EXPECT_EQ(one.advance(true), "/m/2"); // the same track again
    EXPECT_EQ(one.advance(false),
              "/m/0"); // the user's next still moves on, and wraps
}

TEST(PlaybackQueueTest, ShuffleKeepsTheCurrentTrackFirstAndOffRestoresItsPlace) {
    std::mt19937_64 rng(42);
    auto q = queueOf(20, 7);
    q.setShuffle(true, rng);
    EXPECT_EQ(q.position, 0);
    EXPECT_EQ(q.order.front(), 7);
    EXPECT_TRUE(isPermutation(q));
    auto shuffled = q.order;
    q.reshuffle(rng);
    EXPECT_EQ(q.order.front(), 7);
    EXPECT_NE(q.order,
              shuffled); // 19! orders: a repeat would be a broken shuffle
    ASSERT_TRUE(q.advance(false));
    int current = q.order[static_cast<std::size_t>(*q.position)];
    q.setShuffle(false, rng);
    EXPECT_EQ(q.position, current);
    EXPECT_EQ(q.currentPath(), "/m/" + std::to_string(current));

    // With no current track the whole order is shuffled; the setting survives a new list.
    auto none = queueOf(20, 99);
    none.setShuffle(true, rng);
    EXPECT_FALSE(none.position);
    EXPECT_TRUE(isPermutation(none));
    EXPECT_FALSE(std::is_sorted(none.order.begin(), none.order.end()));
    none.replace({"/a", "/b", "/c", "/d", "/e"}, 4, rng);
    EXPECT_EQ(none.order.front(), 4);
    none.setShuffle(false, rng);
    EXPECT_EQ(none.position, 4);
}

} // namespace
} // namespace trovan
