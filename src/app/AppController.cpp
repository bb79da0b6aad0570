#include "app/AppController.h"

#include <cstdlib>

namespace trovan {

AppController::AppController(Terminal& terminal, Size size) : terminal_(terminal), size_(size) {}

void AppController::handleKey(const Key& key) {
    const bool quitKey = (key.kind == Key::Kind::char_ && key.text == "q") ||
                         (key.kind == Key::Kind::ctrl && key.text == "c");
    if (quitKey) quit();
}

void AppController::handleMouse(const MouseEvent&) {
    // Nothing on screen reacts to the mouse yet.
}

void AppController::resize(Size size) {
    size_ = size;
    requestRender();
}

void AppController::quit() {
    if (terminal_.isActive) {
        restoreTerminal();
        terminal_.isActive = false;
    }
    std::exit(0);
}

} // namespace trovan
