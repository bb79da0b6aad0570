// SPDX-License-Identifier: GPL-3.0-or-later
#include "EngineHarness.h"

#include "playback/PlaybackController.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
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
    EXPECT_NE(q.order, shuffled); // of 19! orders, the same one again means no shuffle
    ASSERT_TRUE(q.advance(false));
    int current = q.order[static_cast<std::size_t>(*q.position)];
    q.setShuffle(false, rng);
    EXPECT_EQ(q.position, current);

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

// Edits by place in play order, with shuffle off (the user's order is the play order)
// and on: the current entry stays current, the order stays a permutation.
TEST(PlaybackQueueTest, EditsKeepTheCurrentEntryAndAPermutation) {
    std::mt19937_64 rng(7);
    for (bool shuffle : {false, true}) {
        SCOPED_TRACE(shuffle);
        auto q = queueOf(5, 2);
        q.setShuffle(shuffle, rng);
        const auto current = q.currentPath();
        auto here = [&] { return static_cast<std::size_t>(*q.position); };
        auto at = [&](int offset) { return q.pathAt(*q.position + offset); };
        q.insert(here() + 1, {"/n1", "/n2"});
        q.insert(0, {"/front"});
        q.insert(q.order.size(), {"/end"});
        const int last = static_cast<int>(q.order.size()) - 1;
        EXPECT_EQ(
            (std::vector{q.currentPath(), at(1), at(2), q.pathAt(0), q.pathAt(last)}),
            (std::vector<std::optional<std::string>>{current, "/n1", "/n2", "/front", "/end"}));

        EXPECT_TRUE(q.move(here() + 1, 1));
        EXPECT_EQ(at(2), "/n1");
        EXPECT_TRUE(q.move(here(), -1)); // the current one moves with its mark
        EXPECT_FALSE(q.move(0, -1) || q.move(q.order.size() - 1, 1));
        std::size_t front = 0;
        while (q.pathAt(static_cast<int>(front)) != "/front")
            ++front;
        EXPECT_TRUE(q.remove(front));
        EXPECT_FALSE(q.remove(q.order.size()));
        EXPECT_EQ(q.currentPath(), current);
        EXPECT_EQ(std::count(q.paths.begin(), q.paths.end(), "/front"), 0);
        EXPECT_TRUE(isPermutation(q));

        EXPECT_EQ(q.clearAfterCurrent(), q.order.size() - here() - 1);
        EXPECT_EQ(q.order.size(), here() + 1);
        EXPECT_EQ(q.currentPath(), current);
        EXPECT_TRUE(isPermutation(q));
    }
    auto ended = queueOf(3, -1); // nothing current: everything goes
    EXPECT_EQ(ended.clearAfterCurrent(), 3u);
    EXPECT_TRUE(ended.paths.empty() && ended.order.empty());
}

class PlaybackControllerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
        controller.onChange = [this] {
            ++changes;
            if (controller.state().isPlaying && (heard.empty() || heard.back() != current()))
                heard.push_back(current());
        };
        controller.onError = [this](const std::string& m) { errors.push_back(m); };
        controller.lookup = [this](const std::string& path) -> std::optional<Track> {
            auto it = library.find(path);
            return it == library.end() ? std::nullopt : std::optional(it->second);
        };
        for (int i = 0; i < 3; ++i)
            good.push_back(
                add(testing::tone("ctl-" + std::to_string(i) + ".flac", {.seconds = 5}), "Pista"));
    }

    std::string add(const std::string& path, const std::string& title) {
        library[path].path = path;
        library[path].title = title;
        return path;
    }
    std::string copy(const std::string& from, const std::string& name) {
        return add(fixtures::copyTo(from, dir.path(), name).string(), name);
    }
    std::string broken(const std::string& title) {
        return add(fixtures::writeBroken(dir.path(), title + ".flac", fixtures::Broken::garbage),
                   title);
    }
    std::string current() const {
        return controller.state().track ? controller.state().track->path : "";
    }
    void advance(double seconds) { testing::advanceSeconds(engine(), outputs, seconds); }
    // Lets a load started in the background finish.
    void settle() {
        for (int i = 0; i < 100 && controller.loading(); ++i)
            if (tasks.waitForTask()) tasks.runPending();
        ASSERT_FALSE(controller.loading());
    }
    void prepared() {
        ASSERT_TRUE(engine().waitUntilPrepared(std::chrono::seconds(10)));
        tasks.runPending();
    }
    void playFor(double seconds) { testing::playFor(engine(), outputs, tasks, seconds); }
    void playToTheEnd() {
        for (int i = 0; i < 100000 && controller.queue().position; ++i) {
            playFor(0.01);
            std::this_thread::yield(); // a load or notice in flight may need the decoder thread
        }
    }
    AudioEngine& engine() { return controller.engine(); }

    fixtures::TempDir dir;
    testing::TaskQueue tasks;
    testing::VirtualOutputs outputs;
    std::map<std::string, Track> library;
    std::vector<std::string> good, errors, heard; // heard: each track as it became current
    int changes = 0;
    PlaybackController controller{std::make_unique<AudioEngine>(tasks.poster(), outputs.factory())};
};

