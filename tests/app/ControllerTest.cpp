// SPDX-License-Identifier: GPL-3.0-or-later
// The controller without a terminal: a private data folder and store, a real worker
// pool, a main queue the test drains by hand, a clock the test moves, and audio outputs
// on a virtual clock.

#include "app/AppController.h"
#include "app/WorkerPool.h"
#include "config/SettingsStore.h"
#include "library/LibraryStore.h"
#include "library/QueueFile.h"
#include "playback/NullOutput.h"
#include "playback/PlaybackController.h"
#include "support/Fixtures.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <deque>
#include <fstream>
#include <mutex>
#include <thread>

using namespace trovan;
namespace fs = std::filesystem;
using fixtures::slurp;

namespace {

class ControllerHarness {
public:
    using Task = AppController::Task;
    using Clock = AppController::Clock;

    ControllerHarness() : store_(std::make_shared<LibraryStore>(home / "library.sqlite")) {
        // E and L run the user's editor: here one that leaves the text as it is.
        ::setenv("VISUAL", "true", 1);
        AppController::Host host;
        host.post = [this](Task task) {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        };
        host.postDelayed = [](std::chrono::milliseconds, Task) {}; // redraws only
        host.now = [this] { return clock; };
        host.exit = [](int status) { throw status; };
        host.outputs = [](const OutputFormat& format, AudioRenderer& renderer,
                          OutputEvents) -> std::unique_ptr<AudioOutput> {
            return std::make_unique<NullOutput>(format, renderer, NullOutput::Clock::virtualClock);
        };
        controller = std::make_unique<AppController>(terminal, Size{100, 40},
                                                     SettingsStore(home / "config.json"), store_,
                                                     pool, std::move(host));
    }

    ~ControllerHarness() {
        pool.waitIdle();
        controller.reset();
    }

    AppController& c() { return *controller; }
    const AppState& state() const { return controller->state(); }
    LibraryStore& store() { return *store_; }
    Settings savedSettings() const { return SettingsStore(home / "config.json").load(); }

    // Runs main-queue tasks and waits for the pool until neither has anything left.
    void settle() {
        for (int rounds = 0; rounds < 10000; ++rounds) {
            pool.waitIdle();
            std::deque<Task> batch;
            {
                std::lock_guard lock(mutex_);
                batch.swap(tasks_);
            }
            if (batch.empty()) return;
            for (auto& task : batch) {
                task();
                noteStatus();
            }
        }
    }

