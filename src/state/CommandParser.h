// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Turns the text typed on the ":" line into an Action, or into the Spanish error the
// user sees in the status line.

#include "state/Action.h"

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace trovan {

struct CommandError {
    enum class Kind { unknownCommand, missingArgument, invalidValue };
    Kind kind;
    std::string what;

    static CommandError unknownCommand(std::string word) {
        return {Kind::unknownCommand, std::move(word)};
    }
    static CommandError missingArgument(std::string what) {
        return {Kind::missingArgument, std::move(what)};
    }
    static CommandError invalidValue(std::string what) {
        return {Kind::invalidValue, std::move(what)};
    }

    std::string message() const;
    bool operator==(const CommandError&) const = default;
};

// Either the action to carry out or the reason the command was refused.
using CommandResult = std::variant<Action, CommandError>;

class CommandParser {
public:
    static CommandResult parse(std::string_view text);
    // Seconds from "90", "1:42", "1:02:03" or "0:30.5"; absent when not a time.
    static std::optional<double> parseTime(std::string_view text);
    // Removes one pair of matching surrounding quotes (" or ').
    static std::string unquote(std::string_view text);
    static CommandResult parseEqualizer(std::string_view argument);
    // A whole-string decimal number ("50.5", "+3", "1e2"); absent otherwise.
    static std::optional<double> parseNumber(std::string_view text);
};

} // namespace trovan
