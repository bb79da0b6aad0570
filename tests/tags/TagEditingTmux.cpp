// SPDX-License-Identifier: GPL-3.0-or-later
// Tag editing in the real program on a real terminal: typing into the form, the tag
// document in vi and the lyrics through an editor script.

#include "TagFiles.h"
#include "app/TmuxSession.h"
#include "tags/TagEditor.h"

using namespace trovan;
using namespace trovan::e2e;

namespace {

std::string value(const fs::path& file, const std::string& key) {
    auto props = TagEditor::properties({file.string()}).front();
    auto it = props.find(key);
    return it == props.end() || it->second.empty() ? "" : it->second.front();
}

} // namespace

TEST(TagEditingTmux, FormTagDocumentAndLyrics) {
    if (!haveTmux() || !fixtures::available() || !fixtures::onPath("vi"))
        GTEST_SKIP() << "tmux, ffmpeg or vi missing";
    Session s;
    const fs::path music = makeMusic(s.dir());
    // The tag document goes to vi; the lyrics are written by the script itself. vi edits
    // a copy with a short name: whatever vi the system has (vim.tiny starts in vi mode),
    // the file-name message fits the window and asks for no Enter.
    const fs::path editor = s.dir() / "editor.sh";
    std::ofstream(editor)
        << "case \"$1\" in\n"
           "  *tags.txt) cd \"$(dirname \"$0\")\" && cp \"$1\" t.txt && vi t.txt &&"
           " cp t.txt \"$1\" ;;\n"
           "  *letra.txt) printf 'Hola\\nmundo\\n' > \"$1\" ;;\n"
           "esac\n";
    ::setenv("EDITOR", ("sh " + editor.string()).c_str(), 1);
    ::unsetenv("VISUAL");
    s.start({music.string()});
    ASSERT_TRUE(s.waitFor("4 canciones · 3 artistas")) << s.screen();

    // Alfa's album: the form, down to the genre, typed, saved.
    s.keys("Enter");
    s.keys("e");
    ASSERT_TRUE(s.waitFor("Artista del álbum")) << s.screen();
    s.keys("Down Down Down Down Down Down Down");
    s.text("Jazz");
    s.keys("Enter");
    ASSERT_TRUE(s.waitFor("Tags guardados en 2 pistas")) << s.screen();
    EXPECT_EQ(value(music / "alfa-1.flac", "GENRE"), "Jazz");
    EXPECT_EQ(value(music / "alfa-2.flac", "GENRE"), "Jazz");
    EXPECT_EQ(value(music / "beta-1.flac", "GENRE"), "");

    // The whole document in vi, on the terminal the program handed over.
    s.keys("E");
    ASSERT_TRUE(s.waitFor("# Trovan · editando 2 pistas")) << s.screen();
    s.text(":%s/^ALBUM: .*/ALBUM: Nuevo/");
    s.keys("Enter");
    s.text(":wq");
    s.keys("Enter");
    ASSERT_TRUE(waitUntil([&] { return value(music / "alfa-2.flac", "ALBUM") == "Nuevo"; }))
        << s.screen();
    EXPECT_TRUE(s.waitForSession()) << s.flags();
    ASSERT_TRUE(s.waitFor("NUEVO ·")) << s.screen();
    EXPECT_EQ(s.screen().find("# Trovan"), npos) << "the editor's screen was not redrawn over";
    EXPECT_EQ(value(music / "alfa-1.flac", "GENRE"), "Jazz");

    // Lyrics of the track under the cursor.
    s.keys("Down");
    s.keys("L");
    ASSERT_TRUE(s.waitFor("Tags guardados en 1 pista")) << s.screen();
    EXPECT_EQ(value(music / "alfa-1.flac", "LYRICS"), "Hola\nmundo");

    s.quit();
    ::unsetenv("EDITOR");
}