    // Settles until the chosen track plays: it opens on the decoder thread, which
    // settle() does not wait for.
    bool settleUntilPlaying() {
        for (int i = 0; i < 2000; ++i) {
            settle();
            if (controller->state().playback.isPlaying) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    // Records the status message if it is a new one.
    void noteStatus() {
        const auto& s = controller->state().status;
        if (s && (reports.empty() || !(reports.back() == *s))) reports.push_back(*s);
    }

    void press(std::initializer_list<Key> ks) {
        for (const Key& k : ks) {
            controller->handleKey(k);
            noteStatus();
        }
    }
    void key(const Key& k) { press({k}); }
    void keys(const std::string& chars) {
        for (char ch : chars)
            key(Key::character(std::string(1, ch)));
    }
    void type(const std::string& command) { // ":vol 50" + Enter
        keys(command);
        key(Key(Key::Kind::enter));
    }

    fixtures::TempDir home{"trovan-controller"};
    Terminal terminal;
    WorkerPool pool{2};
    Clock::time_point clock = Clock::time_point(std::chrono::hours(24 * 365 * 50));
    std::vector<StatusMessage> reports; // every status message shown, in order
    std::unique_ptr<AppController> controller;

private:
    std::shared_ptr<LibraryStore> store_;
    std::mutex mutex_;
    std::deque<Task> tasks_;
};

// A track record for a file that need not exist.
Track fakeTrack(const std::string& artist, const std::string& album, int number,
                const std::string& title, int disc = 1, int year = 2000) {
    Track t;
    t.path = "/music/" + artist + "/" + album + "/" + std::to_string(disc) + "-" +
             std::to_string(number) + " " + title + ".flac";
    std::tie(t.artist, t.album, t.title) = std::tie(artist, album, title);
    std::tie(t.trackNumber, t.discNumber, t.year) = std::tuple(number, disc, year);
    return t;
}

// Puts these tracks in the store and shows them.
void load(ControllerHarness& h, const std::vector<Track>& tracks) {
    h.store().apply(tracks, {});
    h.c().reloadLibrary();
    h.settle();
}

std::string artistUnderCursor(const ControllerHarness& h) {
    const auto& s = h.state();
    const auto* a =
        s.artistRows.at(static_cast<std::size_t>(s.artists.cursor)).get<ArtistRow::Artist>();
    return a ? std::string(s.index.artists[static_cast<std::size_t>(a->artist)].name) : "<letter>";
}

// The title under the library cursor, or what kind of row it is.
std::string libraryRowName(const ControllerHarness& h) {
    const auto& row = h.state().libraryRows.at(static_cast<std::size_t>(h.state().library.cursor));
    if (const auto* t = row.get<LibraryRow::Track>())
        return std::string(h.state().index.table().title(t->id));
    return row.is<LibraryRow::Album>() ? "<album>" : "<other>";
}

using K = Key::Kind;
const Key kDown(K::down), kEnter(K::enter), kEsc(K::escape), kTab(K::tab), kRight(K::right),
    kHome(K::home), kEnd(K::end), kShiftUp(K::shiftUp), kBackspace(K::backspace);

Key ch(const char* c) {
    return Key::character(c);
}

// Artist rows: A, Abba, Air, B, Beck, Blur, C, Cher. Blur has a two-disc album, then a
// one-track album.
void loadSmallLibrary(ControllerHarness& h) {
    load(h, {fakeTrack("Abba", "Gold", 1, "Uno"), fakeTrack("Air", "Moon", 1, "Dos"),
             fakeTrack("Beck", "Odelay", 1, "Tres"),
             fakeTrack("Blur", "Parklife", 1, "Girls", 1, 1994),
             fakeTrack("Blur", "Parklife", 2, "Tracy", 1, 1994),
             fakeTrack("Blur", "Parklife", 1, "Bank", 2, 1994),
             fakeTrack("Blur", "Think", 1, "Ambulance", 1, 2003),
             fakeTrack("Cher", "Believe", 1, "Believe")});
}

} // namespace

// What the editing keys act on: the marks in list order, else what is under the cursor.
TEST(ControllerSelection, MarksTargetsAndReloads) {
    ControllerHarness h;
    loadSmallLibrary(h);
    h.c().jumpToArtist("blur");
    const auto all = AppController::trackPaths(h.state().index, h.state().libraryRows);
    ASSERT_EQ(all.size(), 4u);
    const auto& marked = h.state().marked;
    EXPECT_EQ(h.c().targetPaths(), all); // the artist pane: the shown artist's every track

    // x on an album marks its tracks; again unmarks them; on a partly marked one, the rest.
    h.press({kEnter, ch("x")});
    EXPECT_EQ(marked.size(), 3u);
    h.key(ch("x"));
    EXPECT_TRUE(marked.empty());
    h.press({kDown, ch("x"), kHome, ch("x")});
    EXPECT_EQ(marked.size(), 3u);
    h.press({kEnd, ch("x")});
    EXPECT_EQ(h.c().targetPaths(), all);
    h.key(kEsc);
    EXPECT_TRUE(marked.empty());

    // Shift+↑ paints a range (album rows, spacers and discs add nothing), never unmarks.
    h.key(kShiftUp); // Ambulance, onto the album Think
    EXPECT_EQ(marked, (std::set<std::string>{all[3]}));
    h.press({kShiftUp, kShiftUp, Key(K::shiftDown)}); // onto Bank, Tracy, back to Bank
    EXPECT_EQ(marked, (std::set<std::string>{all[1], all[2], all[3]}));

    // Marked paths that are not shown go last.
    h.c().jumpToArtist("abba");
    h.press({kHome, ch("x")});
    auto targets = h.c().targetPaths();
    ASSERT_EQ(targets.size(), 4u);
    EXPECT_NE(targets[0].find("Abba"), std::string::npos);
    EXPECT_EQ(std::vector<std::string>(targets.begin() + 1, targets.end()),
              std::vector<std::string>(all.begin() + 1, all.end()));

    // A reload with an artist and a track above the cursor, and a marked track gone: the
    // cursor stays on its artist and track, and only live marks are kept.
    h.key(kDown);
    h.store().apply({fakeTrack("Aaron", "X", 1, "Y"), fakeTrack("Abba", "Gold", 0, "Intro")},
                    {all[1]});
    h.c().reloadLibrary();
    h.settle();
    EXPECT_EQ(artistUnderCursor(h), "Abba");
    EXPECT_EQ(libraryRowName(h), "Uno");
    EXPECT_EQ(marked.size(), 3u);
    EXPECT_FALSE(marked.count(all[1]));
    h.key(kEsc);
    EXPECT_EQ(h.c().targetPaths().size(), 1u); // the track under the cursor
    h.key(kTab);
    EXPECT_TRUE(h.c().targetPaths().empty()); // player pane, nothing playing
}

// Folders are stored normalised; each kind of bad request is refused with its reason.
TEST(ControllerLibrary, FoldersAreNormalisedAndCheckedBeforeTheyAreStored) {
    ControllerHarness h;
    const std::string m = h.home.subdir("music").string();
    std::ofstream(m + "/song.mp3") << "x";
    h.c().addRoot(m + "/../music/", false);
    EXPECT_EQ(h.savedSettings().roots, std::vector<std::string>{m});
    // Each request, and the message it gets ("!" for an error).
    const std::pair<std::string, std::string> requests[] = {
        {m + "/./", "La carpeta ya estaba agregada"},
        {m + "/song.mp3", "!No es una carpeta: " + m + "/song.mp3"},
        {m + "/nope", "!No existe la carpeta: " + m + "/nope"},
        {"-" + m + "/other", "!No está en la lista: " + m + "/other"},
        {"-" + m + "/", "Carpeta quitada: " + m}};
    for (const auto& [path, message] : requests) {
        if (path[0] == '-')
            h.c().removeRoot(path.substr(1));
        else
            h.c().addRoot(path, false);
        EXPECT_EQ(h.state().status->isError, message[0] == '!') << path;
        EXPECT_EQ(h.state().status->text, message.substr(message[0] == '!')) << path;
    }
    EXPECT_TRUE(h.savedSettings().roots.empty());
    h.settle();
}

// Two albums by one artist, one of them with a cover.
TEST(ControllerLibrary, ScanRequestsCollapseCoversAreDecodedAndFailuresAreReported) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    ControllerHarness h;
    const fs::path music = h.home.subdir("music");
    fixtures::Tone tone;
    tone.seconds = 0.5;
    tone.tags = {{"ARTIST", {"Pintor"}}, {"ALBUM", {"Rojo"}}, {"TITLE", {"Uno"}}};
    tone.covers = {fixtures::Cover{}};
    fixtures::copyTo(fixtures::cached("ctl-cover.flac", tone), music, "uno.flac");
    tone.tags = {{"ARTIST", {"Pintor"}}, {"ALBUM", {"Sin tapa"}}, {"TITLE", {"Dos"}}};
    tone.covers = {};
    fixtures::copyTo(fixtures::cached("ctl-nocover.flac", tone), music, "dos.flac");

