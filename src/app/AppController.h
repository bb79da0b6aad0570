#pragma once

#include "terminal/Key.h"
#include "terminal/MouseEvent.h"
#include "terminal/Size.h"
#include "terminal/Terminal.h"

#include <functional>

namespace trovan {

// Turns input into changes of what the screen shows and asks the main loop for frames.
// For now it knows the terminal size and how to quit; the state, the layout and the
// library, playback and tag flows grow here.
class AppController {
public:
    AppController(Terminal& terminal, Size size);

    // Installed by the main loop.
    std::function<void()> needsRender;        // schedule a frame (coalesced)
    std::function<void()> screenInvalidated;  // the next frame must be drawn in full
    std::function<void(bool)> playingChanged; // playback started or stopped

    void handleKey(const Key& key);
    void handleMouse(const MouseEvent& event);
    // A new terminal size: everything is laid out again and redrawn.
    void resize(Size size);
    // Restores the terminal and ends the process with status 0.
    [[noreturn]] void quit();

    Size size() const { return size_; }

private:
    void requestRender() {
        if (needsRender) needsRender();
    }

    Terminal& terminal_;
    Size size_;
};

} // namespace trovan
