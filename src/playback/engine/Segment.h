// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// One scheduled stretch of audio and everything the three threads share about it.
//
// Threads: the owner creates it and cancels it; the decoder thread fills `ring`,
// records joins under `mutex` and sets `eof`; the output callback drains `ring`
// (through a raw pointer the owner swaps with RenderCore::attach, which waits for
// the callback to be out) and sets `deviceBase`, `consumed`, `drained`, `endDevice`.
// A segment is never reused: a seek or a stop makes a new one.

#include "playback/SpscRing.h"
#include "playback/engine/Prepared.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace trovan {

// One scheduled stretch of the file, from `startFrame` to the end. Shared by the
// owner, the decoder thread and (through a raw pointer, see RenderCore) the
// output callback.
struct AudioEngine::Segment {
    static constexpr int64_t noFrame = INT64_MAX;
    Segment(std::size_t ringSamples) : ring(ringSamples) {}

    // A prepared file that the decoder went on into, `offset` frames after the
    // segment's first frame.
    struct Join {
        int64_t offset = 0;
        std::shared_ptr<Prepared> next;
        int64_t realEnd = -1; // its length, once decoded to the end, when it was a guess
        bool posted = false;
    };

    int64_t startFrame = 0;
    int64_t endFrame = 0;
    int channels = 2;
    OutputFormat format;
    bool exactLength = true;
    FileCheck stamp;
    std::shared_ptr<AudioDecoder> decoder;
    std::weak_ptr<AudioOutput> output;
    Task onFinished;
    Task onProgress;  // a join was heard or a real length learnt
    Task onCrossfade; // its crossfade out has begun
    Task onFaded;     // it has faded out: the core and the decoder can let it go
    Poster post;
    SpscRing ring;

    // Decoder thread writes, owner reads.
    std::mutex mutex;
    std::vector<Join> joins;
    int64_t firstRealEnd = -1;

    std::atomic<bool> cancelled{false};
    std::atomic<bool> eof{false};        // every frame of the segment is in the ring
    std::atomic<bool> drained{false};    // ... and the callback has taken the last one
    std::atomic<int64_t> deviceBase{-1}; // device frame at which the segment's first frame plays
    std::atomic<int64_t> endDevice{0};   // device frame after its last frame
    std::atomic<int64_t> consumed{0};    // frames taken from the ring

    // How the render core mixes it. Set by the owner: `gain` at any time, the rest
    // before the segment is handed to the core (`waitFor` also when the core lets go of
    // the one it names).
    uint64_t id = 0;                            // tells a segment's notices from a later one's
    std::atomic<float> gain{1.0f};              // the loudness gain, reached smoothly
    std::atomic<int64_t> crossfadeAt{noFrame};  // consumed frame where its crossfade out begins
    std::atomic<int64_t> crossfadeEnd{noFrame}; // ... and where it is silent
    std::atomic<bool> retired{false};           // fading out after a seek or a skip: decode no more
    std::atomic<int64_t> quickFade{0};          // > 0: fade out over this many frames, from now
    Segment* waitFor = nullptr;                 // silent until that one starts its crossfade out
    // Set by the callback.
    std::atomic<bool> crossfading{false}; // its crossfade out has begun
    std::atomic<bool> faded{false};       // it faded out to silence: nothing more is heard
    struct Mix {                          // the callback's own
        bool begun = false;               // mixed in (a segment that waits is not)
        bool gainSet = false;
        float gain = 1.0f;
        std::size_t fadeIn = 0, fadeInLength = 0;
        bool equalPowerIn = false;
        enum { none, crossfade, quick } out = none;
        double envelope = 1.0, quickStep = 0;
        int64_t crossfadeFrom = 0, crossfadeLength = 1;
    } mix;
    // Decoder-thread only.
    bool started = false;
    bool finishedPosted = false;
    bool crossfadePosted = false;
    bool fadedPosted = false;
    std::shared_ptr<AudioDecoder> source; // the file being decoded now
    FileCheck sourceStamp;
    int64_t sourceEnd = 0;
    bool sourceExact = true;
    int64_t decodedTo = 0; // in the source's frames
    int64_t written = 0;   // frames written since the segment began
};

} // namespace trovan
