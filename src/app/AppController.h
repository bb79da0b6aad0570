// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Turns input into changes of the application state and into calls on the library,
// playback and equalizer, and asks the main loop for frames. Everything here runs on
// the main thread; slow work goes to the worker pool and its results come back through
// the loop's post. The implementation is split by concern: input routing
// (ControllerInput.cpp), navigation and selection (ControllerNavigation.cpp), library
// flows (ControllerLibrary.cpp), playback and settings (ControllerPlayback.cpp), the
// equalizer (ControllerEqualizer.cpp), covers (ControllerCovers.cpp), lyrics
// (ControllerLyrics.cpp), tag editing
// (ControllerEditing.cpp) and the desktop's media controls (ControllerNowPlaying.cpp).

#include "config/LifeToken.h"
#include "config/SettingsStore.h"
#include "library/FolderChanges.h"
#include "library/LibraryIndex.h"
#include "library/Playlist.h"
#include "media/TagLibFile.h"
#include "playback/AudioOutput.h"
#include "state/Action.h"
#include "state/AppState.h"
#include "terminal/Key.h"
#include "terminal/MouseEvent.h"
#include "terminal/Size.h"
#include "terminal/Terminal.h"
#include "ui/Layout.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace trovan {

class FolderWatcher;
class LibraryStore;
class LoopSource;
class NowPlayingBridge;
class PlaybackController;
class TagEditor;
struct TagWriteResult;
struct RemoteCommand;
class WorkerPool;

class AppController {
public:
    using Task = std::function<void()>;
    using Clock = StatusMessage::Clock;

    // What the controller needs from the main loop; tests supply their own.
    struct Host {
        // Runs a task on the main thread later; callable from any thread.
        std::function<void(Task)> post;
        // Runs a task on the main thread after a delay (called on the main thread).
        std::function<void(std::chrono::milliseconds, Task)> postDelayed;
        // Wall-clock time, for status expiry and double clicks.
        std::function<Clock::time_point()> now = [] { return Clock::now(); };
        // Ends the process; must not return.
        std::function<void(int)> exit;
        // Where the audio goes (the sound server, or a silent real-time output).
        OutputFactory outputs = systemOutputFactory();
    };

    AppController(Terminal& terminal, Size size, SettingsStore settingsStore,
                  std::shared_ptr<LibraryStore> store, WorkerPool& pool, Host host);
    ~AppController();
    AppController(const AppController&) = delete;
    AppController& operator=(const AppController&) = delete;

    // Installed by the main loop.
    std::function<void()> needsRender;        // schedule a frame (coalesced)
    std::function<void()> screenInvalidated;  // the next frame must be drawn in full
    std::function<void(bool)> playingChanged; // playback started or stopped
    // Watch the session bus connection from the main loop.
    std::function<void(LoopSource&)> serveBus;
    // Watch the music folders' change notifications from the main loop (none: stop).
    std::function<void(LoopSource*)> serveWatch;

    const AppState& state() const { return state_; }
    const Layout& layout() const { return layout_; }
    Size size() const { return layout_.size; }
    // Playback position in seconds, for the progress bar.
    double elapsed() const;
    PlaybackController& playback() { return *playback_; }
    Clock::time_point now() const { return host_.now(); }

    // --- Input (ControllerInput.cpp)
    void handleKey(const Key& key);
    void handleMouse(const MouseEvent& event);
    // Pasted text goes to the open prompt or form field; elsewhere it is dropped.
    void handlePaste(const std::string& text);
    void dispatch(const Action& action);
    // A new terminal size: the layout is rebuilt and the viewports kept valid.
    void resize(Size size);
    // Saves the settings, pauses, restores the terminal and ends the process (status 0).
    [[noreturn]] void quit();
    // Shows a transient message in the header for four seconds.
    void report(const std::string& text, bool error = false);

    // --- Navigation and selection (ControllerNavigation.cpp)
    void moveCursor(int n);
    void cycleFocus(int d);
    void selectArtistRow(int row);
    void selectLibraryRow(int row);
    void showCursorArtist();
    void jumpToArtist(const std::string& prefix);
    void toggleMark();
    void clearSelection();
    void extendSelection(int n);
    // Paths of the track rows among `rows`, in order.
    static std::vector<std::string> trackPaths(const LibraryIndex& index,
                                               const std::vector<LibraryRow>& rows);
    // Paths of the shown album `album`'s track rows, in order.
    std::vector<std::string> albumPaths(int album) const;
    std::vector<std::string> targetPathsUnderCursor() const;
    // Marked tracks in list order, else the tracks under the cursor, else the playing one.
    std::vector<std::string> targetPaths() const;

