// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/App.h"

#include "app/BusLoop.h"
#include "config/AppPaths.h"
#include "config/SettingsStore.h"
#include "library/LibraryStore.h"
#include "media/Codecs.h"
#include "playback/AudioOutput.h"
#include "ui/Screen.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace trovan {

namespace {

constexpr std::string_view kUsage =
    "Trovan \xE2\x80\x94 reproductor de m\xC3\xBAsica para terminal\n"
    "\n"
    "Uso: trovan [carpeta \xE2\x80\xA6]\n"
    "  Las carpetas indicadas se agregan a la biblioteca (se recuerdan entre sesiones).\n"
    "  Dentro de la app pulsa ? para ver los atajos y :help para los comandos.\n"
    "\n"
    "Datos: ~/.local/share/Trovan (c\xC3\xA1mbialo con TROVAN_HOME)";

constexpr auto kTickInterval = std::chrono::milliseconds(250);
constexpr int kHandledSignals[] = {SIGWINCH, SIGTERM, SIGHUP, SIGINT, SIGTSTP, SIGCONT};
// The error log is emptied when it grows past this, checked at most this often.
constexpr long long kLogLimit = 1 << 20;
constexpr auto kLogCheckInterval = std::chrono::seconds(30);
constexpr auto kSettingsQuietPeriod = std::chrono::milliseconds(500);
// A terminal answers its queries in a few milliseconds; one that says nothing (or too
// late) gets half-block covers, and its late replies are dropped by the input decoder.
constexpr auto kProbeTimeout = std::chrono::milliseconds(40);

} // namespace

struct App::Sources {
    explicit Sources(asio::io_context& io) : input(io), signals(io) {}
    ~Sources() {
        // Standard input stays open for whoever runs after us.
        if (input.is_open()) input.release();
    }

    asio::posix::stream_descriptor input;
    // A signalfd: the handled signals stay blocked in every thread and arrive here.
    asio::posix::stream_descriptor signals;
    std::unique_ptr<asio::steady_timer> ticker;
};

std::string_view App::usage() {
    return kUsage;
}

std::string App::dataFolderTrouble() {
    // The nearest folder that exists: the data folder may not have been created yet.
    std::filesystem::path folder = AppPaths::support();
    std::error_code ec;
    while (!std::filesystem::exists(folder, ec) && folder.has_relative_path())
        folder = folder.parent_path();
    struct statvfs fs {};
    if (statvfs(folder.c_str(), &fs) != 0) return {};
    if (fs.f_flag & ST_RDONLY) return " (" + folder.string() + " es de solo lectura)";
    if (fs.f_bavail == 0) return " (el disco de " + folder.string() + " est\xC3\xA1 lleno)";
    if (access(folder.c_str(), W_OK) != 0)
        return " (sin permiso de escritura en " + folder.string() + ")";
    return {};
}

bool App::wantsTruecolor(const char* colorterm) {
    std::string_view v = colorterm ? colorterm : "";
    return v.find("truecolor") != std::string_view::npos ||
           v.find("24bit") != std::string_view::npos;
}

std::variant<App::CommandLine, App::UsageError>
App::parse(const std::vector<std::string>& arguments) {
    CommandLine line;
    bool options = true;
    for (const auto& a : arguments) {
        if (options && a == "--") {
            options = false;
        } else if (options && (a == "-h" || a == "--help")) {
            line.help = true;
        } else if (options && (a == "-V" || a == "--version")) {
            line.version = true;
        } else if (options && a.size() > 1 && a[0] == '-') {
            if (!line.help && !line.version)
                return UsageError{
                    "trovan: opci\xC3\xB3n desconocida: " + a +
                    "\nUso: trovan [carpeta \xE2\x80\xA6]   (trovan --help para m\xC3\xA1s)\n"};
        } else {
            line.folders.push_back(a);
        }
    }
    return line;
}

