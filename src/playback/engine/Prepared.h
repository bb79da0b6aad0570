// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Track preparation: a file opened ahead of time on the decoder thread.
//
// Handshake: `status` goes pending -> ready | failed once, written by the decoder
// thread (release) after `file` is complete. `claim` is taken once, by compare and
// swap, by whichever side uses the file first: the decoder thread to join it into
// the ring, or the owner to load it or to reopen the output for it.

#include "playback/AudioEngine.h"

#include <atomic>
#include <exception>
#include <string>

namespace trovan {

// The track that follows the loaded one, opened on the decoder thread. Whoever
// claims it first, the decoder thread (to join it into the ring) or the owner (to
// load it, or to reopen the output for it), owns `file` from then on.
struct AudioEngine::Prepared {
    enum Status { pending, ready, failed };
    enum Claim { free, byDecoder, byOwner };

    std::string path;
    LoadedFile file; // written before `status` becomes ready
    bool countLength = false;
    std::atomic<int> status{pending};
    std::atomic<int> claim{free};
    Poster post;
    Task onFailed;
    Task onReady;          // posted once opened, when set
    Task alsoThere;        // run here once opened, when set
    Transition transition; // owner only

    bool claimFor(Claim who) {
        int expected = free;
        return claim.compare_exchange_strong(expected, who);
    }
    // Decoder thread. Never throws.
    void open() {
        try {
            file = AudioEngine::openFile(path, countLength);
            if (alsoThere) alsoThere();
            status.store(ready, std::memory_order_release);
            if (post && onReady) post(onReady);
            return;
        } catch (const std::exception&) {
        } catch (...) {
        }
        // The notice is queued before the status shows (waitUntilPrepared relies on it).
        if (post && onFailed) post(onFailed);
        status.store(failed, std::memory_order_release);
    }
};

} // namespace trovan
