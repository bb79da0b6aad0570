// Real-world oddities (a folder of files collected from another project's test suite,
// many deliberately broken) written through the checked write: no file that decoded
// before stops decoding, and every file refused is left byte for byte as it was. Runs
// only where that folder exists; works on a copy.

#include "TagFiles.h"

#include <gtest/gtest.h>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;
using tagfiles::bytesOf;

TEST(CorpusWrite, RefusedFilesStayIdenticalAndNoneStopsDecoding) {
    const auto corpus = fs::path(TROVAN_SOURCE_DIR) / ".." / "shared" / "corpus" / "taglib";
    if (!fs::is_directory(corpus)) GTEST_SKIP() << "no corpus at " << corpus;
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const auto copy = dir / "corpus";
    fs::copy(corpus, copy, fs::copy_options::recursive);
    std::vector<std::string> paths;
    for (const auto& e : fs::recursive_directory_iterator(copy))
        if (e.is_regular_file()) paths.push_back(e.path().string());
    ASSERT_FALSE(paths.empty());
    std::vector<bool> decoded;
    for (const auto& p : paths)
        decoded.push_back(fx::decodes(p));

    const Picture cover{fx::image(fx::Cover{}), "image/jpeg"};
    const SafeWrite::Edit edits[] = {
        [](TagLibFile& f) {
            f.set("TITLE", {"Título de prueba"});
            f.set("ARTIST", {"Uno", "Dos"});
            return true;
        },
        [&cover](TagLibFile& f) { return f.setPicture(cover); },
    };
    int writes = 0;
    std::vector<bool> written(paths.size());
    for (const auto& edit : edits) {
        for (std::size_t i = 0; i < paths.size(); ++i) {
            const std::string before = bytesOf(paths[i]);
            if (SafeWrite::write(paths[i], edit, 1 << 20)) {
                EXPECT_TRUE(bytesOf(paths[i]) == before) << paths[i] << " refused but changed";
            } else {
                ++writes;
                written[i] = true;
            }
        }
    }
    EXPECT_GT(writes, 0);
    // A refused file is still what it was; only the written ones need decoding again.
    for (std::size_t i = 0; i < paths.size(); ++i)
        if (decoded[i] && written[i]) {
            EXPECT_TRUE(fx::decodes(paths[i])) << paths[i] << " no longer decodes";
        }
    for (const auto& e : fs::recursive_directory_iterator(copy))
        EXPECT_FALSE(SafeWrite::isWorkFileName(e.path().filename().string())) << e.path();
}