    // Start-up: the scan is under way from the first frame.
    h.c().start({music.string()});
    ASSERT_TRUE(h.state().indexing);
    h.settle();

    // A rescan, and three more requests, one forced, while it runs (the main queue
    // does not run in between): one more scan follows, and it reads everything.
    for (bool force : {false, false, true, false})
        h.c().reindex(force);
    h.settle();
    EXPECT_FALSE(h.state().indexing);
    EXPECT_FALSE(h.c().isScanning());
    std::vector<std::string> summaries;
    for (const auto& r : h.reports)
        if (r.text.starts_with("Biblioteca al día")) summaries.push_back(r.text);
    ASSERT_EQ(summaries.size(), 3u);
    EXPECT_NE(summaries[2].find(" 2 leídos"), std::string::npos) << summaries[2];

    // The playing track's embedded cover is decoded.
    h.press({kTab, kEnd, kEnter});
    ASSERT_TRUE(h.settleUntilPlaying());
    ASSERT_TRUE(h.state().playback.track);
    ASSERT_TRUE(h.state().cover);
    EXPECT_EQ(h.state().cover->key, h.state().playback.track->path);
    EXPECT_EQ(h.state().cover->pixels.has_value(), h.state().playback.track->title == "Uno");

    // The cache breaks under the running program: the scan says so and the flow comes
    // back to rest instead of ending the program.
    std::ofstream(h.home / "junk", std::ios::binary) << std::string(8192, 'x');
    std::filesystem::rename(h.home / "junk", h.home / "library.sqlite");
    h.c().reindex(true);
    h.settle();
    EXPECT_FALSE(h.c().isScanning());
    ASSERT_FALSE(h.reports.empty());
    EXPECT_TRUE(h.reports.back().isError) << h.reports.back().text;
}

// Five tagged FLAC files of one album, the second one playing (paused), then edited.
TEST(ControllerEditing, CoversAndTheFormKeepThePlayingTrackAndCountTheFileThatFails) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg is not installed";
    ControllerHarness h;
    const fs::path music = h.home.subdir("music");
    std::vector<std::string> paths;
    std::vector<Track> tracks;
    for (int i = 0; i < 5; ++i) {
        fixtures::Tone tone;
        tone.seconds = 2;
        tone.tags = {{"ARTIST", {"Ana"}},
                     {"ALBUM", {"Disco"}},
                     {"TITLE", {std::string("t").append(std::to_string(i))}},
                     {"TRACKNUMBER", {std::to_string(i + 1)}}};
        auto file = fixtures::copyTo(
            fixtures::cached(std::string("controller-edit-").append(std::to_string(i)) + ".flac",
                             tone),
            music);
        paths.push_back(file.string());
        tracks.push_back(*Track::read(file.string()));
    }
    load(h, tracks);
    h.press({kRight, kHome, kDown, kDown, kEnter});
    ASSERT_TRUE(h.settleUntilPlaying());
    ASSERT_TRUE(h.state().playback.track);
    ASSERT_EQ(h.state().playback.track->path, paths[1]);
    h.c().seekTo(0.7);
    h.key(ch(" "));
    h.settle();
    ASSERT_FALSE(h.state().playback.isPlaying);
    h.press({kHome});
    ASSERT_EQ(libraryRowName(h), "<album>");

