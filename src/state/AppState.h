// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The single value behind every frame: settings in force, focus, the open overlay,
// the library and its rows, viewports, marks, playback, covers, the prompt's text,
// the tag form, lyrics, scan progress and the status message. Only the controller
// writes it; the views read it.

#include "config/Settings.h"
#include "library/LibraryIndex.h"
#include "playback/PlaybackQueue.h"
#include "playback/PlaybackState.h"
#include "state/TagForm.h"
#include "state/TextInput.h"
#include "tags/LyricsSource.h"
#include "terminal/PixelImage.h"
#include "terminal/Style.h"
#include "terminal/TerminalGraphics.h"

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace trovan {

// Pane that receives navigation keys; Tab walks this order.
enum class Focus { artists, library, player };

// `confirm` asks a yes/no question (AppState::question) before something is lost.
enum class PromptKind { command, search, seek, confirm };

// The player's transport buttons, left to right.
enum class PlayerButton { shuffle, previous, playPause, next, repeatMode };
inline constexpr PlayerButton kPlayerButtons[] = {PlayerButton::shuffle, PlayerButton::previous,
                                                  PlayerButton::playPause, PlayerButton::next,
                                                  PlayerButton::repeatMode};

// Modal overlay or prompt that is open.
struct Overlay {
    enum class Kind { prompt, none, help, equalizer, tagForm, roots, queue };
    Kind kind = Kind::none;
    PromptKind promptKind = PromptKind::command; // meaningful only for prompt

    static Overlay prompt(PromptKind k) { return {Kind::prompt, k}; }
    static Overlay none() { return {Kind::none}; }
    static Overlay help() { return {Kind::help}; }
    static Overlay equalizer() { return {Kind::equalizer}; }
    static Overlay tagForm() { return {Kind::tagForm}; }
    static Overlay roots() { return {Kind::roots}; }
    static Overlay queue() { return {Kind::queue}; }

    bool isPrompt(PromptKind k) const { return kind == Kind::prompt && promptKind == k; }
    bool operator==(const Overlay& o) const {
        return kind == o.kind && (kind != Kind::prompt || promptKind == o.promptKind);
    }
};

struct StatusMessage {
    using Clock = std::chrono::system_clock;
    std::string text;
    bool isError = false;
    Clock::time_point expires;

    bool isShown(Clock::time_point now) const { return now < expires; }
    bool operator==(const StatusMessage&) const = default;
};

// A picture rendered to terminal pixels, two pixel rows per text row.
struct CoverArt {
    std::string key;                        // what the picture was taken from
    std::optional<std::vector<RGB>> pixels; // absent: no picture or not decodable
    // The same picture at the cells' pixel size, when the terminal shows images.
    std::shared_ptr<const PixelImage> image{};

    // Key shared by every loader of an album's cover (artist key + folded album title).
    static std::string albumKey(const LibraryIndex::Artist& artist,
                                const LibraryIndex::Album& album);

    bool operator==(const CoverArt&) const = default;
};

struct Lyrics {
    std::string path;
    std::string title;
    std::vector<std::string> lines; // as shown (for timed lyrics, the texts of `timed`)
    LyricsOrigin origin = LyricsOrigin::tag;
    std::optional<Lrc> timed = std::nullopt;

    bool operator==(const Lyrics&) const = default;
};

// Timing mode: the playing track's lines stamped one by one with the playback position.
struct LyricsSync {
    std::string path;
    LyricsOrigin origin = LyricsOrigin::tag;
    std::vector<std::string> lines;
    std::vector<std::optional<std::int64_t>> stamps;       // milliseconds, one per line
    std::vector<std::pair<std::string, std::string>> tags; // metadata kept from the lyrics
    int marked = 0;      // the line the next Space stamps; lines.size() when all are
    bool asking = false; // "save?" is on screen

    bool operator==(const LyricsSync&) const = default;
};

// Cursor and scroll position of one list pane.
struct ListViewport {
    int cursor = 0;
    int offset = 0;

    // Keeps one row of context above the cursor when moving up and puts the cursor on
    // the last visible line when moving down. Nothing for heights below 1.
    void scrollToCursor(int height);
    bool operator==(const ListViewport&) const = default;
};

struct IndexingProgress {
    int done = 0;
    int total = 0;
    bool operator==(const IndexingProgress&) const = default;
};

struct AppState {
    Settings settings;
    Focus focus = Focus::artists;
    Overlay overlay;
    LibraryIndex index;
    std::vector<ArtistRow> artistRows;
    ListViewport artists;
    std::optional<int> shownArtist;
    std::vector<LibraryRow> libraryRows;
    ListViewport library;
    std::set<std::string> marked;
    PlaybackState playback;
    bool muted = false;
    PlayerButton playerButton = PlayerButton::playPause;
    std::optional<CoverArt> cover;
    std::map<std::string, CoverArt> albumCovers;
    TextInput input;
    std::optional<int> searchOrigin;
    bool searchMiss = false;
    std::optional<TagForm> form;
    int eqBand = 0;
    int rootsCursor = 0;
    // The queue view: its selection and scroll, over the playback controller's queue
    // (read in place: it may hold 100,000 entries).
    ListViewport queueView;
    const PlaybackQueue* queue = nullptr;
    // Saved lists, by name, shown under "Listas" in the artist pane.
    std::vector<std::string> playlists;
    // The yes/no question of the confirm prompt.
    std::string question;
    int helpOffset = 0;
    std::optional<Lyrics> lyrics;
    bool lyricsVisible = false;
    int lyricsOffset = 0;
    // Line picked with the arrows in timed lyrics, waiting for Enter to seek there.
    std::optional<int> lyricsCursor;
    std::optional<LyricsSync> lyricsSync;
    std::optional<IndexingProgress> indexing;
    std::optional<IndexingProgress> analyzing; // :analyze, tracks measured of those chosen
    std::optional<StatusMessage> status;
    // How covers are drawn: as images (and at what cell size) or as half blocks.
    GraphicsChoice graphics;

    explicit AppState(Settings s) : settings(std::move(s)) {}
};

} // namespace trovan