    // --- Library flows (ControllerLibrary.cpp)
    void start(const std::vector<std::string>& addingRoots);
    void addRoot(const std::string& path, bool reindexing);
    void removeRoot(const std::string& path);
    void reindex(bool force);
    // Loads the store into a new index off the main thread, installs it, then runs `then`.
    void reloadLibrary(Task then = {});
    void setLibrary(LibraryIndex index);
    void rebuildArtistRows(const std::optional<std::string>& keepingKey);
    void rebuildLibraryRows();
    bool isScanning() const { return scanning_; }
    // "on", "off", or "" to tell how each folder is followed.
    void setWatching(const std::string& mode);
    // Changes seen on disk are due (called from the main loop's watch source).
    void folderChangesDue();
    // "~/x/../y/" becomes "/home/me/y".
    static std::string normalizeRoot(const std::string& path);

    // --- Playback and settings (ControllerPlayback.cpp)
    void setVolume(float volume);
    void toggleMute();
    void toggleShuffle();
    void cycleRepeat();
    void setRepeatMode(RepeatMode mode);
    void seekTo(double seconds);
    void press(PlayerButton button);
    void movePlayerButton(int d);
    void activate();
    void seekFromMouse(int x, int y);
    void saveSettings();
    // ReplayGain mode ("off", "track", "album", "auto"), preamp and crossfade, each saved.
    void setReplayGainMode(const std::string& mode);
    void setPreamp(double db);
    void setCrossfade(double seconds);

    // --- Equalizer (ControllerEqualizer.cpp)
    void handleEqualizerKey(const Key& key);
    void applyPreset(const EQPreset& preset);
    void adjustBand(float delta);
    void savePreset(const std::string& name);
    void choosePreset(const std::string& name);
    void setEqualizerEnabled(bool on);

    // --- Covers (ControllerCovers.cpp)
    void loadCover(const Track& track, bool force);
    void loadAlbumCovers();
    // How covers are drawn changed (image protocol, cell size): they are made again.
    void setGraphics(const GraphicsChoice& graphics);

    // --- Lyrics (ControllerLyrics.cpp)
    void toggleLyrics();
    void loadLyrics();
    // Timing mode on the playing track's lyrics.
    void startSync();
    // Writes lyrics text where they came from: the LYRICS tag through the checked write,
    // or the sidecar file in one step; then shows them again.
    void writeLyrics(const std::string& path, LyricsOrigin origin, const std::string& text,
                     const std::string& success);

    // --- Loudness analysis (ControllerLoudness.cpp)
    // Measures the selection on the pool and writes its ReplayGain tags; Esc cancels.
    void analyzeLoudness();
    void cancelAnalysis();
    bool analyzing() const { return loudness_ != nullptr; }

    // --- Tag editing (ControllerEditing.cpp)
    void openTagForm();
    // Reads the tags of what the keys act on, off the main thread, and hands them to
    // `then` on it; says so when nothing is selected.
    using TargetTags =
        std::function<void(std::vector<std::string> paths,
                           std::vector<std::map<std::string, std::vector<std::string>>> tags)>;
    void readTargetTags(TargetTags then);
    void handleFormKey(const Key& key);
    void saveForm();
    void editAllTags();
    void editLyrics();
    void setCover(const std::string& image);
    void removeCover();
    void writeTags(const TagPatch& patch, std::vector<std::string> paths);
    void writePicture(std::optional<Picture> picture, const std::string& message,
                      std::vector<std::string> paths);
    void finishWrite(const TagWriteResult& result, const std::string& success);
    // Settles what an earlier run's interrupted writes left (at start-up, in the
    // background).
    void recoverWrites();

    // --- Queue and play lists (ControllerQueue.cpp)
    // Adds the marked tracks, else those under the cursor, at the end of the queue or
    // right after the playing track.
    void enqueueSelection(bool next);
    void openQueue();
    void handleQueueKey(const Key& key);
    void handleQueueMouse(const MouseEvent& event);
    // `confirmed`: the user already agreed to replace an existing file.
    void savePlaylist(const std::string& name, bool confirmed = false);
    void loadPlaylist(const std::string& nameOrPath);
    void exportPlaylist(const std::string& path, bool confirmed = false);
    void deletePlaylist(const std::string& name);
    // The saved lists, read again from their folder; the artist pane lists them.
    void refreshPlaylists();
    std::filesystem::path playlistFolder() const;
    std::filesystem::path queueFile() const;
    // The queue as it is now (and the position in its track), written off the main
    // thread after a quiet second, or now and on this thread when `now`.
    void saveQueue(bool now);
    // Brings back the queue of the last run, paused, in the background.
    void restoreQueue();

