// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The one fixed key map. The same table, grouped in sections with a Spanish line per
// binding, is what the help overlay prints, so help and behaviour cannot drift apart.

#include "state/Action.h"
#include "terminal/Key.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace trovan {

struct KeyBinding {
    std::vector<Key> keys; // the first is the main one
    Action action;
    std::string help;
};

struct KeySection {
    std::string title;
    std::vector<KeyBinding> bindings;
};

// One line of the help overlay.
struct HelpLine {
    enum class Kind { blank, header, entry };
    Kind kind = Kind::blank;
    std::string label;       // header text, or the key label of an entry
    std::string description; // entries only

    bool operator==(const HelpLine&) const = default;
};

class KeyBindings {
public:
    // Sections in help order, built once.
    static const std::vector<KeySection>& all();
    // Key → action, built once from all(); the digits seek to tenths of the track.
    static const std::unordered_map<Key, Action>& table();
    static std::optional<Action> lookup(const Key& key);

    // How the help names a key ("Espacio", "Ctrl+C", "F8", "↑", …).
    static std::string label(const Key& key);
    // The keys of one binding: up to three labels joined by spaces, otherwise the
    // first and the last joined by an en dash ("0–9").
    static std::string label(const KeyBinding& binding);

    // Every line of the help overlay: the sections, then the ":" commands.
    static const std::vector<HelpLine>& helpLines();
};

} // namespace trovan
