#pragma once
// A small, varied library and ready-made states for the view tests.

#include "state/AppState.h"
#include "ui/Layout.h"

#include <chrono>
#include <string>

namespace trovan::testing {

inline const StatusMessage::Clock::time_point kNow =
    StatusMessage::Clock::time_point{} + std::chrono::hours(24 * 365 * 50);

Track makeTrack(std::string path, std::string title, std::string artist, std::string album,
                int year, int number, int disc, int seconds, std::string codec,
                std::string albumArtist = {});

// Artists across several letters, a "#" group with a digit and a CJK name, albums
// with two discs, an undated album and mixed codecs.
LibraryIndex sampleIndex();

// The sample library loaded, the artist `artistName` shown in the library pane with
// rows shaped for `layout`.
AppState libraryState(const Layout& layout, const std::string& artistName = "Air");

// Row index of the first track row whose title is `title`.
int rowOfTitle(const AppState& state, const std::string& title);
int artistRowOf(const AppState& state, const std::string& name);

} // namespace trovan::testing
