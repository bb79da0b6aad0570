// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/Lrc.h"
#include "tags/LyricsSource.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace trovan;

namespace {

// "ms text" per line, in the order read.
std::string timeline(const std::optional<Lrc>& lrc) {
    if (!lrc) return "<plain>";
    std::string out;
    for (const auto& l : lrc->lines)
        out += std::to_string(l.ms) + " " + l.text + "|";
    return out;
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

} // namespace

TEST(Lrc, ReadsWhatItCanOfForgivingAndBrokenInput) {
    struct Case {
        const char* what;
        std::string text;
        std::string expected;
    };
    const Case cases[] = {
        {"plain lyrics are not timed", "Hola\nmundo\n", "<plain>"},
        {"a tag alone is not timed", "[ar:Alguien]\nHola", "<plain>"},
        {"hundredths, tenths, milliseconds, one-digit minutes",
         "[00:01.50]a\n[00:02.5]b\n[0:03.125]c\n[01:00]d", "1500 a|2500 b|3125 c|60000 d|"},
        {"several stamps on one line", "[00:05.00][00:01.00]coro", "1000 coro|5000 coro|"},
        {"out of order, ties in file order", "[00:03.00]c\n[00:01.00]a\n[00:03.00]d",
         "1000 a|3000 c|3000 d|"},
        {"the same line twice is kept once", "[00:01.00][00:01.00]x\n[00:01.00]x\n[00:01.00]y",
         "1000 x|1000 y|"},
        {"negative stamps start the song", "[-00:02.00]antes\n[00:01.00]a", "0 antes|1000 a|"},
        {"seconds past 59 are no time: the text stays with the line before",
         "[00:01.00]a\n[99:99.99]b\n[00:02.00]c", "1000 a|1000 b|2000 c|"},
        {"a missing bracket leaves the text as it is", "[00:01.00]a\n[00:02.00 b",
         "1000 a|1000 [00:02.00 b|"},
        {"empty lines with stamps are pauses; blank ones vanish",
         "[00:01.00]a\n\n[00:02.00]\n   \n[00:03.00]b", "1000 a|2000 |3000 b|"},
        {"CRLF, CR and a byte-order mark",
         "\xEF\xBB\xBF[00:01.00]a\r\n[00:02.00]b\r[00:03.00]c\r\n", "1000 a|2000 b|3000 c|"},
        {"metadata hidden, section names kept as text",
         "[ti:Canción]\n[ar:Alguien]\n[length: 03:20]\n[00:01.00][Estribillo] la",
         "1000 [Estribillo] la|"},
        {"word stamps dropped", "[00:01.00]<00:01.00>Hola <00:01.40>mundo<00:02.00>",
         "1000 Hola mundo|"},
        {"the past end of a long song is still a time", "[120:00.00]fin", "7200000 fin|"},
        {"huge minute counts are no time", "[9999999:00.00]x\n[00:01.00]a", "0 x|1000 a|"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(timeline(Lrc::parse(c.text)), c.expected) << c.what;
}

TEST(Lrc, OffsetMovesEveryLineAndSurvivesWriting) {
    auto lrc = Lrc::parse("[ar:Ana]\n[offset:+500]\n[00:10.00]uno\n[00:20.004]dos\n[foo:bar]");
    ASSERT_TRUE(lrc);
    EXPECT_EQ(lrc->offsetMs, 500);
    // A positive offset shows each line half a second sooner.
    EXPECT_EQ(lrc->lineAt(9499), -1);
    EXPECT_EQ(lrc->lineAt(9500), 0);
    EXPECT_EQ(lrc->lineAt(19503), 0);
    EXPECT_EQ(lrc->lineAt(19504), 1);
    EXPECT_EQ(lrc->startOf(1), 19504);
    lrc->offsetMs = -300;
    EXPECT_EQ(lrc->serialize(),
              "[ar:Ana]\n[foo:bar]\n[offset:-300]\n[00:10.00]uno\n[00:20.00]dos\n");
    EXPECT_EQ(Lrc::parse(lrc->serialize())->offsetMs, -300);
    EXPECT_EQ(Lrc::parse("[offset:lots]\n[00:01.00]a")->offsetMs, 0);
    EXPECT_EQ(Lrc::stamp(3725999), "[62:06.00]");
}

TEST(Lrc, SidecarsInOtherEncodingsTooLargeOrGone) {
    fixtures::TempDir dir;
    const std::string audio = (dir / "canción.wav").string();
    EXPECT_EQ(LyricsSource::sidecarPath(audio), dir / "canción.lrc");
    std::string problem;
    EXPECT_FALSE(LyricsSource::readSidecar(audio, &problem)) << "no sidecar";
    EXPECT_TRUE(problem.empty());

    struct Case {
        const char* what;
        std::string bytes;
        std::string expected;
    };
    const Case cases[] = {
        {"Latin-1",
         "[00:01.00]Coraz\xF3n ma\xF1"
         "ana",
         "[00:01.00]Corazón mañana"},
        {"UTF-8 with BOM", "\xEF\xBB\xBF[00:01.00]ñ", "[00:01.00]ñ"},
        {"UTF-16LE", std::string("\xFF\xFE[\0a\0\xF1\0", 8), "[añ"},
        {"UTF-16BE with a pair", std::string("\xFE\xFF\xD8\x3D\xDE\x00", 6), "\xF0\x9F\x98\x80"},
    };
    for (const auto& c : cases) {
        writeFile(LyricsSource::sidecarPath(audio), c.bytes);
        EXPECT_EQ(LyricsSource::readSidecar(audio, &problem).value_or("<none>"), c.expected)
            << c.what;
    }

    // Ten megabytes are refused with a message, not read.
    writeFile(LyricsSource::sidecarPath(audio), std::string(10u << 20, 'a'));
    EXPECT_FALSE(LyricsSource::readSidecar(audio, &problem));
    EXPECT_NE(problem.find("demasiado grande"), std::string::npos) << problem;

    // Written in one step, read back as written.
    ASSERT_TRUE(LyricsSource::writeSidecar(audio, "[00:02.00]b\n"));
    EXPECT_EQ(LyricsSource::readSidecar(audio, nullptr).value_or(""), "[00:02.00]b\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1)
        << "no temporary file left behind";
}
