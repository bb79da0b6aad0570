#include "playback/AudioOutput.h"

#include "media/Module.h"
#include "playback/NullOutput.h"

namespace trovan {

namespace {

// The cubeb client (and through it the sound server's libraries) is a module loaded
// when the first stream is opened.
using SoundServerEntry = OutputFactory* (*)();

SoundServerEntry soundServer() {
    static const SoundServerEntry entry = [] {
        std::string error;
        return reinterpret_cast<SoundServerEntry>(
            module::load("trovan-cubeb.so", "trovan_sound_server", error));
    }();
    return entry;
}

} // namespace

void preloadSoundServer() {
    (void)soundServer();
}

OutputFactory systemOutputFactory() {
    // Used from the owner's thread only.
    auto server = std::make_shared<std::unique_ptr<OutputFactory>>();
    return [server](const OutputFormat& format, AudioRenderer& renderer,
                    OutputEvents events) -> std::unique_ptr<AudioOutput> {
        if (!*server)
            if (auto entry = soundServer()) server->reset(entry());
        if (*server)
            if (auto out = (**server)(format, renderer, events)) return out;
        return std::make_unique<NullOutput>(format, renderer, NullOutput::Clock::realTime, 1024);
    };
}

} // namespace trovan