int App::main(const std::vector<std::string>& arguments) {
    const auto parsed = parse(arguments);
    if (const auto* error = std::get_if<UsageError>(&parsed)) {
        std::fputs(error->message.c_str(), stderr);
        return 2;
    }
    const CommandLine& line = std::get<CommandLine>(parsed);
    if (line.help) {
        std::fwrite(kUsage.data(), 1, kUsage.size(), stdout);
        std::fputc('\n', stdout);
        return 0;
    }
    if (line.version) {
        std::puts("trovan " TROVAN_VERSION);
        return 0;
    }
    if (!isatty(0) || !isatty(1)) {
        std::fputs("trovan necesita una terminal interactiva\n", stderr);
        return 1;
    }

    std::shared_ptr<LibraryStore> store;
    try {
        store = std::make_shared<LibraryStore>(AppPaths::libraryFile());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "No se pudo abrir la biblioteca: %s%s\n", e.what(),
                     dataFolderTrouble().c_str());
        return 1;
    }
    // Libraries write to standard error (the sound server's client, FFmpeg, JACK
    // probing); during the session that goes to a log instead of over the screen.
    const bool logging = Terminal::logErrorsTo(AppPaths::logFile());

    // The signals the main loop handles stay blocked in every thread for the whole run
    // (threads inherit the mask, the sound server's and the bus library's included) and
    // are read from a signalfd by the loop: none of them ever interrupts a thread.
    const sigset_t handled = handledSignals();
    pthread_sigmask(SIG_BLOCK, &handled, nullptr);

    asio::io_context io;
    App app(io, store);
    app.terminal().enter();
    app.probeGraphics();
    app.listenToInput();
    app.listenToSignals();
    if (!app.settingsProblem_.empty()) {
        app.controller().report(app.settingsProblem_, true);
    } else if (!logging) {
        app.controller().report(
            "No se pudo crear el registro de errores en " + AppPaths::support().string(), true);
    }
    app.controller().start(line.folders);
    app.render();
    app.preloadModules();
    app.controller().connectNowPlaying();
    io.run();
    // The loop only runs dry if every source failed: leave as on end of input.
    app.controller().quit();
}

sigset_t App::handledSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : kHandledSignals)
        sigaddset(&set, sig);
    return set;
}

App::App(asio::io_context& io, std::shared_ptr<LibraryStore> store)
    : io_(io), sources_(std::make_unique<Sources>(io)), mainThread_(std::this_thread::get_id()) {
    decoder_.pasteStart = "\x1b[200~";
    decoder_.pasteEnd = "\x1b[201~";
    renderer_.truecolor = wantsTruecolor(std::getenv("COLORTERM"));

    AppController::Host host;
    host.post = [&io](AppController::Task task) { asio::post(io, std::move(task)); };
    host.postDelayed = [&io](std::chrono::milliseconds delay, AppController::Task task) {
        auto timer = std::make_shared<asio::steady_timer>(io, delay);
        timer->async_wait([timer, task = std::move(task)](const asio::error_code& ec) {
            if (!ec) task();
        });
    };
    // Volume and equalizer keys come in bursts: the file is written once they stop.
    SettingsStore settings(AppPaths::configFile(), kSettingsQuietPeriod);
    settings.onFailure([&io, this](const std::string& message) {
        asio::post(io, [this, message] { controller_->report(message, true); });
    });
    controller_ = std::make_unique<AppController>(terminal_, Terminal::querySize(), settings,
                                                  std::move(store), pool_, std::move(host));
    settingsProblem_ = settings.loadProblem();
    controller_->needsRender = [this] { scheduleRender(); };
    controller_->screenInvalidated = [this] {
        // The editor's session left and came back: our pictures were taken away.
        renderer_.forgetImages();
        renderer_.front.reset();
        scheduleRender();
    };
    controller_->playingChanged = [this](bool playing) { setTicking(playing); };
    controller_->serveBus = [this](LoopSource& source) {
        bus_ = std::make_unique<BusLoop>(io_, source);
    };
    controller_->serveWatch = [this](LoopSource* source) {
        watch_.reset();
        if (source) watch_ = std::make_unique<BusLoop>(io_, *source);
    };
}

