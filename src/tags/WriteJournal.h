// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The record of every working file a tag write makes, kept in the data folder. A write
// notes each file before creating it (its path and owner), then what it turned out to
// be (device and inode), then, for a backup, which file it backs up; and it notes when
// the backup is no longer needed and when the file is gone. After a crash the next
// start reads the journal and puts things right: an unfinished in-place rewrite is
// undone from its backup, working files are removed. Only files recorded here, still
// the very file recorded, regular and the user's own, are ever touched; a file that
// merely looks like one of ours is never trusted.
//
// One line per record, with a checksum; appends are single writes under a lock shared
// with other running copies of the program, which may use the same journal.

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace trovan {

class WriteJournal {
public:
    explicit WriteJournal(std::filesystem::path file);
    ~WriteJournal();
    WriteJournal(const WriteJournal&) = delete;
    WriteJournal& operator=(const WriteJournal&) = delete;

    // The one in the data folder, shared by the whole process.
    static WriteJournal& standard();
    static std::filesystem::path standardFile();
    const std::filesystem::path& file() const { return file_; }

    // Each call below is one record; false when it could not be written, and the write
    // must then not go on. `sync` ones reach the disk before returning.
    // A working file about to be created at `path`: its entry, or none.
    std::optional<std::string> intend(const std::string& path);
    bool identify(const std::string& entry, dev_t device, ino_t inode);
    // The entry's file is a complete, synced copy of `target` (`size` bytes), which may
    // now be rewritten in place. Synced.
    bool backs(const std::string& entry, const std::string& target, dev_t device, ino_t inode,
               off_t size);
    // The target no longer needs its backup (the rewrite is complete, or undone). Synced.
    bool settle(const std::string& entry);
    // The entry's file is gone.
    bool finish(const std::string& entry);

    struct Recovery {
        int restored = 0; // files put back from their backups
        int removed = 0;  // working files removed
        std::vector<std::string> messages;
    };
    // Puts right what every process that is gone left unfinished, and drops its records.
    Recovery recover();
    // Entries not finished yet, of any process.
    std::size_t openEntries();

private:
    bool append(const std::string& record, bool sync);
    int lockedFd(); // mutex_ held; returns the locked descriptor or -1
    void unlock();

    std::filesystem::path file_;
    std::mutex mutex_;
    int fd_ = -1;
    std::uint64_t next_ = 0;
};

} // namespace trovan