    // An image larger than 32 MiB is refused before anything is written.
    const fs::path huge = h.home / "enorme.png";
    { std::ofstream(huge) << "x"; }
    fs::resize_file(huge, (std::uintmax_t(32) << 20) + 1);
    const auto stamp = fs::last_write_time(paths[4]);
    h.type(":cover " + huge.string());
    h.settle();
    EXPECT_EQ(h.reports.back().text, "La imagen pesa más de 32 MiB: " + huge.string());
    EXPECT_EQ(fs::last_write_time(paths[4]), stamp);
    // A GIF named as a JPEG is embedded as the GIF it is.
    const fs::path gif = h.home / "tapa.jpg";
    ASSERT_EQ(fixtures::runProcess({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=red:s=8x8",
                                    "-frames:v", "1", "-f", "gif", gif.string()})
                  .status,
              0);
    h.type(":cover " + gif.string());
    h.settle();
    EXPECT_EQ(h.reports.back().text, "Carátula actualizada en 5 pistas");
    auto pictures = fixtures::storedPictures(paths[4]);
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_EQ(pictures[0].mimeType, "image/gif");
    EXPECT_EQ(h.state().playback.track->path, paths[1]);
    EXPECT_NEAR(h.c().elapsed(), 0.7, 0.05);
    EXPECT_FALSE(h.state().playback.isPlaying);
    h.type(":cover remove");
    h.settle();
    EXPECT_EQ(h.reports.back().text, "Carátula eliminada en 5 pistas");
    EXPECT_TRUE(fixtures::storedPictures(paths[4]).empty());

    // The form on the album: unchanged, it writes nothing.
    h.key(ch("e"));
    h.settle();
    ASSERT_TRUE(h.state().form);
    EXPECT_EQ(h.state().form->paths, paths);
    EXPECT_TRUE(h.state().form->fields[0].mixed);
    EXPECT_EQ(h.state().form->fields[3].input.text, "Disco");
    h.key(kEnter);
    EXPECT_EQ(h.state().status->text, "Sin cambios");
    EXPECT_EQ(h.state().overlay, Overlay::none());