App::~App() {
    if (preload_.joinable()) preload_.join();
}

void App::preloadModules() {
    if (preload_.joinable()) return;
    preload_ = std::thread([] {
        // Only a head start: whatever fails here fails again, with its message, on first use.
        try {
            (void)codecs();
            preloadSoundServer();
        } catch (...) {
        }
    });
}

void App::listenToInput() {
    asio::error_code ec;
    sources_->input.assign(0, ec);
    const int flags = fcntl(0, F_GETFL);
    waitForInput();
    // Waiting makes Asio switch the descriptor to non-blocking once and remember it. The
    // open file is shared with the shell and with editors we run, and our own read only
    // follows readiness, so put it back to blocking.
    if (flags != -1) fcntl(0, F_SETFL, flags);
}

void App::waitForInput() {
    sources_->input.async_wait(asio::posix::descriptor_base::wait_read,
                               [this](const asio::error_code& ec) {
                                   if (ec == asio::error::operation_aborted) return;
                                   readInput();
                               });
}

void App::readInput() {
    assert(onMainThread());
    // The reactor can report readiness that an earlier read already used up; a read
    // then would block the whole loop (frames included) until the next key.
    struct pollfd ready {
        0, POLLIN, 0
    };
    if (poll(&ready, 1, 0) == 0) {
        waitForInput();
        return;
    }
    char buf[4096] = {};
    ssize_t n;
    do {
        n = ::read(0, buf, sizeof buf);
    } while (n < 0 && errno == EINTR);
    // A descriptor switched to non-blocking by someone else: wait for the next edge.
    if (n < 0 && errno == EAGAIN) {
        waitForInput();
        return;
    }
    // End of input or any other failure (the terminal went away): there is no retry.
    if (n <= 0) controller_->quit();

    dispatchInput(std::string_view(buf, static_cast<std::size_t>(n)));

    // The reactor reports readiness on edges: when a read left bytes behind (a large
    // paste), read again from the queue instead of waiting for an edge that never comes.
    struct pollfd pfd {
        0, POLLIN, 0
    };
    if (poll(&pfd, 1, 0) > 0) {
        asio::post(io_, [this] { readInput(); });
    } else {
        waitForInput();
    }
}

void App::dispatchInput(std::string_view bytes) {
    for (const InputEvent& event : decoder_.decode(bytes)) {
        if (const auto* key = std::get_if<Key>(&event); key && *key == Key::ctrl('z')) {
            suspend(); // raw mode turns the terminal's Ctrl-Z into a plain byte
        } else if (key) {
            controller_->handleKey(*key);
        } else if (const auto* mouse = std::get_if<MouseEvent>(&event)) {
            controller_->handleMouse(*mouse);
        } else if (const auto* paste = std::get_if<Paste>(&event)) {
            controller_->handlePaste(paste->text);
        }
        controller_->needsRender();
    }
}

void App::probeGraphics() {
    const auto host =
        GraphicsProbe::host(std::getenv("TERM"), std::getenv("TMUX"), std::getenv("STY"));
    std::string typed;
    terminalGraphics_ = GraphicsProbe::run(host, 0, 1, kProbeTimeout, typed);
    applyGraphics();
    if (!typed.empty()) asio::post(io_, [this, typed] { dispatchInput(typed); });
}

void App::applyGraphics() {
    const std::string& setting = controller_->state().settings.coverMode;
    appliedCoverMode_ = setting;
    const GraphicsChoice choice = chooseGraphics(
        terminalGraphics_, coverModeFromString(setting).value_or(CoverMode::automatic));
    if (renderer_.graphics() == GraphicsProtocol::kitty &&
        choice.protocol != GraphicsProtocol::kitty && terminal_.isActive) {
        Terminal::write(renderer_.leaveSequence());
        renderer_.forgetImages();
    }
    renderer_.setGraphics(choice.protocol, choice.passthrough, choice.colorRegisters);
    setLeaveExtra(renderer_.leaveSequence());
    controller_->setGraphics(choice);
}

