// SPDX-License-Identifier: GPL-3.0-or-later
#include "tags/WriteJournal.h"

#include "config/AppPaths.h"
#include "config/WriteSeam.h"
#include "tags/Fd.h"
#include "tags/SafeWrite.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace trovan {

namespace {

std::uint32_t crc32(std::string_view bytes) {
    std::uint32_t crc = 0xffffffffu;
    for (unsigned char c : bytes) {
        crc ^= c;
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

// Paths may hold any byte but NUL: tabs, newlines and '%' are written as %XX.
std::string escape(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == '%' || c == 0x7f) {
            char buf[4];
            std::snprintf(buf, sizeof buf, "%%%02X", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::optional<std::string> unescape(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        unsigned value = 0;
        for (int k = 1; k <= 2; ++k) {
            const char h = text[i + static_cast<std::size_t>(k)];
            value <<= 4;
            if (h >= '0' && h <= '9')
                value |= unsigned(h - '0');
            else if (h >= 'A' && h <= 'F')
                value |= unsigned(h - 'A' + 10);
            else
                return std::nullopt;
        }
        out += static_cast<char>(value);
        i += 2;
    }
    return out;
}

std::vector<std::string> splitTabs(std::string_view line) {
    std::vector<std::string> out;
    std::size_t start = 0;
    for (;;) {
        auto tab = line.find('\t', start);
        out.emplace_back(line.substr(start, tab == std::string_view::npos ? tab : tab - start));
        if (tab == std::string_view::npos) return out;
        start = tab + 1;
    }
}

std::string line(const std::vector<std::string>& fields) {
    std::string body;
    for (const auto& f : fields) {
        if (!body.empty()) body += '\t';
        body += f;
    }
    char sum[12];
    std::snprintf(sum, sizeof sum, "\t%08x\n", crc32(body));
    return body + sum;
}

bool parseNumber(const std::string& text, std::uint64_t& out) {
    if (text.empty() || text.size() > 20) return false;
    out = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        const std::uint64_t digit = std::uint64_t(c - '0');
        if (out > (UINT64_MAX - digit) / 10) return false;
        out = out * 10 + digit;
    }
    return true;
}

// When the process started, in clock ticks since boot: with its pid it names a process
// for good, where a pid alone is reused.
std::optional<std::uint64_t> startOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(in, stat)) return std::nullopt;
    auto close = stat.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream rest(stat.substr(close + 1));
    std::string field;
    // Fields 3 to 22; the start time is the 22nd.
    for (int i = 3; i <= 22; ++i)
        if (!(rest >> field)) return std::nullopt;
    std::uint64_t start = 0;
    if (!parseNumber(field, start)) return std::nullopt;
    return start;
}

std::string selfToken() {
    // Worked out again in a forked child, which is a process of its own.
    static std::mutex mutex;
    static pid_t cachedPid = 0;
    static std::string token;
    std::lock_guard lock(mutex);
    const pid_t pid = ::getpid();
    if (pid != cachedPid) {
        token = std::to_string(pid) + "-" + std::to_string(startOf(pid).value_or(0));
        cachedPid = pid;
    }
    return token;
}

// An entry is named "<pid>-<start>-<n>": is the process that wrote it still running?
bool writerAlive(const std::string& entry) {
    auto dash = entry.find('-');
    auto second = entry.find('-', dash == std::string::npos ? dash : dash + 1);
    std::uint64_t pid = 0, start = 0;
    if (dash == std::string::npos || second == std::string::npos ||
        !parseNumber(entry.substr(0, dash), pid) ||
        !parseNumber(entry.substr(dash + 1, second - dash - 1), start) || pid == 0 ||
        pid > std::uint64_t(INT32_MAX))
        return false;
    auto now = startOf(static_cast<pid_t>(pid));
    return now && *now == start;
}

struct Entry {
    std::vector<std::string> records; // as read, for the ones kept
    std::string path;
    uid_t owner = 0;
    bool identified = false;
    dev_t device = 0;
    ino_t inode = 0;
    bool backup = false;
    std::string target;
    dev_t targetDevice = 0;
    ino_t targetInode = 0;
    off_t size = 0;
    bool settled = false;
    bool finished = false;
};

std::string nameOf(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string folderOf(const std::string& path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Opens a recorded file without following a link, and only if it is still the regular
// file, of this user, that was recorded. `-1` with `mismatch` set when something else is
// there now; `-1` alone when nothing is.
int openRecorded(const std::string& path, int flags, uid_t owner, bool identified, dev_t device,
                 ino_t inode, bool& mismatch) {
    mismatch = false;
    const int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        mismatch = errno != ENOENT;
        return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::getuid() ||
        st.st_uid != owner || (identified && (st.st_dev != device || st.st_ino != inode)) ||
        (!identified && st.st_nlink != 1)) {
        ::close(fd);
        mismatch = true;
        return -1;
    }
    return fd;
}

} // namespace

WriteJournal::WriteJournal(std::filesystem::path file) : file_(std::move(file)) {}

WriteJournal::~WriteJournal() {
    if (fd_ >= 0) ::close(fd_);
}

std::filesystem::path WriteJournal::standardFile() {
    return AppPaths::support() / "escrituras.diario";
}

WriteJournal& WriteJournal::standard() {
    static WriteJournal journal(standardFile());
    return journal;
}

int WriteJournal::lockedFd() {
    for (int attempt = 0; attempt < 8; ++attempt) {
        if (fd_ < 0) {
            std::error_code ec;
            std::filesystem::create_directories(file_.parent_path(), ec);
            fd_ = WriteSeam::open(file_.c_str(),
                                  O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
            if (fd_ < 0) return -1;
            // The journal's own name must outlast a power cut as much as its records.
            if (!AppPaths::syncFolder(file_.parent_path().string())) {
                ::close(fd_);
                fd_ = -1;
                return -1;
            }
        }
        int r;
        while ((r = ::flock(fd_, LOCK_EX)) != 0 && errno == EINTR) {
        }
        if (r != 0) return -1;
        // Another copy of the program may have replaced the file while compacting it:
        // the lock must be on the one that is there now.
        struct stat mine {
        }, there{};
        if (::fstat(fd_, &mine) == 0 && ::lstat(file_.c_str(), &there) == 0 &&
            mine.st_dev == there.st_dev && mine.st_ino == there.st_ino)
            return fd_;
        ::close(fd_);
        fd_ = -1;
    }
    return -1;
}

void WriteJournal::unlock() {
    if (fd_ >= 0) ::flock(fd_, LOCK_UN);
}

bool WriteJournal::append(const std::string& record, bool sync) {
    std::lock_guard lock(mutex_);
    const int fd = lockedFd();
    if (fd < 0) return false;
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0;
    if (ok) {
        ssize_t n;
        while ((n = WriteSeam::journalWrite(fd, record.data(), record.size())) < 0 &&
               errno == EINTR) {
        }
        ok = n == static_cast<ssize_t>(record.size());
        // A part of a line would spoil the next one: take it back.
        if (!ok && n != 0) (void)::ftruncate(fd, st.st_size);
    }
    if (ok && sync) ok = WriteSeam::fsync(fd) == 0;
    unlock();
    return ok;
}

std::optional<std::string> WriteJournal::intend(const std::string& path) {
    std::string entry;
    {
        std::lock_guard lock(mutex_);
        entry = selfToken() + "-" + std::to_string(next_++);
    }
    if (!append(line({"W", entry, std::to_string(::getuid()), escape(path)}), false))
        return std::nullopt;
    return entry;
}

bool WriteJournal::identify(const std::string& entry, dev_t device, ino_t inode) {
    return append(line({"I", entry, std::to_string(device), std::to_string(inode)}), false);
}

bool WriteJournal::backs(const std::string& entry, const std::string& target, dev_t device,
                         ino_t inode, off_t size) {
    return append(line({"B", entry, std::to_string(device), std::to_string(inode),
                        std::to_string(size), escape(target)}),
                  true);
}

bool WriteJournal::settle(const std::string& entry) {
    return append(line({"C", entry}), true);
}

bool WriteJournal::finish(const std::string& entry) {
    return append(line({"D", entry}), false);
}

namespace {

struct Parsed {
    std::map<std::string, Entry> entries;
    std::vector<std::string> order; // entries in the order they began
    int badLines = 0;
    int firstBad = 0;
};

Parsed parse(const std::string& text) {
    Parsed out;
    std::size_t at = 0;
    int number = 0;
    auto bad = [&] {
        if (out.badLines++ == 0) out.firstBad = number;
    };
    while (at < text.size()) {
        ++number;
        auto end = text.find('\n', at);
        if (end == std::string::npos) { // cut short
            bad();
            break;
        }
        const std::string raw = text.substr(at, end - at);
        at = end + 1;
        auto fields = splitTabs(raw);
        if (fields.size() < 3) {
            bad();
            continue;
        }
        const std::string sum = fields.back();
        const std::string body = raw.substr(0, raw.size() - sum.size() - 1);
        char expected[9];
        std::snprintf(expected, sizeof expected, "%08x", crc32(body));
        if (sum != expected) {
            bad();
            continue;
        }
        fields.pop_back();
        const std::string& kind = fields[0];
        const std::string& id = fields[1];
        std::uint64_t a = 0, b = 0, c = 0;
        if (kind == "W" && fields.size() == 4 && parseNumber(fields[2], a)) {
            auto path = unescape(fields[3]);
            if (!path || out.entries.count(id)) {
                bad();
                continue;
            }
            Entry& e = out.entries[id];
            e.path = *path;
            e.owner = static_cast<uid_t>(a);
            e.records.push_back(raw + "\n");
            out.order.push_back(id);
            continue;
        }
        auto it = out.entries.find(id);
        if (it == out.entries.end()) {
            bad();
            continue;
        }
        Entry& e = it->second;
        if (kind == "I" && fields.size() == 4 && parseNumber(fields[2], a) &&
            parseNumber(fields[3], b)) {
            e.identified = true;
            e.device = static_cast<dev_t>(a);
            e.inode = static_cast<ino_t>(b);
        } else if (kind == "B" && fields.size() == 6 && parseNumber(fields[2], a) &&
                   parseNumber(fields[3], b) && parseNumber(fields[4], c) && unescape(fields[5])) {
            e.backup = true;
            e.targetDevice = static_cast<dev_t>(a);
            e.targetInode = static_cast<ino_t>(b);
            e.size = static_cast<off_t>(c);
            e.target = *unescape(fields[5]);
        } else if (kind == "C" && fields.size() == 2) {
            e.settled = true;
        } else if (kind == "D" && fields.size() == 2) {
            e.finished = true;
        } else {
            bad();
            continue;
        }
        e.records.push_back(raw + "\n");
    }
    return out;
}

} // namespace

std::size_t WriteJournal::openEntries() {
    std::ifstream in(file_, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::size_t open = 0;
    for (const auto& [id, e] : parse(text).entries)
        if (!e.finished) ++open;
    return open;
}

WriteJournal::Recovery WriteJournal::recover() {
    Recovery out;
    std::lock_guard lock(mutex_);
    if (::access(file_.c_str(), F_OK) != 0) return out;
    const int fd = lockedFd();
    if (fd < 0) {
        out.messages.push_back("No se pudo abrir el diario de escrituras " + file_.string() + ": " +
                               std::strerror(errno));
        return out;
    }
    struct Unlock {
        WriteJournal* self;
        ~Unlock() { self->unlock(); }
    } unlockLater{this};

    std::string text;
    {
        char buf[65536];
        off_t at = 0;
        ssize_t n;
        while ((n = ::pread(fd, buf, sizeof buf, at)) > 0 || (n < 0 && errno == EINTR))
            if (n > 0) {
                text.append(buf, static_cast<std::size_t>(n));
                at += n;
            }
    }
    Parsed parsed = parse(text);
    if (parsed.badLines > 0) {
        // Whatever those lines said is kept for a person to read; nothing is done on
        // their account.
        const std::string copy = file_.string() + ".dañado";
        std::ofstream(copy, std::ios::binary | std::ios::trunc) << text;
        out.messages.push_back("El diario de escrituras tenía " + std::to_string(parsed.badLines) +
                               " línea(s) ilegible(s) (la primera, la " +
                               std::to_string(parsed.firstBad) +
                               "); no se tocó ningún archivo por ellas. Copia en " + copy);
    }

    auto appendLocked = [&](Entry& e, const std::string& record, bool sync) {
        const ssize_t n = WriteSeam::journalWrite(fd, record.data(), record.size());
        e.records.push_back(record);
        return n == static_cast<ssize_t>(record.size()) && (!sync || WriteSeam::fsync(fd) == 0);
    };

    for (const auto& id : parsed.order) {
        Entry& e = parsed.entries[id];
        if (e.finished || writerAlive(id)) continue;
        bool mismatch = false;
        if (e.backup && !e.settled) {
            // The target may be half rewritten: put the backup's bytes back.
            Fd from(
                openRecorded(e.path, O_RDONLY, e.owner, e.identified, e.device, e.inode, mismatch));
            Fd to(from ? openRecorded(e.target, O_WRONLY, e.owner, true, e.targetDevice,
                                      e.targetInode, mismatch)
                       : -1);
            struct stat st {};
            if (!from) {
                out.messages.push_back("Falta la copia de seguridad de " + nameOf(e.target) +
                                       (mismatch ? " (hay otro archivo en su lugar)" : "") +
                                       "; no se restauró");
                e.finished = true;
                continue;
            }
            if (!to || ::fstat(from.get(), &st) != 0 || st.st_size != e.size) {
                out.messages.push_back("No se restauró " + e.target +
                                       (to ? ": su copia de seguridad no está completa"
                                           : ": ya no es el archivo que se estaba escribiendo") +
                                       ". La copia queda en " + e.path);
                e.finished = true;
                continue;
            }
            if (!SafeWrite::copyInPlace(from.get(), to.get(), e.size) ||
                !appendLocked(e, line({"C", id}), true)) {
                out.messages.push_back("No se pudo restaurar " + e.target +
                                       "; se intentará de nuevo en el próximo inicio");
                continue;
            }
            e.settled = true;
            ++out.restored;
        }
        Fd work(openRecorded(e.path, O_RDONLY, e.owner, e.identified, e.device, e.inode, mismatch));
        if (work) {
            if (WriteSeam::unlink(e.path.c_str()) != 0) {
                out.messages.push_back("No se pudo borrar " + e.path + ": " + std::strerror(errno));
                continue;
            }
            AppPaths::syncFolder(folderOf(e.path));
            ++out.removed;
        } else if (mismatch) {
            out.messages.push_back("No se tocó " + e.path +
                                   ": no es el archivo que dejó la escritura");
        }
        e.finished = true;
    }

    // Keep only what is still open (writes of running copies, restores to retry).
    std::string kept;
    for (const auto& id : parsed.order) {
        const Entry& e = parsed.entries[id];
        if (e.finished) continue;
        for (const auto& r : e.records)
            kept += r;
    }
    const std::string temp = file_.string() + ".nuevo";
    Fd out2(
        WriteSeam::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    bool ok = static_cast<bool>(out2);
    if (ok && !kept.empty())
        ok = WriteSeam::journalWrite(out2.get(), kept.data(), kept.size()) ==
             static_cast<ssize_t>(kept.size());
    ok = ok && WriteSeam::fsync(out2.get()) == 0 && AppPaths::replaceWith(temp, file_.string());
    if (!ok) {
        ::unlink(temp.c_str());
        out.messages.push_back("No se pudo poner al día el diario de escrituras " + file_.string());
        return out;
    }
    // Our descriptor is on the old file now; the next record opens the new one.
    ::close(fd_);
    fd_ = -1;
    return out;
}

} // namespace trovan
