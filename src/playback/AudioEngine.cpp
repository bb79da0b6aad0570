#include "playback/AudioEngine.h"

#include <sys/stat.h>

#include "media/AudioDecoder.h"
#include "playback/DenormalGuard.h"
#include "playback/SpscRing.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <filesystem>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace trovan {

namespace {

constexpr double ringSeconds = 0.5;
constexpr std::size_t decodeChunkFrames = 4096;
constexpr std::size_t minWriteFrames = 1024;
constexpr std::size_t minRingFrames = 8 * minWriteFrames;
// The ring holds half a second: topping it up every 40 ms is plenty. Once the
// decoder is done we look more often, so the end of a track is noticed promptly.
constexpr auto refillInterval = std::chrono::milliseconds(40);
constexpr auto endWatchInterval = std::chrono::milliseconds(5);
constexpr double volumeRampSeconds = 0.02;
// Every start of a segment fades in, and a pause fades out, over this long: enough to
// keep the jump from clicking, too short to hear as a fade.
constexpr double fadeSeconds = 0.004;

std::string fileName(const std::string& path) {
    return std::filesystem::path(path).filename().string();
}

} // namespace

AudioEngine::FileStamp AudioEngine::FileStamp::of(const std::string& path) {
    FileStamp stamp;
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return stamp;
    stamp.modified = int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    stamp.size = uint64_t(st.st_size);
    stamp.device = uint64_t(st.st_dev);
    stamp.inode = uint64_t(st.st_ino);
    stamp.known = true;
    return stamp;
}

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
    Task onReady;   // posted once opened, when set
    Task alsoThere; // run here once opened, when set

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

// One scheduled stretch of the file, from `startFrame` to the end. Shared by the
// owner, the decoder thread and (through a raw pointer, see RenderCore) the
// output callback.
struct AudioEngine::Segment {
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
    FileStamp stamp;
    std::shared_ptr<AudioDecoder> decoder;
    std::weak_ptr<AudioOutput> output;
    Task onFinished;
    Task onProgress; // a join was heard or a real length learnt
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
    // Decoder-thread only.
    bool started = false;
    bool finishedPosted = false;
    std::shared_ptr<AudioDecoder> source; // the file being decoded now
    FileStamp sourceStamp;
    int64_t sourceEnd = 0;
    bool sourceExact = true;
    int64_t decodedTo = 0; // in the source's frames
    int64_t written = 0;   // frames written since the segment began
};

// Runs on the output's real-time thread. Never locks, allocates or blocks.
class AudioEngine::RenderCore final : public AudioRenderer {
public:
    explicit RenderCore(Equalizer& eq) : eq_(eq) {}

    void render(float* out, std::size_t frames) noexcept override {
        DenormalGuard denormals;
        busy_.store(true, std::memory_order_seq_cst);
        const auto ch = static_cast<std::size_t>(channels_);
        if (!live_.load(std::memory_order_seq_cst)) {
            std::fill(out, out + frames * ch, 0.0f);
            busy_.store(false, std::memory_order_seq_cst);
            return;
        }
        const int64_t base = rendered_.load(std::memory_order_relaxed);
        std::size_t got = 0;
        bool starved = false;
        Segment* s = segment_.load(std::memory_order_seq_cst);
        // After a fade out only silence follows: the ring stays where the pause was.
        if (s && fadeOut_.load(std::memory_order_acquire) &&
            fadeDone_.load(std::memory_order_relaxed) >= 0)
            s = nullptr;
        if (s) {
            got = s->ring.read(out, frames * ch) / ch;
            // A damaged file can decode to NaN or infinity: silence, never full-scale noise.
            for (std::size_t i = 0; i < got * ch; ++i)
                if (!std::isfinite(out[i])) out[i] = 0.0f;
            if (got > 0 && s->deviceBase.load(std::memory_order_relaxed) < 0)
                s->deviceBase.store(base, std::memory_order_release);
            if (got < frames) {
                if (s->eof.load(std::memory_order_acquire) && s->ring.readable() == 0) {
                    if (!s->drained.load(std::memory_order_relaxed)) {
                        auto end = base + static_cast<int64_t>(got);
                        if (s->deviceBase.load(std::memory_order_relaxed) < 0)
                            s->deviceBase.store(end, std::memory_order_release);
                        s->endDevice.store(end, std::memory_order_relaxed);
                        s->drained.store(true, std::memory_order_release);
                    }
                } else if (s->deviceBase.load(std::memory_order_relaxed) >= 0) {
                    starved = true;
                    // The decoder fell behind: the silence we insert shifts the
                    // rest of the segment later on the device clock.
                    s->deviceBase.fetch_add(static_cast<int64_t>(frames - got),
                                            std::memory_order_release);
                }
            }
            s->consumed.fetch_add(static_cast<int64_t>(got), std::memory_order_release);
            fade(out, got, ch, base);
            if (starved) fadeTail(out, got, ch);
        }
        std::fill(out + got * ch, out + frames * ch, 0.0f);
        eq_.process(out, frames);
        applyVolume(out, frames, ch);
        rendered_.store(base + static_cast<int64_t>(frames), std::memory_order_release);
        busy_.store(false, std::memory_order_seq_cst);
    }

