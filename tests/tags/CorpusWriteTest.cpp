// SPDX-License-Identifier: GPL-3.0-or-later
// Real-world oddities (a folder of files collected from another project's test suite,
// many deliberately broken) written through the checked write: no file that decoded
// before stops decoding, every file refused is left byte for byte as it was, and a title
// changed through the tag document changes nothing else. Runs only where that folder
// exists; works on a copy.

#include "RawTags.h"
#include "TagFiles.h"
#include "library/Track.h"
#include "tags/TagDocument.h"
#include "tags/TagEditor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <sstream>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;
using tagfiles::bytesOf;

namespace {
const fs::path kCorpus = fs::path(TROVAN_SOURCE_DIR) / ".." / "shared" / "corpus" / "taglib";

// The files of a fresh writable copy of the corpus.
std::vector<std::string> copyCorpus(const fs::path& into) {
    return fx::copyTree(kCorpus, into);
}
} // namespace

TEST(CorpusWrite, RefusedFilesStayIdenticalAndNoneStopsDecoding) {
    if (!fs::is_directory(kCorpus)) GTEST_SKIP() << "no corpus at " << kCorpus;
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const auto copy = dir / "corpus";
    const auto paths = copyCorpus(copy);
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

// One tag document per artist, as a user would edit an artist's files, changing only the
// titles: the patch holds the title alone, every other tag entry of every file written
// reads back as it was through TagLib's per-format classes, and every file refused is
// byte for byte what it was.
TEST(CorpusWrite, ADocumentPerArtistChangesOnlyTheTitles) {
    if (!fs::is_directory(kCorpus)) GTEST_SKIP() << "no corpus at " << kCorpus;
    if (!fx::available()) GTEST_SKIP() << "ffmpeg missing";
    fx::TempDir dir;
    const auto paths = copyCorpus(dir / "corpus");
    std::map<std::string, std::vector<std::string>> byArtist;
    const auto all = TagEditor::properties(paths);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        auto artist = all[i].find("ARTIST");
        byArtist[artist == all[i].end() || artist->second.empty() ? "" : artist->second[0]]
            .push_back(paths[i]);
    }
    std::map<std::string, std::string> bytes;
    std::map<std::string, rawtags::Entries> entries;
    for (const auto& p : paths) {
        bytes[p] = bytesOf(p);
        entries[p] = rawtags::withoutTitles(rawtags::read(p));
    }

    TagEditor editor(nullptr);
    std::size_t written = 0, refused = 0, unread = 0;
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
            if (bytesOf(p) == bytes[p]) {
                ++refused;
                continue;
            }
            // Written, then not readable as a track (the audio probe refuses it): counted
            // as failed, and still nothing but its title may have changed.
            ++unread;
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
    std::cout << written << " archivos escritos, " << unread << " escritos sin releer, " << refused
              << " rechazados, " << byArtist.size() << " documentos\n";
}
