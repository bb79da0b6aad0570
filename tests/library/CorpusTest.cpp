// Real-world oddities: a folder of files collected from another project's test suite,
// many deliberately broken. Runs only where that folder exists; works on a copy.

#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "library/Track.h"
#include "media/TagLibFile.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

TEST(Corpus, ReadScanAndWriteWithoutCrashingOrBreakingAudio) {
    const auto corpus = fs::path(TROVAN_SOURCE_DIR) / ".." / "shared" / "corpus" / "taglib";
    if (!fs::is_directory(corpus)) GTEST_SKIP() << "no corpus at " << corpus;
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto copy = dir / "corpus";
    fs::copy(corpus, copy, fs::copy_options::recursive);

    std::vector<fs::path> files;
    int64_t audio = 0;
    for (const auto& e : fs::recursive_directory_iterator(copy))
        if (e.is_regular_file()) {
            files.push_back(e.path());
            audio +=
                Track::isAudioPath(e.path().string()) && e.path().filename().string()[0] != '.';
        }
    ASSERT_FALSE(files.empty());

    LibraryStore store(dir / "library.sqlite");
    auto summary = Indexer::run({copy.string()}, store, false);
    EXPECT_EQ(summary.fileCount, audio);
    EXPECT_EQ(store.loadAll().size(), static_cast<std::size_t>(summary.readCount));

    // The read-only opening (block cache) agrees with the stdio one on every odd file.
    for (const auto& f : files) {
        SCOPED_TRACE(f.filename());
        (void)Track::read(f.string());
        auto plain = TagLibFile::open(f.string());
        auto cached = TagLibFile::openForReading(f.string());
        ASSERT_EQ(bool(plain), bool(cached));
        if (!plain) continue;
        EXPECT_EQ(cached->properties(), plain->properties());
        EXPECT_EQ(cached->audioProperties(), plain->audioProperties());
        EXPECT_EQ(cached->picture(), plain->picture());
    }

    const Picture cover{fx::image(fx::Cover{}), "image/jpeg"};
    std::atomic<int> saved{0}, titled{0};
    std::vector<std::string> broke;
    std::mutex brokeMutex;
    // Two threads: most of the time goes to ffmpeg processes.
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (std::size_t i; (i = next.fetch_add(1)) < files.size();) {
            const auto& f = files[i];
            auto file = TagLibFile::open(f.string());
            if (!file) continue;
            file->set("TITLE", {"Título de prueba"});
            file->setPicture(cover);
            if (!std::exchange(file, nullptr)->save()) continue;
            ++saved;
            if (auto again = TagLibFile::open(f.string());
                again && again->value("TITLE") == "Título de prueba")
                ++titled;
            (void)Track::read(f.string());
            // Only a file that fails now needs its untouched original checked.
            if (!fx::decodes(f) && fx::decodes(corpus / fs::relative(f, copy))) {
                std::lock_guard lock(brokeMutex);
                broke.push_back(f.filename().string());
            }
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_TRUE(broke.empty()) << "no longer decodes after a tag write: "
                               << ::testing::PrintToString(broke);
    EXPECT_GT(saved.load(), 0);
    EXPECT_GT(titled.load(), 0);
}
