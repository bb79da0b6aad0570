// SPDX-License-Identifier: GPL-3.0-or-later
// Real-world oddities (a folder of files collected from another project's test suite,
// many deliberately broken), scanned, then written through the tag editor, one tag document per
// artist as a user would edit an artist's files, then given a cover through the checked write: the
// patch holds the title alone, every other tag entry of every file written reads back as it was
// through TagLib's per-format classes, every file refused is byte for byte what it was, and no file
// that decoded before stops decoding. Runs only where that folder exists; works on a copy.

#include "RawTags.h"
#include "TagFiles.h"
#include "library/Indexer.h"
#include "library/LibraryStore.h"
#include "library/Track.h"
#include "tags/TagDocument.h"
#include "tags/TagEditor.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;
using fixtures::slurp;

TEST(Corpus, ReadsAlikeAndWritesChangeNothingElseAndRefusedFilesStayIdentical) {
    const fs::path corpus = fs::path(TROVAN_SOURCE_DIR) / ".." / "shared" / "corpus" / "taglib";
    if (!fs::is_directory(corpus)) GTEST_SKIP() << "no corpus at " << corpus;
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const auto paths = fx::copyTree(corpus, dir / "corpus");
    ASSERT_FALSE(paths.empty());
    // First read: a scan stores every file it reads, and the read-only opening (a block
    // cache) agrees with the stdio one on every odd file.
    int64_t audio = 0;
    for (const auto& p : paths)
        audio += Track::isAudioPath(p) && fs::path(p).filename().string()[0] != '.';
    LibraryStore store(dir / "library.sqlite");
    const auto summary = Indexer::run({(dir / "corpus").string()}, store, false);
    EXPECT_EQ(summary.fileCount, audio);
    EXPECT_EQ(store.loadAll().size(), static_cast<std::size_t>(summary.readCount));
    for (const auto& p : paths) {
        auto plain = TagLibFile::open(p);
        auto cached = TagLibFile::openForReading(p);
        ASSERT_EQ(bool(plain), bool(cached)) << p;
        if (!plain) continue;
        EXPECT_EQ(cached->properties(), plain->properties()) << p;
        EXPECT_EQ(cached->audioProperties(), plain->audioProperties()) << p;
        EXPECT_EQ(cached->picture(), plain->picture()) << p;
    }

    std::map<std::string, std::vector<std::string>> byArtist;
    const auto all = TagEditor::properties(paths);
    std::map<std::string, std::string> bytes;
    std::map<std::string, rawtags::Entries> entries;
    std::map<std::string, bool> decoded;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        auto artist = all[i].find("ARTIST");
        byArtist[artist == all[i].end() || artist->second.empty() ? "" : artist->second[0]]
            .push_back(paths[i]);
        bytes[paths[i]] = slurp(paths[i]);
        entries[paths[i]] = rawtags::withoutTitles(rawtags::read(paths[i]));
        decoded[paths[i]] = fx::decodes(paths[i]);
    }

    TagEditor editor(nullptr);
    std::size_t written = 0;
    for (const auto& [artist, group] : byArtist) {
        SCOPED_TRACE("artista «" + artist + "»");
        const auto props = TagEditor::properties(group);
        const std::string doc = TagDocument::render(props);
        // Every TITLE line (one per value, or <varios>) becomes one new title.
        std::string edited;
        std::istringstream lines(doc);
        for (std::string line; std::getline(lines, line);)
            if (!line.starts_with("TITLE: "))
                edited += line + "\n";
            else if (edited.find("\nTITLE: ") == std::string::npos)
                edited += "TITLE: Título nuevo\n";
        const auto parsed = TagDocument::parse(edited, props);
        ASSERT_TRUE(parsed.problems.empty()) << parsed.problems.front() << "\n" << doc;
        EXPECT_TRUE(parsed.patch.remove.empty()) << doc;
        ASSERT_EQ(parsed.patch.changes.size(), 1u) << doc;
        EXPECT_EQ(parsed.patch.changes.begin()->first, "TITLE");

        const auto result = editor.apply(parsed.patch, group);
        for (const auto& p : result.failed) {
            if (slurp(p) == bytes[p]) continue;
            // Written, then not readable as a track: still nothing but its title changed.
            EXPECT_FALSE(Track::read(p)) << p << " refused but changed";
            EXPECT_EQ(rawtags::withoutTitles(rawtags::read(p)), entries[p]) << p;
        }
        for (const auto& track : result.updated) {
            ++written;
            EXPECT_EQ(track.title, "Título nuevo") << track.path;
            EXPECT_EQ(rawtags::withoutTitles(rawtags::read(track.path)), entries[track.path])
                << track.path;
        }
    }
    EXPECT_GT(written, 0u);

    const Picture cover{fx::image(fx::Cover{}), "image/jpeg"};
    for (const auto& p : paths) {
        const std::string before = slurp(p);
        if (SafeWrite::write(
                p, [&](TagLibFile& f) { return f.setPicture(cover); }, 1 << 20)) {
            EXPECT_TRUE(slurp(p) == before) << p << " refused but changed";
        }
    }
    for (const auto& p : paths)
        if (decoded[p] && slurp(p) != bytes[p]) {
            EXPECT_TRUE(fx::decodes(p)) << p << " no longer decodes";
        }
    for (const auto& e : fs::recursive_directory_iterator(dir / "corpus"))
        EXPECT_FALSE(SafeWrite::isWorkFileName(e.path().filename().string())) << e.path();
}
