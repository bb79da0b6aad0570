// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/SafeWrite.h"

#include "config/AppPaths.h"
#include "config/WriteSeam.h"

#include "media/AudioDecoder.h"
#include "tags/Fd.h"
#include "tags/WriteJournal.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace trovan {

namespace {

std::string folderOf(const std::string& path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The extension with its dot, so that TagLib recognises the copy's format.
std::string extensionOf(const std::string& name) {
    auto dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return {};
    return name.substr(dot);
}

// FLAC files may start with an ID3v2 tag, and Ogg FLAC keeps the same block limits.
bool isFlacName(const std::string& name) {
    std::string ext = extensionOf(name);
    for (char& c : ext)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext == ".flac" || ext == ".oga";
}

std::string randomHex() {
    static thread_local std::mt19937_64 rng{std::random_device{}()};
    char buf[17];
    std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(rng()));
    return buf;
}

bool readFully(int fd, char* buf, std::size_t n, off_t at) {
    while (n > 0) {
        ssize_t got = ::pread(fd, buf, n, at);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        buf += got;
        n -= static_cast<std::size_t>(got);
        at += got;
    }
    return true;
}

bool writeFully(int fd, const char* buf, std::size_t n, off_t at) {
    while (n > 0) {
        ssize_t put = WriteSeam::pwrite(fd, buf, n, at);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        buf += put;
        n -= static_cast<std::size_t>(put);
        at += put;
    }
    return true;
}

// Copies `length` bytes from the start of `from` to the start of `to`: in the kernel
// (a reflink on file systems that share extents), else through a buffer.
bool copyContents(int from, int to, off_t length) {
    off_t in = 0, out = 0;
    while (in < length) {
        ssize_t n =
            WriteSeam::copyFileRange(from, &in, to, &out, static_cast<std::size_t>(length - in));
        if (n < 0 && errno == EINTR) continue;
        if (n > 0) continue;
        if (n == 0) return false; // the source got shorter
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP)
            return false;
        std::vector<char> buf(1 << 20);
        while (in < length) {
            const auto chunk = static_cast<std::size_t>(std::min<off_t>(length - in, 1 << 20));
            if (!readFully(from, buf.data(), chunk, in) || !writeFully(to, buf.data(), chunk, out))
                return false;
            in += static_cast<off_t>(chunk);
            out += static_cast<off_t>(chunk);
        }
    }
    return true;
}

// True when the ranges hold the same bytes. The buffers stay with the thread: fresh
// megabytes for every file cost more in page faults and zeroing than the reads do.
bool sameBytes(int a, off_t aStart, int b, off_t bStart, off_t length) {
    constexpr std::size_t chunkSize = 256 * 1024;
    thread_local const std::unique_ptr<char[]> x(new char[chunkSize]), y(new char[chunkSize]);
    off_t done = 0;
    while (done < length) {
        const auto chunk =
            static_cast<std::size_t>(std::min<off_t>(length - done, off_t(chunkSize)));
        if (!readFully(a, x.get(), chunk, aStart + done) ||
            !readFully(b, y.get(), chunk, bStart + done) ||
            std::memcmp(x.get(), y.get(), chunk) != 0)
            return false;
        done += static_cast<off_t>(chunk);
    }
    return true;
}

off_t fileSize(int fd) {
    struct stat st {};
    return ::fstat(fd, &st) == 0 ? st.st_size : -1;
}

// --- Where the audio data lies, for formats that keep it apart from the tags.

enum class Container { flac, mpeg, riff, aiff, other };

struct Region {
    off_t start = 0;
    off_t length = 0;
};

