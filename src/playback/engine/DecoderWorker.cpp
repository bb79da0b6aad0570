// SPDX-License-Identifier: GPL-3.0-or-later
#include "playback/engine/DecoderWorker.h"

#include <sys/stat.h>

#include "media/AudioDecoder.h"
#include "playback/engine/EngineTuning.h"

#include <exception>
#include <limits>

namespace trovan {

using namespace engine;

AudioEngine::FileCheck AudioEngine::FileCheck::of(const std::string& path) {
    FileCheck check;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return check;
    check.stamp = {FileStamp::seconds(st.st_mtim), int64_t(st.st_size)};
    check.device = uint64_t(st.st_dev);
    check.inode = uint64_t(st.st_ino);
    check.known = true;
    return check;
}

AudioEngine::LoadedFile AudioEngine::openFile(const std::string& path, bool countUnknownLength) {
    const auto stamp = FileCheck::of(path); // before opening: a write after it shows
    auto decoder = std::make_shared<AudioDecoder>(path);
    int64_t frames = decoder->frames();
    bool exact = decoder->lengthIsExact();
    if (frames <= 0 && !countUnknownLength) {
        frames = 0;
        exact = false;
    } else if (frames <= 0) {
        exact = true;
        // The container does not say how long it is: count by decoding once.
        AudioDecoder counter(path);
        std::vector<float> scratch(decodeChunkFrames * 2);
        while (std::size_t n = counter.read(scratch.data(), decodeChunkFrames))
            frames += static_cast<int64_t>(n);
        if (frames <= 0) throw AudioDecodeError("no audio frames in " + path);
    }
    LoadedFile file;
    file.path = path;
    file.frames = frames;
    file.exactLength = exact;
    file.format = {decoder->sampleRate(), decoder->outputChannels()};
    file.info = AudioFormatInfo::describe(decoder->description(), path);
    file.decoder = std::move(decoder);
    file.stamp = stamp;
    return file;
}

bool AudioEngine::DecoderWorker::preparedPending() const {
    return prepared_ && prepared_->status.load(std::memory_order_acquire) == Prepared::pending;
}

void AudioEngine::DecoderWorker::run() {
    std::vector<std::shared_ptr<Segment>> current;
    std::vector<float> scratch;
    try {
        scratch.resize(decodeChunkFrames * 2);
    } catch (...) {
        report_("Sin memoria para reproducir");
        return;
    }
    std::unique_lock lock(mutex_);
    while (!quit_) {
        if (next_ != current) {
            auto old = std::exchange(current, next_);
            lock.unlock();
            old.clear(); // the last reference may close a file: not under the lock
            lock.lock();
            continue;
        }
        std::chrono::milliseconds again{0};
        for (const auto& seg : current) {
            if (seg->cancelled.load()) continue;
            lock.unlock();
            const auto wanted = guardedService(*seg, scratch);
            lock.lock();
            if (wanted.count() > 0 && (again.count() == 0 || wanted < again)) again = wanted;
            if (quit_ || next_ != current) break;
        }
        // With the rings topped up, open the next track ahead of time.
        if (!quit_ && next_ == current && preparedPending()) {
            auto p = prepared_;
            lock.unlock();
            p->open();
            p.reset();
            lock.lock();
            continue;
        }
        if (quit_ || next_ != current) continue;
        auto wakeUp = [&] { return quit_ || next_ != current || preparedPending(); };
        if (again.count() > 0)
            wake_.wait_for(lock, again, wakeUp);
        else
            wake_.wait(lock, wakeUp);
    }
}

std::chrono::milliseconds AudioEngine::DecoderWorker::guardedService(Segment& s,
                                                                     std::vector<float>& scratch) {
    std::string failure;
    try {
        return service(s, scratch);
    } catch (const std::exception& e) {
        failure = e.what();
    } catch (...) {
    }
    // End the segment here: what is in the ring still plays, then playback moves on.
    const std::string name = s.source ? fileName(s.source->path()) : std::string();
    s.eof.store(true, std::memory_order_release);
    try {
        report_("No se pudo seguir reproduciendo " + name);
    } catch (...) {
    }
    return endWatchInterval;
}

// Moves the segment on into the prepared track, if it can follow without a gap.
bool AudioEngine::DecoderWorker::joinNext(Segment& s) {
    std::shared_ptr<Prepared> p;
    // The owner may name another track meanwhile (taking the old one back): look again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        {
            std::lock_guard lock(mutex_);
            p = prepared_;
        }
        if (!p || s.cancelled.load()) return false;
        if (p->status.load(std::memory_order_acquire) == Prepared::pending) p->open();
        if (p->status.load(std::memory_order_acquire) != Prepared::ready ||
            p->file.format != s.format)
            return false;
        if (p->claimFor(Prepared::byDecoder)) break;
        if (p->claim.load() != Prepared::byOwner) return false;
        p.reset();
    }
    if (!p) return false;
    // The owner cancels before it looks at the claim: one of the two sees the other.
    if (s.cancelled.load()) {
        p->claim.store(Prepared::free);
        return false;
    }
    // Rewritten since it was opened (a tag write, a replaced file): open it again.
    if (p->file.stamp.changedTo(FileCheck::of(p->path))) {
        try {
            p->file = AudioEngine::openFile(p->path, false);
        } catch (const std::exception&) {
            p->status.store(Prepared::failed, std::memory_order_release);
            if (p->post && p->onFailed) p->post(p->onFailed);
            return false;
        }
        if (p->file.format != s.format) {
            p->claim.store(Prepared::free); // the owner reopens the output for it
            return false;
        }
    }
    s.source = p->file.decoder;
    s.sourceStamp = p->file.stamp;
    if (s.source->position() != 0) s.source->seek(0);
    s.sourceExact = p->file.exactLength;
    s.sourceEnd = s.sourceExact ? p->file.frames : std::numeric_limits<int64_t>::max();
    s.decodedTo = 0;
    std::lock_guard lock(s.mutex);
    s.joins.push_back({s.written, std::move(p)});
    return true;
}