    // Owner thread. After it returns the callback no longer sees `segment_`'s old value.
    void attach(Segment* s) {
        segment_.store(s, std::memory_order_seq_cst);
        fadeOut_.store(false, std::memory_order_seq_cst);
        epoch_.fetch_add(1, std::memory_order_seq_cst);
        quiesce();
    }
    void detach() { attach(nullptr); }

    // Owner thread, with no output running or after `setLive(false)`.
    void reset(int channels, int sampleRate) {
        channels_ = std::clamp(channels, 1, 2);
        rendered_.store(0);
        volumeStep_ = 1.0f / static_cast<float>(volumeRampSeconds * std::max(sampleRate, 1));
        volume_ = volumeTarget_.load();
        fadeLength_ = std::max(1.0, fadeSeconds * sampleRate);
    }
    void setLive(bool live) {
        live_.store(live, std::memory_order_seq_cst);
        quiesce();
    }
    // Owner thread: from the next block, fades the segment out and then plays silence.
    void requestFadeOut() {
        fadeDone_.store(-1, std::memory_order_relaxed);
        fadeOut_.store(true, std::memory_order_seq_cst);
    }
    // The rendered frame at which the fade out ended, or -1 while it has not.
    int64_t fadeOutEnd() const { return fadeDone_.load(std::memory_order_acquire); }
    int64_t rendered() const { return rendered_.load(std::memory_order_acquire); }

    void setVolume(float v) { volumeTarget_.store(v, std::memory_order_relaxed); }
    float volume() const { return volumeTarget_.load(std::memory_order_relaxed); }

private:
    // Ramps the first frames of every segment up from silence and, on request, the
    // current one down to it.
    void fade(float* out, std::size_t got, std::size_t ch, int64_t base) noexcept {
        const auto length = static_cast<std::size_t>(fadeLength_);
        const auto epoch = epoch_.load(std::memory_order_acquire);
        if (epoch != seenEpoch_) {
            seenEpoch_ = epoch;
            fadeIn_ = 0;
            fadeLeft_ = 0;
        }
        const bool fadingOut = fadeOut_.load(std::memory_order_acquire);
        if (fadingOut && fadeLeft_ == 0 && fadeDone_.load(std::memory_order_relaxed) < 0)
            fadeLeft_ = length;
        for (std::size_t i = 0; i < got; ++i) {
            float gain = 1.0f;
            if (fadeIn_ < length) gain = static_cast<float>(++fadeIn_) / static_cast<float>(length);
            if (fadingOut) {
                if (fadeLeft_ > 0) --fadeLeft_;
                gain *= static_cast<float>(fadeLeft_) / static_cast<float>(length);
                if (fadeLeft_ == 0 && fadeDone_.load(std::memory_order_relaxed) < 0)
                    fadeDone_.store(base + static_cast<int64_t>(i) + 1, std::memory_order_release);
            }
            for (std::size_t c = 0; c < ch; ++c)
                out[i * ch + c] *= gain;
        }
    }

    // The decoder fell behind and silence follows `got` frames: end them with a fade
    // rather than a cut, and fade in again when the audio returns.
    void fadeTail(float* out, std::size_t got, std::size_t ch) noexcept {
        const std::size_t n = std::min(got, static_cast<std::size_t>(fadeLength_));
        for (std::size_t k = 0; k < n; ++k)
            for (std::size_t c = 0; c < ch; ++c)
                out[(got - n + k) * ch + c] *=
                    static_cast<float>(n - 1 - k) / static_cast<float>(n);
        fadeIn_ = 0;
    }

