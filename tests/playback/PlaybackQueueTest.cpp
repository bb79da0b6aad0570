#include "playback/PlaybackQueue.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace trovan {
namespace {

PlaybackQueue queueOf(int n, int startAt, RepeatMode mode = RepeatMode::off) {
    std::mt19937_64 rng(1);
    PlaybackQueue q;
    q.repeatMode = mode;
    std::vector<std::string> paths;
    for (int i = 0; i < n; ++i)
        paths.push_back("/m/" + std::to_string(i) + ".flac");
    q.replace(paths, startAt, rng);
    return q;
}

bool isPermutation(const PlaybackQueue& q) {
    auto sorted = q.order;
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t i = 0; i < sorted.size(); ++i)
        if (sorted[i] != static_cast<int>(i)) return false;
    return sorted.size() == q.paths.size();
}

TEST(PlaybackQueueTest, StartIndexOutsideTheListLeavesNoPosition) {
    EXPECT_FALSE(queueOf(3, 3).position);
    EXPECT_FALSE(queueOf(3, -1).position);
    EXPECT_FALSE(queueOf(0, 0).position);
    auto q = queueOf(3, 3);
    EXPECT_FALSE(q.advance(false));
    EXPECT_FALSE(q.retreat());
    EXPECT_EQ(queueOf(3, 2).currentPath(), "/m/2.flac");
}

TEST(PlaybackQueueTest, RepeatOffEndsAfterTheLastTrack) {
    auto q = queueOf(3, 1);
    EXPECT_EQ(q.advance(true), "/m/2.flac");
    EXPECT_FALSE(q.advance(false)); // the user's next at the end: stays put
    EXPECT_EQ(q.position, 2);
    EXPECT_FALSE(q.advance(true)); // the track ended by itself: the queue is over
    EXPECT_FALSE(q.position);
    EXPECT_FALSE(q.advance(false));
    EXPECT_FALSE(q.retreat());

    auto first = queueOf(3, 0);
    EXPECT_FALSE(first.retreat());
    EXPECT_EQ(first.position, 0);
    EXPECT_EQ(queueOf(3, 2).retreat(), "/m/1.flac");
}

TEST(PlaybackQueueTest, RepeatAllAndOneWrapAround) {
    auto all = queueOf(3, 2, RepeatMode::all);
    EXPECT_EQ(all.advance(true), "/m/0.flac");
    EXPECT_EQ(all.retreat(), "/m/2.flac");
    EXPECT_EQ(all.position, 2);

    auto one = queueOf(3, 2, RepeatMode::one);
    EXPECT_EQ(one.advance(true), "/m/2.flac"); // the same track again
    EXPECT_EQ(one.position, 2);
    EXPECT_EQ(one.advance(false), "/m/0.flac"); // the user's next still moves on, and wraps
    EXPECT_EQ(one.retreat(), "/m/2.flac");
}

TEST(PlaybackQueueTest, ShuffleKeepsTheCurrentTrackFirstAndOffRestoresItsPlace) {
    std::mt19937_64 rng(42);
    auto q = queueOf(20, 7);
    q.setShuffle(true, rng);
    EXPECT_TRUE(q.shuffle);
    EXPECT_EQ(q.position, 0);
    EXPECT_EQ(q.order.front(), 7);
    EXPECT_TRUE(isPermutation(q));
    auto shuffled = q.order;
    q.reshuffle(rng);
    EXPECT_EQ(q.order.front(), 7);
    EXPECT_TRUE(isPermutation(q));
    EXPECT_NE(q.order, shuffled); // 19! orders: a repeat would be a broken shuffle

    ASSERT_TRUE(q.advance(false));
    int current = q.order[static_cast<std::size_t>(*q.position)];
    q.setShuffle(false, rng);
    EXPECT_EQ(q.position, current);
    EXPECT_EQ(q.order[static_cast<std::size_t>(current)], current);
    EXPECT_EQ(q.currentPath(), "/m/" + std::to_string(current) + ".flac");
    q.setShuffle(false, rng); // unchanged: nothing happens
    EXPECT_EQ(q.position, current);

    // With no current track the whole order is shuffled; the setting survives a new list.
    auto none = queueOf(20, 99);
    none.setShuffle(true, rng);
    EXPECT_FALSE(none.position);
    EXPECT_TRUE(isPermutation(none));
    none.replace({"/a", "/b", "/c", "/d", "/e", "/f"}, 4, rng);
    EXPECT_TRUE(none.shuffle);
    EXPECT_EQ(none.order.front(), 4);
    EXPECT_EQ(none.position, 0);
    none.setShuffle(false, rng);
    EXPECT_EQ(none.position, 4);

    // Starting out of range under shuffle shuffles everything.
    none.setShuffle(true, rng);
    std::vector<std::string> many;
    for (int i = 0; i < 20; ++i)
        many.push_back("/n/" + std::to_string(i));
    none.replace(many, 20, rng);
    EXPECT_FALSE(none.position);
    EXPECT_TRUE(isPermutation(none));
    EXPECT_FALSE(std::is_sorted(none.order.begin(), none.order.end()));
}

} // namespace
} // namespace trovan