TEST_F(PlaybackControllerTest, PlayStartsTheChosenTrackSkippingUnplayableOnes) {
    controller.play({good[0], broken("Rota"), good[2]}, 1);
    settle();
    EXPECT_EQ(errors, std::vector<std::string>{"No se pudo reproducir: Rota"});
    EXPECT_EQ(current(), good[2]);
    EXPECT_TRUE(controller.state().isPlaying);
    EXPECT_DOUBLE_EQ(controller.state().duration, 5.0);
    EXPECT_EQ(controller.state().format.value().codec, "FLAC");

    controller.setRepeatMode(RepeatMode::one); // skipping never retries the same file
    controller.play(good, 0);                  // still loading when the next list comes
    controller.play({broken("Uno"), broken("Dos")}, 0);
    settle();
    EXPECT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors.back(), "No se pudo reproducir: Dos");
    // Nothing is left playing behind the screen.
    EXPECT_FALSE(controller.state().track);
    EXPECT_FALSE(engine().isPlaying());
    EXPECT_FALSE(engine().hasFile());

    controller.play(good, 1);
    settle();
    changes = 0;
    controller.play(good, 7); // out of range: stops, with one notice
    settle();
    EXPECT_FALSE(controller.state().isPlaying);
    EXPECT_EQ(changes, 1);
}

TEST_F(PlaybackControllerTest, PreviousRepeatAndTagRefresh) {
    controller.togglePlay(); // nothing loaded: harmless
    controller.seek(1);
    EXPECT_FALSE(controller.state().track);
    controller.play(good, 1);
    settle();
    controller.seek(3.5);
    controller.previous(); // more than 3 s played: restarts instead
    settle();
    EXPECT_EQ(current(), good[1]);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);
    controller.seek(2.5);
    controller.previous();
    settle();
    EXPECT_EQ(current(), good[0]);
    controller.seek(1.0);
    controller.previous(); // first track, repeat off: back to its start
    settle();
    EXPECT_EQ(current(), good[0]);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);
    controller.setRepeatMode(RepeatMode::all); // with repeat on, back round to the last
    controller.previous();
    settle();
    EXPECT_EQ(current(), good[2]);
    controller.next();
    settle();
    EXPECT_EQ(current(), good[0]);

    controller.setRepeatMode(RepeatMode::one);
    advance(1.0);
    controller.trackEnded();
    settle();
    EXPECT_EQ(current(), good[0]);
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);
    EXPECT_TRUE(controller.state().isPlaying);

    library[good[0]].artist = "Nuevo";
    controller.refreshCurrentTrack();
    EXPECT_EQ(controller.state().track->artist, "Nuevo");
}

