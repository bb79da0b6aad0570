#include "playback/AudioOutput.h"

#include "playback/CubebOutput.h"
#include "playback/NullOutput.h"

namespace trovan {

OutputFactory systemOutputFactory() {
    // Used from the owner's thread only. A context whose server went away cannot
    // open streams any more, so after a failure the next connection starts over.
    auto context = std::make_shared<std::shared_ptr<CubebContext>>();
    return [context](const OutputFormat& format, AudioRenderer& renderer,
                     OutputEvents events) -> std::unique_ptr<AudioOutput> {
        if (!*context) *context = CubebContext::create("Trovan");
        if (*context) {
            if (auto out = CubebOutput::open(*context, format, renderer, events)) return out;
            context->reset();
        }
        return std::make_unique<NullOutput>(format, renderer, NullOutput::Clock::realTime, 1024);
    };
}

} // namespace trovan