void App::listenToSignals() {
    const sigset_t handled = handledSignals();
    const int fd = ::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0) return; // without it only the keys quit; the terminal is still restored
    asio::error_code ec;
    sources_->signals.assign(fd, ec);
    waitForSignal();
}

void App::waitForSignal() {
    sources_->signals.async_wait(asio::posix::descriptor_base::wait_read,
                                 [this](const asio::error_code& ec) {
                                     if (ec == asio::error::operation_aborted) return;
                                     readSignals();
                                 });
}

void App::readSignals() {
    assert(onMainThread());
    signalfd_siginfo info{};
    while (::read(sources_->signals.native_handle(), &info, sizeof info) == sizeof info) {
        const int sig = static_cast<int>(info.ssi_signo);
        if (sig == SIGWINCH) {
            renderer_.front.reset();
            controller_->resize(Terminal::querySize());
            // A new font size changes the cells' pixels: covers are made again.
            TerminalGraphics resized = terminalGraphics_;
            GraphicsProbe::cellSizeFromWindow(1, resized);
            if (!(resized == terminalGraphics_)) {
                terminalGraphics_ = resized;
                applyGraphics();
            }
        } else if (sig == SIGTSTP) {
            suspend();
        } else if (sig == SIGCONT) {
            // Stopped by someone else (SIGSTOP) and continued: the shell had the terminal
            // meanwhile.
            if (terminal_.isActive) {
                terminal_.reapply();
                redrawAll();
            }
        } else {
            controller_->quit();
        }
    }
    waitForSignal();
}

void App::suspend() {
    if (!terminal_.isActive) return;
    restoreTerminal();
    terminal_.isActive = false;
    std::fflush(stdout);
    // Stops every thread of the process until SIGCONT (fg); playback pauses on its own
    // as the sound server stops getting samples.
    raise(SIGSTOP);
    terminal_.enter();
    renderer_.forgetImages(); // leaving the session took our pictures away
    redrawAll();
}

void App::redrawAll() {
    renderer_.front.reset();
    controller_->resize(Terminal::querySize());
    render();
}

void App::setTicking(bool on) {
    if (on) {
        if (sources_->ticker) return;
        sources_->ticker = std::make_unique<asio::steady_timer>(io_);
        sources_->ticker->expires_after(kTickInterval);
        armTicker();
    } else if (sources_->ticker) {
        sources_->ticker->cancel();
        sources_->ticker.reset();
    }
}

void App::armTicker() {
    asio::steady_timer* timer = sources_->ticker.get();
    timer->async_wait([this, timer](const asio::error_code& ec) {
        if (ec == asio::error::operation_aborted || sources_->ticker.get() != timer) return;
        render();
        timer->expires_at(timer->expiry() + kTickInterval);
        armTicker();
    });
}

void App::scheduleRender() {
    if (renderScheduled_) return;
    renderScheduled_ = true;
    asio::post(io_, [this] { render(); });
}

void App::render() {
    assert(onMainThread());
    renderScheduled_ = false;
    if (!terminal_.isActive) return;
    if (const auto now = std::chrono::steady_clock::now(); now >= nextLogCheck_) {
        nextLogCheck_ = now + kLogCheckInterval;
        Terminal::trimErrorLog(kLogLimit);
    }
    if (appliedCoverMode_ && *appliedCoverMode_ != controller_->state().settings.coverMode)
        applyGraphics();
    Frame frame = composeFrame(*controller_);
    Terminal::write(renderer_.render(std::move(frame.buffer), frame.cursor));
}

App::Frame App::composeFrame(const AppController& controller) {
    return Screen::compose(controller.state(), controller.layout(), controller.elapsed(),
                           controller.now());
}

} // namespace trovan
