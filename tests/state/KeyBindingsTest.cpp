// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/KeyBindings.h"
#include "text/Text.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace trovan;
using K = Key::Kind;
using A = Action::Kind;

TEST(KeyBindings, EveryKeyOfTheTableLeadsToItsAction) {
    int keys = 0;
    for (const auto& section : KeyBindings::all())
        for (const auto& b : section.bindings)
            for (const auto& key : b.keys) {
                ++keys;
                if (b.action.kind != A::seekFraction) {
                    EXPECT_EQ(KeyBindings::lookup(key), b.action) << KeyBindings::label(key);
                }
            }
    EXPECT_EQ(KeyBindings::table().size(), static_cast<std::size_t>(keys)); // none bound twice
    for (int d = 0; d <= 9; ++d)
        EXPECT_EQ(KeyBindings::lookup(Key::character(std::to_string(d))),
                  Action::seekFraction(d / 10.0));
    // The rows themselves say what they mean.
    const std::pair<Key, Action> pairs[] = {{Key::character("k"), Action::move(-1)},
                                            {Key::character(" "), A::togglePlay},
                                            {Key::ctrl('c'), A::quit},
                                            {Key::character("L"), A::editLyrics},
                                            {Key::character("+"), Action::volumeBy(0.05f)},
                                            {Key(K::backTab), A::focusPrevious}};
    for (const auto& [key, act] : pairs)
        EXPECT_EQ(KeyBindings::lookup(key), act) << KeyBindings::label(key);
    for (const Key& absent : {Key::character("z"), Key(K::delete_), Key::function(1),
                              Key::ctrl('a'), Key(K::backspace)})
        EXPECT_FALSE(KeyBindings::lookup(absent)) << KeyBindings::label(absent);
}

// The manual page lists the keys and commands as the help overlay does, row by row: its
// KEYS part has one subsection per help section and one tagged paragraph per binding,
// and its COMMANDS part one per command.
TEST(KeyBindings, ManualPageListsWhatTheHelpLists) {
    std::ifstream page(TROVAN_SOURCE_DIR "/doc/trovan.1");
    ASSERT_TRUE(page) << "doc/trovan.1 is missing";
    auto plain = [](std::string s) {
        if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
        for (std::size_t p; (p = s.find("\\-")) != std::string::npos;)
            s.erase(p, 1); // "\\-" is a dash
        return s;
    };
    std::vector<HelpLine> listed;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind(".SH ", 0) == 0) {
            inside = line == ".SH TECLAS" || line == ".SH COMANDOS";
            if (line == ".SH COMANDOS") {
                listed.push_back({});
                listed.push_back({HelpLine::Kind::header, "COMANDOS", {}});
            }
        } else if (inside && line.rfind(".SS ", 0) == 0) {
            if (!listed.empty()) listed.push_back({});
            listed.push_back({HelpLine::Kind::header, text::upper(line.substr(4)), {}});
        } else if (inside && line == ".TP") {
            std::string label, description;
            std::getline(page, label);
            std::getline(page, description);
            ASSERT_EQ(label.rfind(".B ", 0), 0u) << label;
            listed.push_back({HelpLine::Kind::entry, plain(label.substr(3)), plain(description)});
        }
    }
    ASSERT_EQ(listed.size(), KeyBindings::helpLines().size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
        const HelpLine& help = KeyBindings::helpLines()[i];
        EXPECT_EQ(listed[i], help)
            << "help line " << i << ": " << help.label << " | " << help.description
            << "\nmanual: " << listed[i].label << " | " << listed[i].description;
    }
}