uint32_t be32(const unsigned char* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
uint32_t le32(const unsigned char* p) {
    return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}

// Size of an ID3v2 tag at `at`, 0 when there is none.
off_t id3v2Size(int fd, off_t at) {
    unsigned char h[10];
    if (!readFully(fd, reinterpret_cast<char*>(h), 10, at) || std::memcmp(h, "ID3", 3) != 0)
        return 0;
    const off_t body = (off_t(h[6] & 0x7f) << 21) | (off_t(h[7] & 0x7f) << 14) |
                       (off_t(h[8] & 0x7f) << 7) | off_t(h[9] & 0x7f);
    return 10 + body + ((h[5] & 0x10) ? 10 : 0);
}

Container containerOf(int fd) {
    unsigned char h[12] = {};
    if (!readFully(fd, reinterpret_cast<char*>(h), 12, 0)) return Container::other;
    if (std::memcmp(h, "fLaC", 4) == 0) return Container::flac;
    if (std::memcmp(h, "RIFF", 4) == 0 && std::memcmp(h + 8, "WAVE", 4) == 0)
        return Container::riff;
    if (std::memcmp(h, "FORM", 4) == 0 &&
        (std::memcmp(h + 8, "AIFF", 4) == 0 || std::memcmp(h + 8, "AIFC", 4) == 0))
        return Container::aiff;
    off_t skip = id3v2Size(fd, 0);
    unsigned char s[4] = {};
    if (!readFully(fd, reinterpret_cast<char*>(s), 4, skip)) return Container::other;
    if (std::memcmp(s, "fLaC", 4) == 0) return Container::other; // rare; decode it instead
    if (s[0] == 0xff && (s[1] & 0xe0) == 0xe0) return Container::mpeg;
    return Container::other;
}

std::optional<Region> flacAudio(int fd) {
    const off_t size = fileSize(fd);
    off_t at = 4;
    for (;;) {
        unsigned char h[4];
        if (!readFully(fd, reinterpret_cast<char*>(h), 4, at)) return std::nullopt;
        const off_t length = (off_t(h[1]) << 16) | (off_t(h[2]) << 8) | h[3];
        at += 4 + length;
        if (at > size) return std::nullopt;
        if (h[0] & 0x80) break;
    }
    off_t end = size;
    char tag[3];
    if (end - at >= 128 && readFully(fd, tag, 3, end - 128) && std::memcmp(tag, "TAG", 3) == 0)
        end -= 128;
    return Region{at, end - at};
}

std::optional<Region> mpegAudio(int fd) {
    const off_t size = fileSize(fd);
    const off_t start = id3v2Size(fd, 0);
    off_t end = size;
    char tag[8];
    if (end - start >= 128 && readFully(fd, tag, 3, end - 128) && std::memcmp(tag, "TAG", 3) == 0)
        end -= 128;
    unsigned char footer[32];
    if (end - start >= 32 && readFully(fd, reinterpret_cast<char*>(footer), 32, end - 32) &&
        std::memcmp(footer, "APETAGEX", 8) == 0) {
        off_t ape = le32(footer + 12);                  // items and footer
        if (le32(footer + 20) & 0x80000000u) ape += 32; // a header too
        end -= ape;
    }
    if (end <= start) return std::nullopt;
    return Region{start, end - start};
}

// The payload of the chunk `id` of a RIFF (little-endian sizes) or IFF (big-endian) file.
std::optional<Region> chunkPayload(int fd, const char* id, bool bigEndian) {
    const off_t size = fileSize(fd);
    off_t at = 12;
    while (at + 8 <= size) {
        unsigned char h[8];
        if (!readFully(fd, reinterpret_cast<char*>(h), 8, at)) return std::nullopt;
        const off_t length = bigEndian ? be32(h + 4) : le32(h + 4);
        if (std::memcmp(h, id, 4) == 0) {
            if (at + 8 + length > size) return std::nullopt;
            return Region{at + 8, length};
        }
        at += 8 + length + (length & 1);
    }
    return std::nullopt;
}

std::optional<Region> audioRegion(int fd, Container c) {
    switch (c) {
    case Container::flac:
        return flacAudio(fd);
    case Container::mpeg:
        return mpegAudio(fd);
    case Container::riff:
        return chunkPayload(fd, "data", false);
    case Container::aiff:
        return chunkPayload(fd, "SSND", true);
    case Container::other:
        break;
    }
    return std::nullopt;
}

// The whole stream decoded: its length in frames and a digest of its samples. None when
// it cannot be opened.
struct Decoded {
    int64_t frames = 0;
    uint64_t digest = 0;
    bool operator==(const Decoded&) const = default;
};

std::optional<Decoded> decodeAll(const std::string& path) {
    try {
        AudioDecoder decoder(path);
        const int channels = std::max(1, decoder.outputChannels());
        std::vector<float> buf(4096 * static_cast<std::size_t>(channels));
        Decoded out;
        out.digest = 1469598103934665603ull; // FNV-1a
        while (std::size_t n = decoder.read(buf.data(), 4096)) {
            out.frames += static_cast<int64_t>(n);
            const auto* p = reinterpret_cast<const unsigned char*>(buf.data());
            for (std::size_t i = 0; i < n * static_cast<std::size_t>(channels) * sizeof(float); ++i)
                out.digest = (out.digest ^ p[i]) * 1099511628211ull;
        }
        return out;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool audioIntact(int original, const std::string& originalPath, int copy,
                 const std::string& copyPath, Container c) {
    if (c != Container::other) {
        auto a = audioRegion(original, c);
        auto b = audioRegion(copy, c);
        if (a && b)
            return a->length == b->length &&
                   sameBytes(original, a->start, copy, b->start, a->length);
        if (a || b) return false;
    }
    // Tags and audio share the container's structures (MP4 offset tables, Ogg pages):
    // the copy must decode to the very same samples.
    auto after = decodeAll(copyPath);
    return after && after->frames > 0 && after == decodeAll(originalPath);
}

// What the copy should hold after its save, as TagLib sees it in memory before saving.
struct Expected {
    std::map<std::string, std::vector<std::string>> properties;
    std::optional<Picture> picture;
    std::optional<TagLibFile::AudioProperties> audio;
};

bool sameAudioProperties(const TagLibFile::AudioProperties& a,
                         const TagLibFile::AudioProperties& b) {
    // The bit rate of some formats is derived from the file's size, which tags change.
    return a.sampleRate == b.sampleRate && a.channels == b.channels &&
           a.bitsPerSample == b.bitsPerSample && a.codec == b.codec &&
           std::abs(a.lengthMs - b.lengthMs) <= 1;
}

std::optional<std::string> verifyTags(const std::string& copyPath, const Expected& want) {
    auto file = TagLibFile::openForReading(copyPath);
    if (!file) return "la copia no se abre";
    if (file->properties() != want.properties) return "los tags no se leen como se escribieron";
    if (file->picture() != want.picture) return "la carátula no se lee como se escribió";
    auto audio = file->audioProperties();
    if (want.audio.has_value() != audio.has_value() ||
        (audio && !sameAudioProperties(*audio, *want.audio)))
        return "cambiaron las propiedades del audio";
    return std::nullopt;
}

void copyAttributes(int from, int to, const struct stat& st) {
    // Owner first: changing it may clear the set-id bits that the mode then restores.
    if (::fchown(to, st.st_uid, st.st_gid) != 0) {
        // Not ours to give away unless privileged; the group may still be possible.
        (void)::fchown(to, static_cast<uid_t>(-1), st.st_gid);
    }
    (void)::fchmod(to, st.st_mode & 07777);
    ssize_t size = ::flistxattr(from, nullptr, 0);
    if (size <= 0) return;
    std::vector<char> names(static_cast<std::size_t>(size));
    size = ::flistxattr(from, names.data(), names.size());
    if (size <= 0) return;
    for (const char* name = names.data(); name < names.data() + size;
         name += std::strlen(name) + 1) {
        ssize_t n = ::fgetxattr(from, name, nullptr, 0);
        if (n < 0) continue;
        std::vector<char> value(static_cast<std::size_t>(n));
        n = ::fgetxattr(from, name, value.data(), value.size());
        if (n < 0) continue;
        (void)::fsetxattr(to, name, value.data(), static_cast<std::size_t>(n), 0);
    }
}

bool hasFreeSpace(const std::string& folder, std::uint64_t needed) {
    struct statvfs vfs {};
    if (::statvfs(folder.c_str(), &vfs) != 0) return false;
    const std::uint64_t available = std::uint64_t(vfs.f_bavail) * vfs.f_frsize;
    return available >= needed + SafeWrite::spaceMargin;
}

std::uint64_t flacCommentSize(const std::map<std::string, std::vector<std::string>>& props) {
    std::uint64_t size = 64; // vendor string and counts
    for (const auto& [key, values] : props)
        for (const auto& v : values)
            size += 4 + key.size() + 1 + v.size();
    return size;
}

} // namespace

bool SafeWrite::isWorkFileName(std::string_view fileName) {
    return fileName.starts_with(tempPrefix) || fileName.starts_with(backupPrefix);
}

namespace {

// A working file of one write and its journal entry: removed, and the entry closed, on
// every way out unless kept. A file that cannot be removed stays recorded, for the
// next start to remove.
class WorkFile {
public:
    WorkFile(WriteJournal& journal, std::string path, std::string entry)
        : journal_(journal), path_(std::move(path)), entry_(std::move(entry)) {}
    ~WorkFile() {
        if (kept_) return;
        if (WriteSeam::unlink(path_.c_str()) != 0 && errno != ENOENT) return;
        journal_.finish(entry_);
    }
    WorkFile(const WorkFile&) = delete;
    WorkFile& operator=(const WorkFile&) = delete;
    const std::string& path() const { return path_; }
    const std::string& entry() const { return entry_; }
    // Leaves the file where it is (it was renamed away, or recovery needs it).
    void keep() { kept_ = true; }

private:
    WriteJournal& journal_;
    std::string path_;
    std::string entry_;
    bool kept_ = false;
};

// Creates a new working file recorded in the journal.
std::optional<std::string> create(WriteJournal& journal, const std::string& path,
                                  std::unique_ptr<WorkFile>& work, Fd& fd) {
    auto entry = journal.intend(path);
    if (!entry) return "no se pudo anotar la escritura en el diario";
    work = std::make_unique<WorkFile>(journal, path, *entry);
    fd.reset(
        WriteSeam::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) return std::string("no se pudo crear la copia: ") + std::strerror(errno);
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !journal.identify(*entry, st.st_dev, st.st_ino))
        return "no se pudo anotar la escritura en el diario";
    return std::nullopt;
}

// Targets whose in-place rewrite could be neither finished nor undone: their backups
// wait for the next start, and no later write may go under them meanwhile.
std::mutex pendingMutex;
std::set<std::pair<dev_t, ino_t>> pendingRestores;

} // namespace

bool SafeWrite::copyInPlace(int from, int to, off_t length) {
    return copyContents(from, to, length) && WriteSeam::ftruncate(to, length) == 0 &&
           WriteSeam::fsync(to) == 0;
}

std::optional<std::string> SafeWrite::write(const std::string& path, const Edit& edit,
                                            std::uint64_t growth) {
    return write(path, edit, growth, Context{});
}

std::optional<std::string> SafeWrite::write(const std::string& requested, const Edit& edit,
                                            std::uint64_t growth, Context context) {
    WriteJournal& journal = context.journal ? *context.journal : WriteJournal::standard();
    auto stopped = [&] { return context.stop && context.stop->load(); };
    // Through a symbolic link the file it leads to is written, in its own folder, and
    // the link stays.
    std::unique_ptr<char, void (*)(void*)> real(::realpath(requested.c_str(), nullptr), std::free);
    if (!real) return std::string("no se pudo abrir: ") + std::strerror(errno);
    const std::string path = real.get();
    const std::string folder = folderOf(path);
    const std::string name = nameOf(path);

    Fd original(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!original) return std::string("no se pudo abrir: ") + std::strerror(errno);
    struct stat st {};
    if (::fstat(original.get(), &st) != 0 || !S_ISREG(st.st_mode)) return "no es un archivo";
    {
        std::lock_guard lock(pendingMutex);
        if (pendingRestores.count({st.st_dev, st.st_ino}))
            return "espera a restaurarse desde su copia de seguridad";
    }
    const bool linked = st.st_nlink > 1;
    // An in-place write needs room for a backup as well as the copy.
    const std::uint64_t copySize = std::uint64_t(st.st_size) + growth;
    if (!hasFreeSpace(folder, linked ? copySize + std::uint64_t(st.st_size) : copySize))
        return "no hay espacio libre suficiente";
    if (::access(path.c_str(), W_OK) != 0) return "el archivo es de solo lectura";

    const std::string pid = std::to_string(::getpid());
    std::unique_ptr<WorkFile> temp;
    Fd tempFd;
    if (auto why = create(journal,
                          folder + "/" + std::string(tempPrefix) + pid + "-" + randomHex() +
                              extensionOf(name),
                          temp, tempFd))
        return why;
    const std::string& tempPath = temp->path();

    if (!copyContents(original.get(), tempFd.get(), st.st_size))
        return "no se pudo copiar el archivo";
    const Container container = containerOf(original.get());

    Expected want;
    {
        auto file = TagLibFile::open(tempPath);
        if (!file) return "no se pudo abrir con TagLib";
        want.audio = file->audioProperties();
        if (!edit(*file)) return "el formato no admite el cambio";
        want.properties = file->properties();
        want.picture = file->picture();
        if ((container == Container::flac || isFlacName(name)) &&
            ((want.picture &&
              want.picture->data.size() + 64 + want.picture->mimeType.size() >= flacBlockLimit) ||
             flacCommentSize(want.properties) >= flacBlockLimit))
            return "la carátula o los tags no caben en un bloque FLAC";
        if (stopped()) return "interrumpido";
        if (!file->save()) return "TagLib no pudo guardar";
    }
    if (auto why = verifyTags(tempPath, want)) return why;
    if (!audioIntact(original.get(), path, tempFd.get(), tempPath, container))
        return "el audio de la copia no es idéntico";
    copyAttributes(original.get(), tempFd.get(), st);
    if (WriteSeam::fsync(tempFd.get()) != 0) return "no se pudo sincronizar la copia";

    // Someone else may have replaced or changed the file since we copied it.
    struct stat now {};
    if (::lstat(path.c_str(), &now) != 0 || now.st_ino != st.st_ino || now.st_dev != st.st_dev ||
        now.st_size != st.st_size || now.st_mtim.tv_sec != st.st_mtim.tv_sec ||
        now.st_mtim.tv_nsec != st.st_mtim.tv_nsec)
        return "el archivo cambió mientras se escribía";
    if (stopped()) return "interrumpido";

    if (!linked) {
        // The new file is in place whatever the folder's sync says afterwards: reporting a
        // failure then would hide a written file.
        if (!AppPaths::replaceWith(tempPath, path))
            return std::string("no se pudo reemplazar: ") + std::strerror(errno);
        temp->keep();
        journal.finish(temp->entry());
        return std::nullopt;
    }

    // Several names share this file: rewrite it in place, behind a synced backup that
    // the journal names, so that whatever stops the rewrite, the next start undoes it.
    std::unique_ptr<WorkFile> backup;
    Fd backupFd;
    if (auto why =
            create(journal, folder + "/" + std::string(backupPrefix) + pid + "-" + randomHex(),
                   backup, backupFd))
        return why;
    if (!copyContents(original.get(), backupFd.get(), st.st_size) ||
        WriteSeam::fsync(backupFd.get()) != 0 ||
        !sameBytes(original.get(), 0, backupFd.get(), 0, st.st_size) ||
        !AppPaths::syncFolder(folder) ||
        !journal.backs(backup->entry(), path, st.st_dev, st.st_ino, st.st_size))
        return "no se pudo crear la copia de seguridad";
    // Before the target is touched the backup can simply go, once the journal says it
    // no longer stands for the target (else it stays for the next start to weigh).
    auto untouched = [&](std::string why) {
        if (!journal.settle(backup->entry())) backup->keep();
        return why;
    };
    if (stopped()) return untouched("interrumpido");

    Fd target(WriteSeam::open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat targetSt {};
    const off_t length = fileSize(tempFd.get());
    if (!target || ::fstat(target.get(), &targetSt) != 0 || targetSt.st_ino != st.st_ino ||
        targetSt.st_dev != st.st_dev)
        return untouched("no se pudo escribir en el archivo");
    auto leaveToNextStart = [&] {
        backup->keep();
        std::lock_guard lock(pendingMutex);
        pendingRestores.insert({st.st_dev, st.st_ino});
    };
    if (length >= 0 && copyInPlace(tempFd.get(), target.get(), length) &&
        sameBytes(tempFd.get(), 0, original.get(), 0, length)) {
        if (journal.settle(backup->entry())) return std::nullopt; // the backup goes now
        // The record may or may not have reached the disk: the file is complete either
        // way, and undoing it now could be cut short behind a record saying it is done.
        leaveToNextStart();
        return "no se pudo anotar la escritura en el diario; el archivo puede volver a su "
               "versión anterior al reiniciar";
    }
    // Undo it now; failing that, at the next start.
    if (!copyInPlace(backupFd.get(), target.get(), st.st_size) || !journal.settle(backup->entry()))
        leaveToNextStart();
    return "no se pudo escribir en el archivo";
}

} // namespace trovan
