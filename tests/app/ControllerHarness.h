#pragma once
// A controller without a terminal: a private data folder and store, a real worker pool,
// a main queue the test drains by hand, delayed tasks that wait until the test runs
// them, a clock the test moves, and audio outputs on a virtual clock.

#include "app/AppController.h"
#include "app/WorkerPool.h"
#include "library/LibraryStore.h"
#include "library/SettingsStore.h"
#include "playback/NullOutput.h"
#include "support/TempDir.h"

#include <chrono>
#include <deque>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace trovan::testing {

struct QuitCalled {
    int status;
};

class ControllerHarness {
public:
    using Task = AppController::Task;
    using Clock = AppController::Clock;

    explicit ControllerHarness(Size size = {100, 40})
        : store_(std::make_shared<LibraryStore>(home / "library.sqlite")) {
        AppController::Host host;
        host.post = [this](Task task) {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        };
        host.postDelayed = [this](std::chrono::milliseconds delay, Task task) {
            delayed.push_back({clock + delay, std::move(task)});
        };
        host.now = [this] { return clock; };
        host.exit = [](int status) { throw QuitCalled{status}; };
        host.outputs = [](const OutputFormat& format, AudioRenderer& renderer,
                          OutputEvents) -> std::unique_ptr<AudioOutput> {
            return std::make_unique<NullOutput>(format, renderer, NullOutput::Clock::virtualClock);
        };
        controller = std::make_unique<AppController>(
            terminal, size, SettingsStore(home / "config.json"), store_, pool, std::move(host));
        controller->needsRender = [this] { ++renders; };
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

    // Runs the delayed tasks that are due at the current clock.
    void runDue() {
        std::vector<Delayed> due, later;
        for (auto& d : delayed)
            (d.at <= clock ? due : later).push_back(std::move(d));
        delayed = std::move(later);
        for (auto& d : due)
            d.task();
    }

    // Records the status message if it is a new one.
    void noteStatus() {
        const auto& s = controller->state().status;
        if (s && (reports.empty() || !(reports.back() == *s))) reports.push_back(*s);
    }

    void key(const Key& k) {
        controller->handleKey(k);
        noteStatus();
    }
    void press(std::initializer_list<Key> ks) {
        for (const Key& k : ks)
            key(k);
    }
    void keys(const std::string& chars) {
        for (char ch : chars)
            key(Key::character(std::string(1, ch)));
    }
    void type(const std::string& command) { // ":vol 50" + Enter
        keys(command);
        key(Key(Key::Kind::enter));
    }

    struct Delayed {
        Clock::time_point at;
        Task task;
    };

    fixtures::TempDir home{"trovan-controller"};
    Terminal terminal;
    WorkerPool pool{2};
    Clock::time_point clock = Clock::time_point(std::chrono::hours(24 * 365 * 50));
    std::vector<Delayed> delayed;
    std::vector<StatusMessage> reports; // every status message shown, in order
    int renders = 0;
    std::unique_ptr<AppController> controller;

private:
    std::shared_ptr<LibraryStore> store_;
    std::mutex mutex_;
    std::deque<Task> tasks_;
};

// A track record for a file that need not exist.
inline Track fakeTrack(const std::string& artist, const std::string& album, int number,
                       const std::string& title, int disc = 1, int year = 2000) {
    Track t;
    t.path = "/music/" + artist + "/" + album + "/" + std::to_string(disc) + "-" +
             std::to_string(number) + " " + title + ".flac";
    t.artist = artist;
    t.album = album;
    t.title = title;
    t.trackNumber = number;
    t.discNumber = disc;
    t.year = year;
    return t;
}

// Puts these tracks in the store and shows them.
inline void load(ControllerHarness& h, const std::vector<Track>& tracks) {
    h.store().apply(tracks, {});
    h.c().reloadLibrary();
    h.settle();
}

inline std::string artistUnderCursor(const ControllerHarness& h) {
    const auto& s = h.state();
    const auto* a =
        s.artistRows.at(static_cast<std::size_t>(s.artists.cursor)).get<ArtistRow::Artist>();
    return a ? s.index.artists[static_cast<std::size_t>(a->artist)].name : "<letter>";
}

// The title under the library cursor, or what kind of row it is.
inline std::string libraryRowName(const ControllerHarness& h) {
    const auto& row = h.state().libraryRows.at(static_cast<std::size_t>(h.state().library.cursor));
    if (const auto* t = row.get<LibraryRow::Track>()) return t->track.title;
    return row.is<LibraryRow::Album>() ? "<album>" : "<other>";
}

} // namespace trovan::testing