    // The third file cannot be written: immutable for root, read-only for anyone else.
    const bool root = ::geteuid() == 0;
    if (root ? fixtures::runProcess({"chattr", "+i", paths[2]}).status != 0
             : (fs::permissions(paths[2], fs::perms::owner_read), false))
        GTEST_SKIP() << "chattr is not available";
    h.key(ch("e"));
    h.settle();
    h.keys("Nuevo");
    h.press({kDown, kDown, kDown});
    for (int i = 0; i < 5; ++i)
        h.key(kBackspace); // the album field emptied: ALBUM goes away
    h.key(Key::ctrl('s'));
    h.settle();
    if (root) fixtures::runProcess({"chattr", "-i", paths[2]});
    EXPECT_EQ(h.reports.back().text,
              "No se pudo escribir 1 archivo(s): " + fs::path(paths[2]).filename().string());
    EXPECT_TRUE(h.reports.back().isError);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const auto stored = h.state().index.find(paths[i]);
        ASSERT_TRUE(stored);
        EXPECT_EQ(stored->title, i == 2 ? "t2" : "Nuevo");
        EXPECT_EQ(Track::read(paths[i])->title, stored->title);
        EXPECT_EQ(stored->album.empty(), i != 2);
    }
}

// Saved lists are never replaced or deleted without a yes and names stay in their
// folder; a damaged kept queue is moved aside, a newer one left alone.
TEST(ControllerQueue, ListsAskFirstAndDamagedOrNewerQueueFilesAreKept) {
    if (!fixtures::available()) GTEST_SKIP() << "ffmpeg missing";
    ControllerHarness h;
    loadSmallLibrary(h);
    auto last = [&] { return h.reports.empty() ? std::string() : h.reports.back().text; };
    h.keys("a"); // Abba's one track
    EXPECT_EQ(last(), "1 canción añadida a la cola");
    h.type(":save Mezcla");
    h.settle();
    const fs::path list = h.home.path() / "listas" / "Mezcla.m3u8";
    ASSERT_TRUE(fs::exists(list)) << last();
    EXPECT_EQ(h.state().playlists, std::vector<std::string>{"Mezcla"});
    EXPECT_TRUE(h.state().artistRows.back().is<ArtistRow::Playlist>());
    std::ofstream(list) << "#EXTM3U\nvieja\n";
    for (const char* answer : {"n", "s"}) {
        h.type(":save Mezcla");
        EXPECT_TRUE(h.state().overlay.isPrompt(PromptKind::confirm));
        h.keys(answer);
        h.settle();
    }
    EXPECT_NE(slurp(list).find("Uno"), std::string::npos); // replaced after the yes only
    EXPECT_EQ(std::count_if(h.reports.begin(), h.reports.end(),
                            [](const auto& r) { return r.text.starts_with("Cancelado"); }),
              1);
    h.type(":delete Mezcla");
    h.key(kEsc); // anything but s keeps it
    EXPECT_TRUE(fs::exists(list));
    h.type(":borrar Mezcla");
    h.keys("s");
    EXPECT_FALSE(fs::exists(list));
    EXPECT_TRUE(h.state().playlists.empty());
    EXPECT_FALSE(h.state().artistRows.back().is<ArtistRow::Playlist>());

    for (const char* bytes : {"{dañado", R"({"version":99,"entries":[]})"}) {
        ControllerHarness other;
        const fs::path otherFile = other.home.path() / QueueFile::kName;
        std::ofstream(otherFile) << bytes;
        other.c().restoreQueue();
        other.settle();
        ASSERT_FALSE(other.reports.empty());
        EXPECT_TRUE(other.reports.back().isError) << other.reports.back().text;
        other.c().saveQueue(true);
        if (bytes[1] == 'd') { // damaged: kept aside, a new one written
            EXPECT_EQ(slurp(fs::path(otherFile) += ".dañada"), bytes);
            EXPECT_EQ(QueueFile::decode(slurp(otherFile)).problem, QueueFile::Problem::none);
        } else { // newer: left as it is
            EXPECT_EQ(slurp(otherFile), bytes);
        }
    }
}
