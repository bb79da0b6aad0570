// SPDX-License-Identifier: GPL-3.0-or-later
// Real-world oddities: a folder of files collected from another project's test suite,
// many deliberately broken. Runs only where that folder exists; works on a copy. Writes
// into them are the tag writer's own corpus test.

#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "library/Track.h"
#include "media/TagLibFile.h"
#include "support/Fixtures.h"

#include <gtest/gtest.h>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

TEST(Corpus, ReadAndScanWithoutCrashing) {
    const auto corpus = fs::path(TROVAN_SOURCE_DIR) / ".." / "shared" / "corpus" / "taglib";
    if (!fs::is_directory(corpus)) GTEST_SKIP() << "no corpus at " << corpus;
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    auto copy = dir / "corpus";
    fx::copyTree(corpus, copy);

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
}
