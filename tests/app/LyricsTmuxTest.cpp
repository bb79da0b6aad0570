// SPDX-License-Identifier: GPL-3.0-or-later
// Timed lyrics in the real program on a real terminal: a FLAC with LRC in its LYRICS
// tag, an MP3 with a SYLT frame (written here with TagLib's frame API) and a WAV with a
// .lrc file beside it follow the song, jump to a line and take an offset; then the
// timing mode stamps plain lyrics and saves them into the tag.

#include "app/TmuxSession.h"
#include "tags/Lrc.h"
#include "tags/TagEditor.h"
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

const std::vector<std::string> kVerseTexts = [] {
    std::vector<std::string> out;
    for (const auto& v : kVerses)
        out.push_back(v.second);
    return out;
}();

// One look at the screen: the clock of the progress line, and which of `lines` is drawn
// in the accent colour, bold.
struct Look {
    std::string clock, lit;
};

Look look(Session& s, const std::vector<std::string>& lines = kVerseTexts) {
    Look out;
    std::stringstream rows(s.screen(true));
    int y = 0;
    for (std::string row; std::getline(rows, row); ++y) {
        static const std::regex escape("\x1b\\[[0-9;]*m"), time(R"((\d+:\d\d) *━)");
        std::smatch m;
        const std::string bare = std::regex_replace(row, escape, "");
        if (y == 39 && std::regex_search(bare, m, time)) out.clock = m[1];
        for (const auto& l : lines) {
            const std::string before = row.substr(0, row.find(l));
            const auto fg = before.rfind("38;2;");
            if (row.find(l) != npos && fg != npos &&
                before.compare(fg, 16, "38;2;122;162;247") == 0 && before.rfind("\x1b[1m") != npos)
                out.lit = l;
        }
    }
    return out;
}

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
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
    return lit && turned ? seconds(*turned - *lit) : 99;
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

TEST(LyricsTmux, TimedLyricsFollowJumpShiftAndAreMadeWithSpace) {
    if (!haveTmux() || !fixtures::available()) GTEST_SKIP() << "tmux or ffmpeg missing";
    Session s;
    const fs::path music = s.dir() / "music";
    fs::create_directories(music);
    track(music, "alfa.flac", fixtures::Format::flac, "Alfa", lrcText(false));
    addSylt(track(music, "beta.mp3", fixtures::Format::mp3, "Beta"));
    // The sidecar wins over the tag's plain lyrics; it has CRLF, a BOM and metadata.
    track(music, "gamma.wav", fixtures::Format::wav, "Gamma", "letra sin tiempos");
    std::ofstream(music / "gamma.lrc", std::ios::binary) << lrcText(true);
    const fs::path delta =
        track(music, "delta.flac", fixtures::Format::flac, "Delta", "Uno\nDos\n\nTres\nCuatro");

    s.start({music.string()});
    ASSERT_TRUE(s.waitFor("4 canciones · 4 artistas")) << s.screen();

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

    // Timing mode on four plain lines, from a seek to 0:02 (key 1 on a 20 s track).
    play(s, "Delta");
    s.command(":sync");
    ASSERT_TRUE(s.waitFor("SINCRONIZAR")) << s.screen();
    ASSERT_TRUE(s.waitFor("[--:--.--] Cuatro")) << s.screen();
    // A key reaches the program somewhere between the start and the end of tmux's
    // send-keys: each moment is the middle of that span.
    auto send = [&](const std::string& key) {
        const auto before = Clock::now();
        s.keys(key);
        return before + (Clock::now() - before) / 2;
    };
    const auto seeked = send("1");
    const double presses[] = {0.6, 1.4, 2.2, 3.0};
    double moments[4];
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_until(seeked + std::chrono::duration<double>(presses[i]));
        moments[i] = 2.0 + seconds(send("Space") - seeked);
    }
    ASSERT_TRUE(s.waitFor("] Cuatro")) << s.screen();
    ASSERT_EQ(s.screen().find("[--:--.--]"), npos) << s.screen();
    s.keys("Escape");
    ASSERT_TRUE(s.waitFor("¿Guardar la letra sincronizada?")) << s.screen();
    s.text("s");
    ASSERT_TRUE(s.waitFor("Letra sincronizada guardada en 1 pista")) << s.screen();

    // Read back: four stamps where Space was pressed.
    const std::string lrc = TagEditor::lyrics(delta.string());
    const auto parsed = Lrc::parse(lrc);
    ASSERT_TRUE(parsed && parsed->lines.size() == 4) << lrc;
    std::vector<std::pair<double, std::string>> stamped;
    for (const auto& l : parsed->lines)
        stamped.emplace_back(static_cast<double>(l.ms) / 1000, l.text);
    const char* words[] = {"Uno", "Dos", "Tres", "Cuatro"};
    // The first press against the seek (the song moves on once the audio flows again,
    // a few tens of milliseconds later); the others against the first, which leaves out
    // that delay.
    EXPECT_NEAR(stamped[0].first, moments[0], 0.15) << lrc;
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(stamped[static_cast<std::size_t>(i)].first - stamped[0].first,
                    moments[i] - moments[0], 0.15)
            << lrc;
        EXPECT_EQ(stamped[static_cast<std::size_t>(i)].second, words[i]) << lrc;
    }
    // And the view follows: the last stamped line is lit.
    ASSERT_TRUE(waitUntil([&] { return look(s, {"Cuatro"}).lit == "Cuatro"; }, 5s)) << s.screen();
    s.quit();
}