// Playing on through joins, with next tracks that are damaged, empty, deleted or rewritten
// after they were opened: each join moves the queue once and restarts elapsed time, a
// repeat change made while the next track is open already is followed, each file that
// cannot play is reported once, and the stream goes on. So does one track on repeat, and
// a run of short tracks, until the queue is over.
TEST_F(PlaybackControllerTest, JoinsFollowTheQueueAndBadNextTracksNeverStopTheStream) {
    auto second = testing::tone("bad-1s.flac", {.seconds = 1});
    auto short1 = testing::tone("bad-short.flac", {.seconds = 0.6});
    auto other = testing::tone("bad-other.flac", {.frequency = 880, .seconds = 0.8});
    const auto zero =
        add(fixtures::writeBroken(dir.path(), "vacia.flac", fixtures::Broken::zeroBytes).string(),
            "Vacía");
    const std::vector<std::string> paths = {copy(second, "a.flac"), broken("Rota"), zero,
                                            copy(second, "b.flac"), copy(second, "c.flac")};
    controller.play(paths, 0);
    settle();
    for (int i = 0; i < 3; ++i) // Rota, Vacía, then b opens
        prepared();
    EXPECT_EQ(errors, (std::vector<std::string>{"No se pudo reproducir: Rota",
                                                "No se pudo reproducir: Vacía"}));
    std::filesystem::copy_file(other, paths[3], // rewritten in place: opened again
                               std::filesystem::copy_options::overwrite_existing);
    playFor(1.05);
    EXPECT_EQ(current(), paths[3]);
    EXPECT_EQ(controller.queue().position, 3);
    EXPECT_NEAR(engine().currentTime(), 0.05, 1e-9);
    EXPECT_DOUBLE_EQ(controller.state().duration, 0.8);
    prepared();
    controller.setRepeatMode(RepeatMode::one); // c is open already: dropped, b joins itself
    playFor(0.8);
    EXPECT_EQ(current(), paths[3]);
    EXPECT_NEAR(engine().currentTime(), 0.05, 1e-9);
    controller.setRepeatMode(RepeatMode::off);
    prepared();
    std::filesystem::remove(paths[4]); // open already: it still plays
    playFor(1.8);
    if (controller.queue().position && tasks.waitForTask()) tasks.runPending(); // the end
    EXPECT_EQ(heard, (std::vector<std::string>{paths[0], paths[3], paths[4]}));
    EXPECT_DOUBLE_EQ(controller.state().duration, 1.0);
    EXPECT_FALSE(controller.queue().position);
    EXPECT_FALSE(controller.state().isPlaying);
    EXPECT_EQ(errors.size(), 2u);

    controller.setRepeatMode(RepeatMode::all);
    controller.play({paths[0]}, 0);
    settle();
    int rounds = 0;
    for (double last = 0; rounds < 3;) {
        ASSERT_LT(outputs.current->playedFrames(), 44100 * 10) << "stalled";
        playFor(0.01);
        rounds += engine().currentTime() < last;
        last = engine().currentTime();
    }
    EXPECT_EQ(current(), paths[0]);
    EXPECT_TRUE(controller.state().isPlaying);
    // Tracks shorter than the ring may take the slower way, reloading.
    controller.setRepeatMode(RepeatMode::off);
    std::vector<std::string> run;
    for (int i = 0; i < 20; ++i)
        run.push_back(copy(short1, "run" + std::to_string(i) + ".flac"));
    heard.clear();
    controller.play(run, 0);
    settle();
    playToTheEnd();
    EXPECT_EQ(heard, run);
    EXPECT_FALSE(controller.state().isPlaying);
    EXPECT_EQ(errors.size(), 2u);
    EXPECT_EQ(current(), run.back()); // the queue is over with its last track loaded
    controller.next();
    settle();
    EXPECT_FALSE(engine().isPlaying());
    controller.resume(); // from the start
    EXPECT_DOUBLE_EQ(engine().currentTime(), 0.0);
    EXPECT_TRUE(controller.state().isPlaying);
}