    void quiesce() const {
        while (busy_.load(std::memory_order_seq_cst))
            std::this_thread::yield();
    }

    void applyVolume(float* out, std::size_t frames, std::size_t ch) noexcept {
        const float target = volumeTarget_.load(std::memory_order_relaxed);
        if (volume_ == target) {
            if (target != 1.0f)
                for (std::size_t i = 0; i < frames * ch; ++i)
                    out[i] *= target;
            return;
        }
        for (std::size_t i = 0; i < frames; ++i) {
            if (volume_ < target)
                volume_ = std::min(target, volume_ + volumeStep_);
            else if (volume_ > target)
                volume_ = std::max(target, volume_ - volumeStep_);
            for (std::size_t c = 0; c < ch; ++c)
                out[i * ch + c] *= volume_;
        }
    }

    Equalizer& eq_;
    int channels_ = 2;
    std::atomic<Segment*> segment_{nullptr};
    std::atomic<bool> busy_{false};
    std::atomic<bool> live_{false};
    std::atomic<int64_t> rendered_{0};
    std::atomic<float> volumeTarget_{1.0f};
    float volume_ = 1.0f;
    float volumeStep_ = 0.001f;
    double fadeLength_ = 176;
    std::atomic<bool> fadeOut_{false};
    std::atomic<int64_t> fadeDone_{-1};
    std::atomic<uint64_t> epoch_{0}; // attachments so far: each one fades in anew
    // Callback only.
    uint64_t seenEpoch_ = 0;
    std::size_t fadeIn_ = 0;
    std::size_t fadeLeft_ = 0;
};

// Keeps the current segment's ring topped up, goes on into the prepared track when
// a file ends, and notices when joins and the last frame have been heard. One
// thread for the engine's lifetime; nothing thrown on it escapes.
class AudioEngine::DecoderWorker {
public:
    using Report = std::function<void(std::string)>;