// A tag write can rewrite the file being played in place, moving the audio under
// the open decoder: open it again and carry on from the same frame.
void AudioEngine::DecoderWorker::reopenIfRewritten(Segment& s) {
    const auto now = FileCheck::of(s.source->path());
    if (!s.sourceStamp.changedTo(now)) return;
    const bool replaced = !now.sameFileAs(s.sourceStamp);
    s.sourceStamp = now; // once per change, whatever comes of it
    // Replaced by a rename (how tags are written): the open file is the old one,
    // intact, and plays on without a pause.
    if (replaced) return;
    try {
        auto fresh = std::make_shared<AudioDecoder>(s.source->path());
        if (fresh->sampleRate() != s.format.sampleRate ||
            fresh->outputChannels() != s.format.channels || !fresh->seek(s.decodedTo))
            return;
        s.source = std::move(fresh);
    } catch (const AudioDecodeError&) {
    }
}

// The decoder reached the end of the current file: remember its real length
// when it was only a guess.
void AudioEngine::DecoderWorker::recordEnd(Segment& s) {
    if (s.sourceExact) return;
    {
        std::lock_guard lock(s.mutex);
        (s.joins.empty() ? s.firstRealEnd : s.joins.back().realEnd) = s.decodedTo;
    }
    s.post(s.onProgress);
}

// Posts a notice for every join the listener has now heard; true while one is
// still ahead in the ring.
bool AudioEngine::DecoderWorker::watchJoins(Segment& s) {
    auto output = s.output.lock();
    const int64_t base = s.deviceBase.load(std::memory_order_acquire);
    const int64_t heard = output && base >= 0 ? output->playedFrames() - base : -1;
    bool waiting = false, post = false;
    std::lock_guard lock(s.mutex);
    for (auto& j : s.joins) {
        if (j.posted) continue;
        if (heard >= j.offset)
            post = j.posted = true;
        else
            waiting = true;
    }
    // Queued before `posted` can be seen (waitUntilBuffered relies on it).
    if (post) s.post(s.onProgress);
    return waiting;
}

// Returns when to look at the segment again; zero when it needs nothing more.
std::chrono::milliseconds AudioEngine::DecoderWorker::service(Segment& s,
                                                              std::vector<float>& scratch) {
    using std::chrono::milliseconds;
    const auto ch = static_cast<std::size_t>(s.channels);
    if (s.faded.load(std::memory_order_acquire)) {
        if (!s.fadedPosted) {
            s.fadedPosted = true;
            s.post(s.onFaded);
        }
        return milliseconds(0);
    }
    if (s.crossfading.load(std::memory_order_acquire) && !s.crossfadePosted) {
        s.crossfadePosted = true;
        s.post(s.onCrossfade);
    }
    // Fading out after a seek or a skip: the ring holds more than the fade needs.
    if (s.retired.load(std::memory_order_acquire)) return endWatchInterval;
    if (!s.started) {
        s.started = true;
        s.source = s.decoder;
        s.sourceStamp = s.stamp;
        s.sourceEnd = s.endFrame;
        s.sourceExact = s.exactLength;
        if (s.decoder->position() != s.startFrame) s.decoder->seek(s.startFrame);
        s.decodedTo = s.startFrame;
    }
    reopenIfRewritten(s);
    while (!s.eof.load(std::memory_order_relaxed) && !s.cancelled.load()) {
        std::size_t room = s.ring.writable() / ch;
        if (room < minWriteFrames) break;
        int64_t remaining = s.sourceEnd - s.decodedTo;
        std::size_t want = std::min(
            {room, decodeChunkFrames, static_cast<std::size_t>(std::max<int64_t>(remaining, 0))});
        std::size_t n = want > 0 ? s.source->read(scratch.data(), want) : 0;
        if (n == 0) {
            if (s.source->failed())
                report_("Datos dañados en " + fileName(s.source->path()) +
                        ": se pasa a lo siguiente");
            recordEnd(s);
            if (!joinNext(s)) s.eof.store(true, std::memory_order_release);
            continue;
        }
        s.ring.write(scratch.data(), n * ch);
        s.decodedTo += static_cast<int64_t>(n);
        s.written += static_cast<int64_t>(n);
    }
    if (s.cancelled.load()) return milliseconds(0);
    const bool joinAhead = watchJoins(s);
    if (!s.eof.load(std::memory_order_relaxed))
        return joinAhead ? endWatchInterval : refillInterval;
    if (s.finishedPosted) return milliseconds(0);
    if (!s.drained.load(std::memory_order_acquire)) return endWatchInterval;
    auto output = s.output.lock();
    if (output && output->playedFrames() < s.endDevice.load(std::memory_order_relaxed))
        return endWatchInterval;
    watchJoins(s);
    s.finishedPosted = true;
    s.post(s.onFinished);
    return milliseconds(0);
}

} // namespace trovan
