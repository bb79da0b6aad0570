// SPDX-License-Identifier: GPL-3.0-or-later
// The editor run without a terminal session: shell commands stand in for editors.

#include "terminal/ExternalEditor.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using namespace trovan;
namespace fs = std::filesystem;

namespace {

// Sets VISUAL and EDITOR for one test (an empty string unsets).
struct EditorEnv {
    EditorEnv(const char* visual, const char* editor) {
        set("VISUAL", visual);
        set("EDITOR", editor);
    }
    ~EditorEnv() {
        ::unsetenv("VISUAL");
        ::unsetenv("EDITOR");
    }
    static void set(const char* name, const char* value) {
        if (value)
            ::setenv(name, value, 1);
        else
            ::unsetenv(name);
    }
};

// Working files named after `name` left in the temporary folder. Each test uses names of
// its own: ctest runs the tests of this file side by side in one temporary folder.
int leftovers(const std::string& name) {
    const char* tmp = std::getenv("TMPDIR");
    int n = 0;
    for (const auto& e : fs::directory_iterator(tmp && *tmp ? tmp : "/tmp"))
        n += e.path().filename().string().find(name) != std::string::npos;
    return n;
}

} // namespace

TEST(ExternalEditor, EditorChoiceAndWhatComesBack) {
    {
        EditorEnv env("", "vi -n");
        EXPECT_EQ(ExternalEditor::command(), "vi -n");
    }
    {
        EditorEnv env(nullptr, nullptr);
        EXPECT_TRUE(ExternalEditor::command() == "nano" || ExternalEditor::command() == "vi");
    }
    Terminal inactive;
    // The path reaches the command as one word whatever it holds; the command is split.
    EditorEnv env("printf 'nuevo\\n' >", nullptr);
    EXPECT_EQ(ExternalEditor::edit("viejo", "a b'c\"-trovan-editor-choice.txt", inactive),
              "nuevo\n");
    EditorEnv::set("VISUAL", "true");
    EXPECT_EQ(ExternalEditor::edit("igual", "x-trovan-editor-choice.txt", inactive), std::nullopt);
    EditorEnv::set("VISUAL", ": >");
    EXPECT_EQ(ExternalEditor::edit("todo", "x-trovan-editor-choice.txt", inactive), "");
    EditorEnv::set("VISUAL", "no-existe-este-editor");
    EXPECT_EQ(ExternalEditor::edit("texto", "x-trovan-editor-choice.txt", inactive), std::nullopt);
    EXPECT_FALSE(inactive.isActive);
    EXPECT_EQ(leftovers("-trovan-editor-choice.txt"), 0);
}

// Ctrl-C typed into the editor reaches us too and must not end the program; an editor
// stopped by Ctrl-Z stops us with it (so the shell gets the terminal) until both go on.
TEST(ExternalEditor, SignalsMeantForTheEditor) {
    Terminal inactive;
    EditorEnv env(
        "p=$PPID; me=$$; "
        "(i=0; until [ \"$(sed 's/.*) //' /proc/$p/stat | cut -c1)\" = T ]; do "
        "  i=$((i+1)); if [ $i -gt 200 ]; then : > \"$1.colgado\"; kill -CONT $me; exit; fi; "
        "  sleep 0.02; done; kill -CONT $p) & "
        "kill -INT $p; kill -STOP $me; "
        "if [ -e \"$1.colgado\" ]; then rm \"$1.colgado\"; echo colgado; else echo nuevo; fi > "
        "\"$1\"; "
        ": ",
        nullptr);
    EXPECT_EQ(ExternalEditor::edit("viejo", "x-trovan-editor-signals.txt", inactive), "nuevo\n");
    EXPECT_EQ(leftovers("-trovan-editor-signals.txt"), 0);
}