// Every edit names the new following track to the engine: what is heard next is what
// the queue says, joined without a reload.
TEST_F(PlaybackControllerTest, QueueEditsReachTheGaplessJoin) {
    auto second = testing::tone("queue-1s.flac", {.seconds = 1});
    const std::string a = copy(second, "qa.flac"), b = copy(second, "qb.flac"),
                      c = copy(second, "qc.flac"), d = copy(second, "qd.flac");
    int queueChanges = 0;
    controller.onQueueChange = [&] { ++queueChanges; };
    controller.play({a, b}, 0);
    settle();
    prepared();
    controller.enqueue({c}, true); // a c b
    prepared();
    controller.enqueue({d}, false);        // a c b d
    EXPECT_TRUE(controller.moveAt(3, -1)); // a c d b
    EXPECT_FALSE(controller.removeAt(0));  // the playing one stays
    EXPECT_TRUE(controller.removeAt(1));   // a d b
    prepared();
    EXPECT_EQ(queueChanges, 5);
    playToTheEnd();
    EXPECT_EQ(heard, (std::vector<std::string>{a, d, b}));
    EXPECT_TRUE(errors.empty());
}

// A batch of tag writes over the playing file. One replaced by a rename plays on; one
// with a second name is let go and taken up where it was, as the user left it: paused,
// moved, or not at all when another track was started meanwhile.
TEST_F(PlaybackControllerTest, AWriteHoldsOnlyAHardLinkedPlayingTrackAndTheUserWins) {
    const std::string linked = (dir.path() / "enlazada.flac").string();
    std::filesystem::copy_file(good[0], linked);
    std::filesystem::create_hard_link(linked, dir.path() / "otro-nombre.flac");
    add(linked, "Enlazada");
    controller.play({good[1], linked, good[2]}, 0);
    settle();
    advance(1.0);
    controller.beginFileWrite({good[1], linked});
    EXPECT_FALSE(controller.waitingForWrite());
    EXPECT_TRUE(engine().isPlaying());
    controller.endFileWrite();

    controller.next();
    settle();
    advance(1.5);
    controller.beginFileWrite({good[1], linked});
    ASSERT_TRUE(controller.waitingForWrite());
    EXPECT_FALSE(engine().hasFile());
    EXPECT_NEAR(controller.position(), 1.5, 0.05);
    EXPECT_TRUE(controller.state().isPlaying);
    controller.togglePlay();
    controller.seek(2.5);
    EXPECT_FALSE(controller.state().isPlaying);
    controller.endFileWrite();
    settle();
    EXPECT_EQ(current(), linked);
    EXPECT_FALSE(engine().isPlaying());
    EXPECT_NEAR(engine().currentTime(), 2.5, 0.05);
    controller.resume();
    EXPECT_TRUE(engine().isPlaying());

    controller.beginFileWrite({linked});
    ASSERT_TRUE(controller.waitingForWrite());
    controller.next();
    settle();
    controller.endFileWrite();
    EXPECT_FALSE(controller.loading());
    EXPECT_EQ(current(), good[2]);
    EXPECT_TRUE(engine().isPlaying());
}

// With a crossfade set, the next album's track takes over that long before the end (the
// first still sounds under it); the next track of the same album, in order, joins at the end.
TEST_F(PlaybackControllerTest, CrossfadesOnlyBetweenAlbumsOrOutOfOrder) {
    controller.setCrossfade(2);
    for (bool sameAlbum : {false, true}) {
        SCOPED_TRACE(sameAlbum ? "one album in order" : "two albums");
        library[good[0]].album = "X";
        library[good[1]].album = sameAlbum ? "X" : "Y";
        library[good[0]].trackNumber = 1;
        library[good[1]].trackNumber = 2;
        controller.play({good[0], good[1]}, 0);
        settle();
        // The crossfade begins at 3 s; the decoder thread hears of it within a ring (0.5 s).
        playFor(4.3);
        EXPECT_EQ(current(), sameAlbum ? good[0] : good[1]);
        playFor(1.2);
        EXPECT_EQ(current(), good[1]);
        EXPECT_TRUE(controller.state().isPlaying);
    }
}