    // --- Desktop media controls (ControllerNowPlaying.cpp)
    // Publishes the player on the session bus, in the background; called once the first
    // frame is out.
    void connectNowPlaying();
    NowPlayingBridge& nowPlaying() { return *nowPlaying_; }
    void handleRemote(const RemoteCommand& command);

private:
    using WriteJob = std::function<TagWriteResult(TagEditor&, const std::vector<std::string>&)>;
    void startWrite(std::vector<std::string> paths, std::string success, bool picture,
                    WriteJob job);
    // Runs the user's editor on `text`; the screen is redrawn in full afterwards.
    std::optional<std::string> runEditor(const std::string& text, const std::string& name);

    void createNowPlaying();
    void publishSettings();

    void requestRender() {
        if (needsRender) needsRender();
    }
    // Runs `task` on the main thread unless the controller is gone by then.
    void postBack(Task task);
    Task guarded(Task task);

    void handlePromptKey(const Key& key, PromptKind kind);
    void handleHelpKey(const Key& key);
    void handleRootsKey(const Key& key);
    void handleConfirmKey(const Key& key);
    // Asks a yes/no question on the prompt line; `yes` runs on s.
    void confirm(std::string question, Task yes);
    void queueChanged();
    void scrollQueueToCursor();
    std::vector<PlaylistEntry> queueEntries() const;
    void openPrompt(PromptKind kind, std::string text = {});
    void scrollLyrics(int n);
    // Keys of the timed lyrics view (+, -, w, Enter on a picked line, Esc); false when
    // the key means something else here.
    bool handleLyricsKey(const Key& key);
    bool handleSyncKey(const Key& key);
    void saveSync();
    // A click on list row `row` of the lyrics pane.
    void clickLyrics(int row);

    int listHeight(Focus pane) const;
    void snapLibraryCursor();
    void playbackChanged();
    void applyEqualizer();
    void runScan(bool force);
    // The scan is over (done or failed): run the one requested meanwhile, if any.
    void scanEnded();
    // Following the folders' changes: the watcher, the incremental updates it asks for
    // (one at a time, never beside a scan) and the timer of the folders that are polled.
    void startWatcher();
    void stopWatcher();
    void runUpdate(FolderChanges changes);
    void updateEnded();
    // The watches were set up again: tell about folders that are polled, and poll.
    void watchesSet();
    void armPolling();
    std::string watchSummary() const;

    Terminal& terminal_;
    SettingsStore settingsStore_;
    std::shared_ptr<LibraryStore> store_;
    WorkerPool& pool_;
    Host host_;
    AppState state_;
    Layout layout_;
    std::unique_ptr<PlaybackController> playback_;
    std::unique_ptr<NowPlayingBridge> nowPlaying_;
    std::shared_ptr<TagEditor> tagEditor_;
    int writesInFlight_ = 0;
    struct LoudnessRun;
    std::shared_ptr<LoudnessRun> loudness_;
    void measureNext(const std::shared_ptr<LoudnessRun>& run);
    void finishAnalysis(const std::shared_ptr<LoudnessRun>& run);

    bool scanning_ = false;
    std::optional<bool> pendingReindex_;
    std::shared_ptr<FolderWatcher> watcher_;
    std::unique_ptr<LoopSource> watchSource_;
    bool updating_ = false;
    FolderChanges pendingChanges_;
    int pollGeneration_ = 0;
    std::set<std::string> pollingTold_; // folders the user heard are polled
    // Errors about the folders given on the command line, shown again with the first
    // scan's summary so that it does not hide them.
    std::string startupErrors_;
    bool lastReportedPlaying_ = false;
    std::string coverPath_; // track whose picture is (being) loaded
    std::shared_ptr<std::atomic<int>> albumCoverGeneration_ = std::make_shared<std::atomic<int>>(0);
    std::set<std::string> albumCoversLoading_;
    int lyricsGeneration_ = 0;
    bool lyricsFollowPlayback_ = false; // the lyrics shown are the playing track's
    bool lyricsOfPlaying_ = false;      // reload the playing track's, not the cursor's
    struct Click {
        int x = 0;
        int y = 0;
        Clock::time_point time;
    };
    std::optional<Click> lastClick_;
    bool isDoubleClick(int x, int y);
    Task confirmed_; // what the confirm prompt's "s" does
    int queueSaveGeneration_ = 0;
    bool queueFileFrozen_ = false; // from a newer version: left as it is
    bool queueRestoring_ = false;  // the last run's queue is being read: nothing is written
    // Serialises the queue file's writes from the pool and from quit.
    struct QueueWrites;
    std::shared_ptr<QueueWrites> queueWrites_;
    int reloads_ = 0; // library reads asked for
    LifeToken alive_;
};

} // namespace trovan
