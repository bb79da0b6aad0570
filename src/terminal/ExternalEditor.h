// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Lets the user edit a text in their own editor ($VISUAL, else $EDITOR, else nano, else
// vi): the text goes to a temporary file, the terminal is handed over, the editor runs
// through the shell, the terminal is taken back and the file read. Blocks the calling
// (main) thread for the whole session.

#include "terminal/Terminal.h"

#include <cstdint>
#include <optional>
#include <string>

namespace trovan {

class ExternalEditor {
public:
    // Larger edited text is not taken back.
    static constexpr std::uintmax_t maxBytes = 64u << 20;

    // The edited text, or none when it is unchanged or anything failed. The temporary
    // file ("trovan-<UUID>-" + fileName in $TMPDIR) is always removed, and the terminal
    // is always back in the full-screen session when this returns; the caller redraws
    // the whole screen.
    static std::optional<std::string> edit(const std::string& text, const std::string& fileName,
                                           Terminal& terminal);

    // The editor command from the environment.
    static std::string command();
};

} // namespace trovan
