// Damaged and unusual files (generated truncated ones, and the real-world
// corpus when it is there): each one either plays for a second or fails to load
// with an error; nothing may crash, hang or spin.

#include "EngineHarness.h"

#include <gtest/gtest.h>

#include <cmath>

namespace trovan {
namespace {

TEST(CorpusTest, EveryFileLoadsAndPlaysOrFailsCleanly) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    fixtures::TempDir dir;
    std::vector<std::filesystem::path> files;
    for (auto f : {fixtures::Format::flac, fixtures::Format::mp3, fixtures::Format::aac,
                   fixtures::Format::wav})
        files.push_back(fixtures::writeBroken(dir.path(), "cut." + fixtures::extension(f),
                                              fixtures::Broken::truncated, f));
    const std::filesystem::path corpus = TROVAN_SOURCE_DIR "/../shared/corpus/taglib";
    if (std::filesystem::is_directory(corpus))
        files.insert(files.end(), std::filesystem::directory_iterator(corpus), {});

    testing::TaskQueue tasks;
    testing::VirtualOutputs outputs;
    AudioEngine engine(tasks.poster(), outputs.factory());
    int played = 0;
    for (const auto& file : files) {
        SCOPED_TRACE(file.filename().string());
        try {
            engine.load(file.string());
        } catch (const std::exception&) {
            continue;
        }
        ++played;
        EXPECT_GT(engine.duration(), 0.0);
        engine.play();
        const auto rate = static_cast<std::size_t>(outputs.current->format().sampleRate);
        for (std::size_t done = 0; done < rate && engine.isPlaying(); done += 512) {
            ASSERT_TRUE(engine.waitUntilBuffered(std::chrono::seconds(20))) << "decoder stuck";
            outputs.current->advance(512);
            tasks.runPending();
        }
        for (float v : outputs.current->lastBlock())
            ASSERT_TRUE(std::isfinite(v));
        EXPECT_LE(engine.currentTime(), engine.duration());
        engine.seek(engine.duration() / 2);
        engine.pause();
    }
    EXPECT_GT(played, 0);
}

} // namespace
} // namespace trovan