    explicit DecoderWorker(Report report)
        : report_(std::move(report)), thread_([this] { run(); }) {}
    ~DecoderWorker() {
        {
            std::lock_guard lock(mutex_);
            quit_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    void assign(std::shared_ptr<Segment> s) {
        {
            std::lock_guard lock(mutex_);
            next_ = std::move(s);
        }
        wake_.notify_all();
    }
    void prepare(std::shared_ptr<Prepared> p) {
        std::shared_ptr<Prepared> old;
        {
            std::lock_guard lock(mutex_);
            old = std::exchange(prepared_, std::move(p));
        }
        wake_.notify_all();
    }

private:
    bool preparedPending() const {
        return prepared_ && prepared_->status.load(std::memory_order_acquire) == Prepared::pending;
    }

    void run() {
        std::shared_ptr<Segment> current;
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
                auto old = std::move(current);
                current = next_;
                lock.unlock();
                old.reset(); // the last reference may close a file: not under the lock
                lock.lock();
                continue;
            }
            std::chrono::milliseconds again{0};
            if (current && !current->cancelled.load()) {
                auto seg = current;
                lock.unlock();
                again = guardedService(*seg, scratch);
                lock.lock();
            }
            // With the ring topped up, open the next track ahead of time.
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

    std::chrono::milliseconds guardedService(Segment& s, std::vector<float>& scratch) {
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
    bool joinNext(Segment& s) {
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
        if (p->file.stamp.changedTo(FileStamp::of(p->path))) {
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
    static void reopenIfRewritten(Segment& s) {
        const auto now = FileStamp::of(s.source->path());
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
    static void recordEnd(Segment& s) {
        if (s.sourceExact) return;
        {
            std::lock_guard lock(s.mutex);
            (s.joins.empty() ? s.firstRealEnd : s.joins.back().realEnd) = s.decodedTo;
        }
        s.post(s.onProgress);
    }

    // Posts a notice for every join the listener has now heard; true while one is
    // still ahead in the ring.
    static bool watchJoins(Segment& s) {
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
    std::chrono::milliseconds service(Segment& s, std::vector<float>& scratch) {
        using std::chrono::milliseconds;
        const auto ch = static_cast<std::size_t>(s.channels);
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
            std::size_t want =
                std::min({room, decodeChunkFrames,
                          static_cast<std::size_t>(std::max<int64_t>(remaining, 0))});
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

    Report report_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::shared_ptr<Segment> next_;
    std::shared_ptr<Prepared> prepared_;
    bool quit_ = false;
    std::thread thread_; // last: starts after the members above exist
};

AudioEngine::AudioEngine(Poster post, OutputFactory outputs)
    : post_(std::move(post)), outputs_(std::move(outputs)),
      equalizer_(std::make_unique<Equalizer>()), core_(std::make_unique<RenderCore>(*equalizer_)) {
    // In the body: alive_ is built after the initialisers run.
    worker_ = std::make_unique<DecoderWorker>(
        [post = post_, alive = std::weak_ptr<char>(alive_), self = this](std::string message) {
            post([alive, self, message = std::move(message)] {
                if (alive.lock() && self->onError) self->onError(message);
            });
        });
}

AudioEngine::~AudioEngine() {
    onTrackEnd = nullptr;
    if (segment_) {
        core_->detach();
        segment_->cancelled = true;
        segment_.reset();
    }
    worker_.reset();
    if (output_) {
        core_->setLive(false);
        output_->stop();
        output_.reset();
    }
}

void AudioEngine::bumpGeneration() {
    // Only equality matters: wrapping round after 2^63 stops cannot confuse anything.
    generation_ = generation_ == std::numeric_limits<int64_t>::max() ? 0 : generation_ + 1;
}

void AudioEngine::stopStep() {
    bumpGeneration();
    catchUpJoins(); // a join already heard belongs to the new track
    if (isPlaying_) stoppedAt_ = currentTime();
    if (segment_) {
        core_->detach();
        segment_->cancelled = true;
        worker_->assign(nullptr);
        segment_.reset();
    }
    segmentOrigin_ = 0;
    appliedJoins_ = 0;
    // The dropped ring had already gone on into the prepared track: open it afresh.
    if (prepared_ && prepared_->claim.load() == Prepared::byDecoder)
        setPrepared(makePrepared(prepared_->path));
    isPlaying_ = false;
}

AudioEngine::LoadedFile AudioEngine::openFile(const std::string& path, bool countUnknownLength) {
    const auto stamp = FileStamp::of(path); // before opening: a write after it shows
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

AudioFormatInfo AudioEngine::load(const std::string& path) {
    // The prepared track, when that is the one asked for, is already open.
    const bool usePrepared = prepared_ && prepared_->path == path &&
                             prepared_->status.load(std::memory_order_acquire) == Prepared::ready &&
                             prepared_->claimFor(Prepared::byOwner);
    LoadedFile file = usePrepared ? prepared_->file : openFile(path);

    stopStep();
    connect(file.format);
    setPrepared(nullptr);
    file_ = std::move(file);
    stoppedAt_ = 0;
    ++loadCount_;
    return file_->info;
}

void AudioEngine::loadInBackground(const std::string& path, Task alsoThere, LoadDone done) {
    stopStep();
    file_.reset();
    stoppedAt_ = 0;
    const int64_t request = ++loadCount_;
    auto p = makePrepared(path);
    p->alsoThere = std::move(alsoThere);
    p->countLength = true; // nothing plays meanwhile
    std::weak_ptr<char> alive = alive_;
    p->onReady = [alive, self = this, request, done, path] {
        if (!alive.lock() || request != self->loadCount_) return;
        std::optional<AudioFormatInfo> info;
        try {
            info = self->load(path); // takes the prepared file
        } catch (const std::exception&) {
        }
        done(info);
    };
    p->onFailed = [alive, self = this, request, done] {
        if (!alive.lock() || request != self->loadCount_) return;
        self->setPrepared(nullptr);
        done(std::nullopt);
    };
    setPrepared(std::move(p));
}

std::shared_ptr<AudioEngine::Prepared> AudioEngine::makePrepared(const std::string& path) {
    auto p = std::make_shared<Prepared>();
    p->path = path;
    p->post = post_;
    p->onFailed = [alive = std::weak_ptr<char>(alive_), self = this,
                   weak = std::weak_ptr<Prepared>(p)] {
        if (alive.lock())
            if (auto prepared = weak.lock()) self->preparedFailed(prepared);
    };
    return p;
}

void AudioEngine::setPrepared(std::shared_ptr<Prepared> prepared) {
    prepared_ = std::move(prepared);
    worker_->prepare(prepared_);
}

void AudioEngine::prepareNext(std::optional<std::string> path, Task alsoThere) {
    if (prepared_ && path && prepared_->path == *path &&
        prepared_->claim.load() != Prepared::byOwner &&
        prepared_->status.load() != Prepared::failed)
        return;
    catchUpJoins();
    auto fresh = path ? makePrepared(*path) : nullptr;
    if (fresh) fresh->alsoThere = std::move(alsoThere);
    auto old = std::exchange(prepared_, nullptr);
    setPrepared(
        std::move(fresh)); // first: the decoder thread looks again when it loses the old one
    // Taking the old one away from the decoder thread fails only when it is in the ring.
    const bool inRing =
        old && !old->claimFor(Prepared::byOwner) && old->claim.load() == Prepared::byDecoder;
    if (inRing && isPlaying_) {
        // The ring already holds the start of the track no longer wanted: decode
        // the rest of the current one again from where the listener is.
        const double at = currentTime();
        stopStep();
        stoppedAt_ = at;
        play();
    }
}

void AudioEngine::preparedFailed(const std::shared_ptr<Prepared>& prepared) {
    if (prepared == prepared_ && onNextFailed) {
        auto callback = onNextFailed;
        callback(prepared->path);
    }
}

void AudioEngine::announceJoin(const std::string& path) {
    post_([alive = std::weak_ptr<char>(alive_), self = this, path, loads = loadCount_] {
        if (alive.lock() && self->loadCount_ == loads && self->onTrackJoined)
            self->onTrackJoined(path);
    });
}

void AudioEngine::progressArrived(int64_t generation) {
    if (generation == generation_) catchUpJoins(true);
}

// Owner thread: moves the current file on past every join the listener has heard,
// and takes the real length of a file once its end has been decoded. The owner
// hears of a join at once when this runs for a notice from the decoder thread, else
// (in the middle of one of its own calls) through the poster.
void AudioEngine::catchUpJoins(bool deliverNow) {
    if (!segment_ || !file_) return;
    const int64_t base = segment_->deviceBase.load(std::memory_order_acquire);
    const int64_t heard = output_ && base >= 0 ? output_->playedFrames() - base : -1;
    std::vector<std::string> joined;
    bool lengthLearnt = false;
    {
        std::lock_guard lock(segment_->mutex);
        auto& joins = segment_->joins;
        while (appliedJoins_ < joins.size() && heard >= joins[appliedJoins_].offset) {
            auto& j = joins[appliedJoins_++];
            file_ = j.next->file;
            segmentOrigin_ = j.offset;
            segmentStart_ = 0;
            if (prepared_ == j.next) prepared_.reset();
            joined.push_back(file_->path);
        }
        const int64_t realEnd =
            appliedJoins_ == 0 ? segment_->firstRealEnd : joins[appliedJoins_ - 1].realEnd;
        if (!file_->exactLength && realEnd > 0) {
            file_->frames = realEnd;
            file_->exactLength = true;
            lengthLearnt = true;
        }
    }
    if (!joined.empty() && !prepared_) worker_->prepare(nullptr);
    for (const auto& path : joined) {
        if (!deliverNow) {
            announceJoin(path);
        } else if (onTrackJoined) {
            auto callback = onTrackJoined; // the handler may replace it
            callback(path);
        }
    }
    if (lengthLearnt && joined.empty())
        post_([alive = std::weak_ptr<char>(alive_), self = this] {
            if (alive.lock() && self->onDurationChanged) self->onDurationChanged();
        });
}

// The loaded file ended with a prepared track that could not join the ring (another
// rate or channel count, or prepared too late): reopen the output for it and go on.
bool AudioEngine::adoptPrepared() {
    if (!prepared_ || prepared_->status.load(std::memory_order_acquire) != Prepared::ready ||
        !prepared_->claimFor(Prepared::byOwner))
        return false;
    auto p = std::move(prepared_);
    setPrepared(nullptr);
    file_ = p->file;
    stoppedAt_ = 0;
    announceJoin(file_->path);
    try {
        connect(file_->format);
    } catch (const std::exception&) {
        if (output_) output_->stop();
        return true;
    }
    play();
    return true;
}

void AudioEngine::connect(const OutputFormat& format) {
    if (connectedFormat_ && connectedFormat_->sampleRate == format.sampleRate &&
        connectedFormat_->channels == format.channels && output_)
        return;
    if (output_) {
        core_->setLive(false);
        output_->stop();
        output_.reset();
    }
    connectedFormat_.reset();
    core_->reset(format.channels, format.sampleRate);
    equalizer_->prepare(format.sampleRate, format.channels);
    auto out = outputs_ ? outputs_(format, *core_, outputEvents()) : nullptr;
    if (!out) throw AudioEngineError("no audio output");
    output_ = std::move(out);
    core_->setLive(true);
    connectedFormat_ = format;
}

OutputEvents AudioEngine::outputEvents() {
    auto recover = [post = post_, alive = std::weak_ptr<char>(alive_), self = this] {
        post([alive, self] {
            if (alive.lock()) self->recoverFromConfigurationChange();
        });
    };
    auto availability = [post = post_, alive = std::weak_ptr<char>(alive_),
                         self = this](bool available, const std::string& reason) {
        post([alive, self, available, reason] {
            if (alive.lock()) self->outputAvailability(available, reason);
        });
    };
    return OutputEvents{recover, recover, availability};
}

void AudioEngine::outputAvailability(bool available, const std::string& reason) {
    if (available == !outputMissing_) return;
    outputMissing_ = !available;
    if (onOutputNotice)
        onOutputNotice(available ? "Salida de audio recuperada" : "Sin salida de audio: " + reason,
                       !available);
}

void AudioEngine::play() {
    if (!file_ || isPlaying_) return;
    const double rate = file_->format.sampleRate;
    // The stop time is always within the file; should it ever not be, play from the
    // start rather than from a nonsensical frame.
    const double product = stoppedAt_ * rate;
    const bool valid = std::isfinite(product) && product >= 0;
    const auto startFrame = !valid ? int64_t{0}
                            : product >= static_cast<double>(file_->frames)
                                ? file_->frames
                                : static_cast<int64_t>(product);
    if (startFrame >= file_->frames && file_->frames > 0) { // 0: not known yet
        finishTrack();
        return;
    }
    if (!output_) {
        stopStep();
        return;
    }
    segmentStart_ = startFrame;
    segmentOrigin_ = 0;
    appliedJoins_ = 0;
    const auto ch = static_cast<std::size_t>(file_->format.channels);
    const auto ringFrames = std::max(static_cast<std::size_t>(ringSeconds * rate), minRingFrames);
    auto seg = std::make_shared<Segment>(ringFrames * ch);
    seg->startFrame = startFrame;
    // A guessed length must not cut the end off: then the data decides where it ends.
    seg->endFrame = file_->exactLength ? file_->frames : std::numeric_limits<int64_t>::max();
    seg->exactLength = file_->exactLength;
    seg->stamp = file_->stamp;
    seg->format = file_->format;
    seg->channels = file_->format.channels;
    seg->decoder = file_->decoder;
    seg->output = output_;
    seg->post = post_;
    seg->onFinished = [alive = std::weak_ptr<char>(alive_), self = this, gen = generation_] {
        if (alive.lock()) self->completionArrived(gen);
    };
    seg->onProgress = [alive = std::weak_ptr<char>(alive_), self = this, gen = generation_] {
        if (alive.lock()) self->progressArrived(gen);
    };
    segment_ = seg;
    core_->attach(seg.get());
    worker_->assign(seg);
    // A device that starts before the first block is decoded would play silence first.
    if (output_->realTime()) waitUntilBuffered(std::chrono::milliseconds(50));
    if (!output_->isRunning() && !output_->start()) {
        stopStep();
        return;
    }
    isPlaying_ = true;
}

void AudioEngine::completionArrived(int64_t generation) {
    if (generation == generation_ && isPlaying_) finishTrack();
}

void AudioEngine::finishTrack() {
    catchUpJoins(true); // the owner hears of the last join before the end
    stopStep();
    stoppedAt_ = file_ ? duration() : 0;
    if (adoptPrepared()) return;
    // Nothing more to play: let the device rest until the next play.
    if (output_) output_->stop();
    if (onTrackEnd) {
        auto callback = onTrackEnd; // the handler may replace onTrackEnd
        callback();
    }
}

void AudioEngine::pause() {
    if (!isPlaying_) return;
    fadeOut();
    stoppedAt_ = currentTime();
    stopStep();
    if (output_) output_->discard();
}

void AudioEngine::fadeOut() {
    if (!output_ || !output_->realTime() || !output_->isRunning()) return;
    // What the device holds plays out, then the fade: the pause lands where it ends, and
    // nothing from before it is heard again on resume. A busy sound server's position runs
    // a little ahead of what it has played: 10 ms of the silence after the fade make sure
    // the fade is not cut short.
    core_->requestFadeOut();
    const int64_t margin = connectedFormat_ ? connectedFormat_->sampleRate / 100 : 0;
    for (auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
         std::chrono::steady_clock::now() < deadline;) {
        const int64_t end = core_->fadeOutEnd();
        if (end >= 0 && output_->playedFrames() >= end + margin) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void AudioEngine::seek(double seconds) {
    if (!file_) return;
    const bool wasPlaying = isPlaying_;
    stopStep();
    // What the device still holds is the old position: drop it rather than hear it.
    if (wasPlaying && output_) output_->discard();
    if (std::isnan(seconds)) seconds = 0;
    stoppedAt_ = std::min(std::max(seconds, 0.0), std::max(duration() - 0.05, 0.0));
    if (wasPlaying) play();
}

void AudioEngine::unload() {
    stopStep();
    setPrepared(nullptr);
    ++loadCount_;
    file_.reset();
    stoppedAt_ = 0;
}

void AudioEngine::recoverFromConfigurationChange() {
    const bool wasPlaying = isPlaying_;
    stopStep();
    if (!file_) return;
    connectedFormat_.reset();
    try {
        connect(file_->format);
    } catch (const std::exception&) {
        return;
    }
    if (wasPlaying) play();
}

double AudioEngine::duration() const {
    if (!file_) return 0;
    return static_cast<double>(file_->frames) / file_->format.sampleRate;
}

std::optional<AudioFormatInfo> AudioEngine::formatInfo() const {
    if (!file_) return std::nullopt;
    return file_->info;
}

double AudioEngine::currentTime() const {
    if (!file_ || !isPlaying_ || !segment_ || !output_) return stoppedAt_;
    int64_t sampleTime = 0;
    const int64_t base = segment_->deviceBase.load(std::memory_order_acquire);
    if (base >= 0) {
        const int64_t played = output_->playedFrames();
        const int64_t consumed = segment_->consumed.load(std::memory_order_acquire);
        sampleTime = std::clamp<int64_t>(played - base, 0, consumed);
    }
    const int64_t inFile = segmentStart_ + std::max<int64_t>(sampleTime - segmentOrigin_, 0);
    const double t = static_cast<double>(inFile) / file_->format.sampleRate;
    return file_->frames > 0 ? std::min(t, duration()) : t;
}

void AudioEngine::setVolume(float volume) {
    if (std::isnan(volume)) volume = 0;
    core_->setVolume(std::clamp(volume, 0.0f, 1.0f));
}

float AudioEngine::volume() const {
    return core_->volume();
}

std::string AudioEngine::outputKind() const {
    return output_ ? output_->kind() : "";
}

bool AudioEngine::waitUntilBuffered(std::chrono::milliseconds timeout) const {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto seg = segment_;
        if (!seg) return true;
        const auto ch = static_cast<std::size_t>(seg->channels);
        const std::size_t enough =
            std::min<std::size_t>(2 * minWriteFrames, seg->ring.capacity() / ch - minWriteFrames);
        bool joinUnannounced = false;
        if (output_ && seg->deviceBase.load() >= 0) {
            const int64_t heard = output_->playedFrames() - seg->deviceBase.load();
            std::lock_guard lock(seg->mutex);
            for (const auto& j : seg->joins)
                joinUnannounced = joinUnannounced || (!j.posted && heard >= j.offset);
        }
        if (!joinUnannounced && (seg->eof.load() || seg->ring.readable() / ch >= enough))
            return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

bool AudioEngine::waitUntilPrepared(std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (prepared_ && prepared_->status.load() == Prepared::pending) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

} // namespace trovan
