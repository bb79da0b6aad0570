// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "app/AppController.h"
#include "app/WorkerPool.h"
#include "terminal/GraphicsProbe.h"
#include "terminal/InputDecoder.h"
#include "terminal/Renderer.h"
#include "terminal/ScreenBuffer.h"
#include "terminal/Terminal.h"
#include "ui/Screen.h"

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

namespace asio {
class io_context;
}

namespace trovan {

class BusLoop;
class LibraryStore;

// The program's spine: command line, terminal check, and the single-threaded main loop
// (terminal input, signals, the playback ticker and coalesced frames).
class App {
public:
    // The whole program; returns the exit status (quitting exits the process directly).
    static int main(const std::vector<std::string>& arguments);

    struct CommandLine {
        bool help = false;
        bool version = false;
        std::vector<std::string> folders;
    };
    struct UsageError {
        std::string message; // for standard error; the exit status is 2
    };
    // Options first: -h/--help, -V/--version; "--" ends them; any other argument that
    // starts with "-" (but is not "-" alone) is a usage error, unless help or version
    // was asked for before it.
    static std::variant<CommandLine, UsageError> parse(const std::vector<std::string>& arguments);
    // The signals the main loop handles; every other thread keeps them blocked.
    static sigset_t handledSignals();

    App(asio::io_context& io, std::shared_ptr<LibraryStore> store);
    ~App();
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    // Read source on standard input and the signal source (size changes, quitting,
    // Ctrl-Z/SIGTSTP and SIGCONT).
    void listenToInput();
    void listenToSignals();
    // Four frames a second while something plays.
    void setTicking(bool on);
    // Composes and emits one frame now.
    void render();
    // Asks the terminal which images it shows (inside the session, before the first
    // frame) and draws covers accordingly; keys typed meanwhile are handled as usual.
    void probeGraphics();
    // Loads the codec and sound-server modules on a thread of their own, once the first
    // frame is out, so that neither the first frame nor the first track waits for them.
    void preloadModules();

    Terminal& terminal() { return terminal_; }
    Renderer& renderer() { return renderer_; }
    AppController& controller() { return *controller_; }

    using Frame = trovan::Frame;
    // Draws a whole frame from the controller's state.
    static Frame composeFrame(const AppController& controller);

    // True when COLORTERM announces 24-bit colour.
    static bool wantsTruecolor(const char* colorterm);
    static std::string_view usage();
    // Why the data folder cannot be written (read-only, full, no permission), as a
    // parenthesis to add to a message; empty when nothing is seen.
    static std::string dataFolderTrouble();

private:
    struct Sources;

    // Gives the terminal back and stops the process; on SIGCONT the session comes back
    // with a full redraw.
    void suspend();
    void redrawAll();
    // Draws covers the way the coverMode setting and the terminal allow.
    void applyGraphics();
    // Hands typed bytes to the controller, as events.
    void dispatchInput(std::string_view bytes);
    void scheduleRender();
    void waitForInput();
    void readInput();
    void waitForSignal();
    void readSignals();
    void armTicker();
    bool onMainThread() const { return std::this_thread::get_id() == mainThread_; }

    asio::io_context& io_;
    Terminal terminal_;
    InputDecoder decoder_;
    Renderer renderer_;
    std::unique_ptr<Sources> sources_;
    WorkerPool pool_;
    bool renderScheduled_ = false;
    std::chrono::steady_clock::time_point nextLogCheck_{};
    std::string settingsProblem_; // from reading config.json, shown once the session starts
    std::thread::id mainThread_;
    std::unique_ptr<AppController> controller_;
    std::unique_ptr<BusLoop> bus_; // the session bus, once connected
    std::unique_ptr<BusLoop> watch_; // the music folders' change notifications
    std::thread preload_;
    TerminalGraphics terminalGraphics_;           // what the terminal said it can do
    std::optional<std::string> appliedCoverMode_; // the setting the covers follow
};

} // namespace trovan
