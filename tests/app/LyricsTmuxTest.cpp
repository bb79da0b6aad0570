// SPDX-License-Identifier: GPL-3.0-or-later
// Timed lyrics in the real program on a real terminal: a FLAC with LRC in its LYRICS
// tag, an MP3 with a SYLT frame (written here with TagLib's frame API) and a WAV with a
// .lrc file beside it follow the song, jump to a line and take an offset.

#include "app/TmuxSession.h"
#include "text/Text.h"

#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/synchronizedlyricsframe.h>

#include <optional>
#include <regex>

using namespace trovan;
using namespace trovan::e2e;

namespace {

using Clock = std::chrono::steady_clock;

// Eight lines, one every two seconds from the first.
const std::vector<std::pair<int, std::string>> kVerses = {
    {1, "Verso uno"},   {3, "Verso dos"},   {5, "Verso tres"},   {7, "Verso cuatro"},
    {9, "Verso cinco"}, {11, "Verso seis"}, {13, "Verso siete"}, {15, "Verso ocho"}};

std::string lrcText(bool extras) {
    std::string out = extras ? "\xEF\xBB\xBF[ar:Gamma]\r\n[ti:Ola]\r\n" : "";
    for (const auto& [s, text] : kVerses)
        out += "[00:" + std::string(s < 10 ? "0" : "") + std::to_string(s) + ".00]" + text +
               (extras ? "\r\n" : "\n");
    return out;
}

fs::path track(const fs::path& dir, const std::string& file, fixtures::Format format,
               const std::string& artist, const std::string& lyrics = {}) {
    fixtures::Tone t;
    t.format = format;
    t.seconds = 20;
    t.frequency = 330;
    t.tags = {{"ARTIST", {artist}}, {"ALBUM", {"Letras " + artist}}, {"TITLE", {artist}}};
    if (!lyrics.empty()) t.tags["LYRICS"] = {lyrics};
    return fixtures::write(dir, file, t);
}

void addSylt(const fs::path& file) {
    TagLib::MPEG::File mp3(file.c_str());
    ASSERT_TRUE(mp3.isValid());
    auto* frame = new TagLib::ID3v2::SynchronizedLyricsFrame(TagLib::String::UTF8);
    frame->setTimestampFormat(TagLib::ID3v2::SynchronizedLyricsFrame::AbsoluteMilliseconds);
    frame->setType(TagLib::ID3v2::SynchronizedLyricsFrame::Lyrics);
    frame->setLanguage("spa");
    TagLib::ID3v2::SynchronizedLyricsFrame::SynchedTextList list;
    for (const auto& [s, text] : kVerses)
        list.append(
            {static_cast<unsigned>(s * 1000), TagLib::String("\n" + text, TagLib::String::UTF8)});
    frame->setSynchedText(list);
    mp3.ID3v2Tag(true)->addFrame(frame); // the tag owns it
    ASSERT_TRUE(mp3.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone, TagLib::ID3v2::v4));
}

// One look at the screen: the clock of the progress line, and which verse is drawn in
// the accent colour, bold.
struct Look {
    std::string clock, lit;
};

Look look(Session& s) {
    Look out;
    std::stringstream rows(s.screen(true));
    int y = 0;
    for (std::string row; std::getline(rows, row); ++y) {
        static const std::regex escape("\x1b\\[[0-9;]*m"), time(R"((\d+:\d\d) *━)");
        std::smatch m;
        const std::string bare = std::regex_replace(row, escape, "");
        if (y == 39 && std::regex_search(bare, m, time)) out.clock = m[1];
        for (const auto& [at, l] : kVerses) {
            const std::string before = row.substr(0, row.find(l));
            const auto fg = before.rfind("38;2;");
            if (row.find(l) != npos && fg != npos &&
                before.compare(fg, 16, "38;2;122;162;247") == 0 && before.rfind("\x1b[1m") != npos)
                out.lit = l;
        }
    }
    return out;
}

// How long before the clock turned to `clock` the line `line` was lit, watching for up
// to 12 s.
double litAhead(Session& s, const std::string& line, const std::string& clock) {
    std::optional<Clock::time_point> lit, turned;
    std::string seen;
    for (const auto end = Clock::now() + 12s; Clock::now() < end && !(lit && turned);) {
        const auto at = Clock::now();
        const Look l = look(s);
        if (!lit && l.lit == line) lit = at;
        if (!turned && l.clock == clock) turned = at;
        seen += l.clock + " " + l.lit + "\n";
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_TRUE(lit && turned) << line << "\n" << seen;
    return lit && turned ? std::chrono::duration<double>(*turned - *lit).count() : 99;
}

void play(Session& s, const std::string& artist) {
    s.keys("/");
    s.text(artist);
    s.keys("Enter");
    ASSERT_TRUE(s.waitFor("BIBLIOTECA · " + text::upper(artist))) << s.screen();
    s.keys("Enter Enter");
    ASSERT_TRUE(s.waitFor(" 0:00 ━") || s.waitFor(" 0:01 ━")) << s.screen();
    s.keys("l");
    ASSERT_TRUE(s.waitFor("LETRA · " + text::upper(artist))) << s.screen();
}

} // namespace

TEST(LyricsTmux, TimedLyricsFollowTheSongJumpAndShift) {
    if (!haveTmux() || !fixtures::available()) GTEST_SKIP() << "tmux or ffmpeg missing";
    Session s;
    const fs::path music = s.dir() / "music";
    fs::create_directories(music);
    track(music, "alfa.flac", fixtures::Format::flac, "Alfa", lrcText(false));
    addSylt(track(music, "beta.mp3", fixtures::Format::mp3, "Beta"));
    // The sidecar wins over the tag's plain lyrics; it has CRLF, a BOM and metadata.
    track(music, "gamma.wav", fixtures::Format::wav, "Gamma", "letra sin tiempos");
    std::ofstream(music / "gamma.lrc", std::ios::binary) << lrcText(true);

    s.start({music.string()});
    ASSERT_TRUE(s.waitFor("3 canciones · 3 artistas")) << s.screen();

    // The whole story on the tag's LRC: the lines change with the song, Enter on a line
    // seeks there, an offset of +500 ms brings every change half a second forward.
    play(s, "Alfa");
    ASSERT_TRUE(s.waitFor("Verso ocho")) << s.screen();
    EXPECT_NEAR(litAhead(s, "Verso tres", "0:05"), 0, 0.3);
    EXPECT_EQ(look(s).lit, "Verso tres"); // earlier lines dim, later ones plain
    s.keys("Down Down Enter");
    ASSERT_TRUE(waitUntil([&] { return look(s).lit == "Verso cinco"; }, 3s)) << s.screen();
    const std::string jumped = look(s).clock;
    EXPECT_TRUE(jumped == "0:09" || jumped == "0:10") << jumped;
    s.text("+++++");
    ASSERT_TRUE(s.waitFor("+500 ms")) << s.screen();
    EXPECT_NEAR(litAhead(s, "Verso seis", "0:11"), 0.5, 0.3);
    s.keys("l");
    // The SYLT frame and the sidecar follow the song too.
    for (const char* artist : {"Beta", "Gamma"}) {
        play(s, artist);
        EXPECT_TRUE(waitUntil([&] { return look(s).lit == "Verso dos"; }, 8s)) << s.screen();
        EXPECT_EQ(s.screen().find("[ar:"), npos) << s.screen();
        EXPECT_EQ(s.screen().find("letra sin tiempos"), npos) << s.screen();
        s.keys("l");
    }
    s.quit();
}