// What the gain chooser picks reaches the output: the same tone tagged -6 dB plays at half,
// and tagged +30 dB (no peak tag) as loud as the limiter lets it, never past full scale.
TEST_F(PlaybackControllerTest, TheChosenGainScalesWhatIsHeardUpToTheLimiter) {
    library[good[1]].replayGain.trackGain = -6.0;
    library[good[2]].replayGain.trackGain = 30.0;
    controller.setLoudness(ReplayGainMode::track, 0);
    auto peaks = [&](const std::string& path) { // over all of 0.45 s, and over its second half
        controller.play({path}, 0);
        settle();
        std::vector<float> left;
        for (int i = 0; i < 40; ++i)
            testing::playBlock(engine(), outputs, tasks, left);
        auto top = [](auto from, auto to) {
            return std::abs(*std::max_element(
                from, to, [](float a, float b) { return std::abs(a) < std::abs(b); }));
        };
        return std::pair{top(left.begin(), left.end()), top(left.begin() + 20 * 512, left.end())};
    };
    const float plain = peaks(good[0]).second;
    EXPECT_GT(plain, 0.05f);
    EXPECT_NEAR(peaks(good[1]).second / plain, 0.501, 0.01);
    const auto [loudest, settled] = peaks(good[2]);
    EXPECT_GT(settled, 4 * plain);
    EXPECT_LE(loudest, 0.995f) << "a sample went past the limiter";
}

// The gain for each mode, the fallback to the other gain, the preamp alone on untagged
// tracks, the peak that caps it, and how the panel names it.
TEST(GainChoiceTest, ModesFallbacksPeaksAndLabels) {
    using S = GainChoice::Source;
    const ReplayGain both{-6.2, 0.5, -8.0, 0.9}, trackOnly{-3.0, {}, {}, {}},
        loud{12.0, 0.7079, {}, {}}, peakOnly{{}, 0.5, {}, {}}, nonsense{1.0, -1.0, {}, 1e300};
    struct Case {
        ReplayGain tags;
        ReplayGainMode mode;
        double preamp;
        bool inOrder;
        S source;
        double db;
        const char* label;
    };
    using M = ReplayGainMode;
    const Case cases[] = {
        {both, M::off, 5, true, S::off, 0, ""},
        {both, M::track, 0, true, S::track, -6.2,
         "RG pista \xE2\x88\x92"
         "6.2 dB"},
        {both, M::album, 0, false, S::album, -8.0,
         "RG álbum \xE2\x88\x92"
         "8.0 dB"},
        {both, M::automatic, 0, true, S::album, -8.0, nullptr},
        {both, M::automatic, 0, false, S::track, -6.2, nullptr},
        {trackOnly, M::album, 1, true, S::track, -2.0, nullptr},
        {{}, M::track, 2, false, S::untagged, 2.0, "RG +2.0 dB"},
        {{}, M::track, 0, false, S::untagged, 0, ""},
        {{}, M::track, 99, false, S::untagged, 15, nullptr},
        // +12 dB on a peak of -3 dBFS is held to what keeps the peak below full scale.
        {loud, M::track, 0, false, S::track, 20 * std::log10(0.995 / 0.7079), "RG pista +3.0 dB"},
        // A peak with no gain still caps the preamp; nonsense peaks are ignored.
        {peakOnly, M::track, 9, false, S::untagged, 20 * std::log10(0.995 / 0.5), nullptr},
        {nonsense, M::track, 0, false, S::track, 1.0, nullptr},
    };
    for (const auto& c : cases) {
        const auto g = GainChoice::choose(c.tags, c.mode, c.preamp, c.inOrder);
        EXPECT_EQ(g.source, c.source);
        EXPECT_NEAR(g.db, c.db, 1e-3);
        if (c.label) {
            EXPECT_EQ(g.label(), c.label);
        }
    }
    EXPECT_NEAR((GainChoice{S::track, -6.0}.linear()), 0.501187, 1e-6);
    EXPECT_EQ(GainChoice{}.linear(), 1.0f);
}

} // namespace
} // namespace trovan
