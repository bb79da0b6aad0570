// SPDX-License-Identifier: GPL-3.0-or-later
// Albums played through a real PulseAudio daemon (a private one with a null sink):
// the sink's monitor is recorded with parec and the joins between tracks examined.

#include "PulseHarness.h"

#include "playback/PlaybackController.h"

#include <gtest/gtest.h>

namespace trovan {
namespace {

using namespace testing;

// A silent stretch of the recording.
struct Gap {
    std::size_t at = 0, frames = 0;
};

class GaplessSoundTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!canRunPulse()) GTEST_SKIP() << "ffmpeg, pulseaudio or parec missing";
        controller.onError = [this](const std::string& m) { errors.push_back(m); };
    }

    // Silent stretches of 1 ms or more between the first and the last sound.
    static std::vector<Gap> gaps(const std::vector<float>& s, std::size_t first, std::size_t last) {
        std::vector<Gap> found;
        std::size_t run = 0;
        for (std::size_t i = first; i <= last; ++i) {
            if (std::abs(s[i]) < 1e-3f) {
                ++run;
                continue;
            }
            if (run >= sinkRate / 1000) found.push_back({i - run, run});
            run = 0;
        }
        return found;
    }

    fixtures::TempDir dir{"trovan-gapless"};
    TaskQueue tasks;
    PlaybackController controller{std::make_unique<AudioEngine>(tasks.poster())};
    std::vector<std::string> errors;
};

TEST_F(GaplessSoundTest, AlbumsPlayThroughWithoutGapsOrClicks) {
    PulseServer server(dir.path() / "pulse");
    ASSERT_GT(server.pid, 0) << "pulseaudio did not start";
    const std::string flac = "-c:a flac -sample_fmt s16 -f flac";

    // Three FLAC tracks of one recording at the sink's rate: one unbroken sound. Each is
    // longer than the decoder's read-ahead, so the next one is named well in time.
    const std::vector<int64_t> cuts = {4800, 4800 + 62401, 4800 + 134403, 4800 + 182405};
    std::vector<std::string> album;
    for (std::size_t i = 0; i + 1 < cuts.size(); ++i)
        album.push_back(CutAlbum::write(dir.path(), "t" + std::to_string(i) + ".flac", flac,
                                        cuts[i], cuts[i + 1], sinkRate));
    auto s = recordSink(tasks, 4.6, [&] { controller.play(album, 0); });
    auto [first, last] = soundSpan(s);
    ASSERT_LT(first, last) << "nothing was heard";
    // A busy machine can starve the sound server's client for a few milliseconds
    // anywhere: such a dropout delays what follows but loses nothing. The joins are
    // judged in a window of 10 ms either side, wherever the dropouts have moved them.
    const auto dropouts = gaps(s, first, last);
    std::size_t silent = 0;
    for (const auto& gap : dropouts)
        silent += gap.frames;
    EXPECT_NEAR(double(last + 1 - first - silent), double(cuts.back() - cuts.front()), 48);
    RecordProperty("dropouts", static_cast<int>(dropouts.size()));
    for (std::size_t j = 1; j + 1 < cuts.size(); ++j) {
        std::size_t at = first + static_cast<std::size_t>(cuts[j] - cuts[0]);
        for (const auto& gap : dropouts)
            if (gap.at < at) at += gap.frames;
        const std::size_t from = at - sinkRate / 100, to = at + sinkRate / 100;
        for (const auto& gap : dropouts)
            EXPECT_FALSE(gap.at < to && gap.at + gap.frames > from)
                << "silence of " << gap.frames << " frames at join " << j;
        double worstStep = 0;
        for (std::size_t i = from; i < to; ++i)
            worstStep = std::max(worstStep, double(std::abs(s[i] - s[i - 1])));
        EXPECT_LE(worstStep, CutAlbum::maxStep(sinkRate) + 0.01) << "a click at join " << j;
    }
    EXPECT_EQ(controller.queue().position, std::nullopt); // the album played to its end
    EXPECT_TRUE(errors.empty());

    // 44.1 kHz, then 48 kHz: one short pause while the output reopens, both heard whole.
    std::vector<std::string> mixed = {
        CutAlbum::write(dir.path(), "m0.flac", flac, 0, 44100, 44100),
        CutAlbum::write(dir.path(), "m1.flac", flac, 0, 48000, 48000)};
    s = recordSink(tasks, 3.2, [&] { controller.play(mixed, 0); });
    std::tie(first, last) = soundSpan(s);
    ASSERT_LT(first, last) << "nothing was heard";
    // The reopen is the silence where the first track ends; any other is a dropout.
    const auto pauses = gaps(s, first, last);
    std::size_t heardSilent = 0, at = first + sinkRate, reopen = 0;
    for (const auto& gap : pauses) {
        heardSilent += gap.frames;
        if (gap.at + gap.frames <= at - sinkRate / 100)
            at += gap.frames;
        else if (gap.at <= at + sinkRate / 100)
            reopen = gap.frames;
    }
    RecordProperty("reopenMs", std::to_string(reopen * 1000 / sinkRate));
    EXPECT_LT(reopen, std::size_t(sinkRate)); // a reopen, not a stall
    EXPECT_NEAR(double(last + 1 - first - heardSilent), 2.0 * sinkRate, 480);
}

} // namespace
} // namespace trovan
