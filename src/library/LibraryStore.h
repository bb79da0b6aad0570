// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The persistent cache of Track records: one SQLite database (library.sqlite) with one
// table keyed by path. Every operation is serialised on the store's one connection, so
// the controller and a background scan may call it from different threads.

#include "config/FileStamp.h"
#include "library/Track.h"
#include "library/TrackTable.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct sqlite3;

namespace trovan {

// The database could not be opened. what() is the error's textual form,
// `open("<SQLite's message>")`; message() is SQLite's message alone.
class LibraryStoreError : public std::runtime_error {
public:
    enum class Kind { open };
    LibraryStoreError(Kind kind, std::string message);
    Kind kind() const { return kind_; }
    const std::string& message() const { return message_; }

private:
    Kind kind_;
    std::string message_;
};

class LibraryStore {
public:
    static constexpr int kSchemaVersion = 2;

    // Opens or creates the database at `url`, creating its folder. Throws
    // std::filesystem::filesystem_error when the folder cannot be created and
    // LibraryStoreError when SQLite cannot open the file, it is not a database, or it
    // cannot be set up (read-only, a full disk). A cache of another schema version is
    // dropped and recreated empty, except version 1, which gains the loudness columns in
    // place and keeps its rows (with cleared stamps, so the next scan rereads the files).
    // The other operations throw std::runtime_error with a Spanish message when SQLite
    // fails; a write that fails is rolled back whole.
    explicit LibraryStore(const std::filesystem::path& url);
    ~LibraryStore();
    LibraryStore(const LibraryStore&) = delete;
    LibraryStore& operator=(const LibraryStore&) = delete;

    // Every cached track, in no particular order.
    std::vector<Track> loadAll();
    // The same, straight into the compact form the library keeps in memory.
    TrackTable loadTable();
    // The cached tracks whose path lies below `folder` (at any depth).
    TrackTable loadUnder(const std::string& folder);
    // Whether no track is cached (a first scan).
    bool isEmpty();
    // Path to stamp of every cached track.
    std::unordered_map<std::string, FileStamp> stamps();
    // Calls `visit` with the path and stamp of every cached track, without building a
    // table of them first (a rescan compares a hundred thousand of them). `visit` must not
    // call back into the store.
    void forEachStamp(const std::function<void(std::string_view path, const FileStamp&)>& visit);
    // One transaction: insert or replace every upsert (in order), then delete every
    // path in deletions. A row SQLite refuses (too big) is skipped; the rest commits.
    void apply(const std::vector<Track>& upserts, const std::vector<std::string>& deletions);

    // The same transaction spread over time, for a writer whose records arrive in
    // chunks (a first scan stores what it has read while it reads the rest). The store
    // is held from construction to commit(): other callers wait. Destroyed without
    // commit(), it rolls everything back.
    class Batch {
    public:
        explicit Batch(LibraryStore& store);
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;

        // Inserts or replaces the records, in order.
        void add(const std::vector<Track>& upserts);
        // Deletes the paths and commits. Nothing may be called afterwards.
        void commit(const std::vector<std::string>& deletions);

    private:
        LibraryStore& store_;
        std::unique_lock<std::mutex> lock_;
        bool open_ = true;
    };

    // Moves everything in the write-ahead log into the database and empties the log, so
    // the next start has nothing to replay.
    void checkpoint();
    // Checkpoints and closes the connection, unless another caller holds the store; for
    // leaving the program without running destructors. Nothing may be called afterwards.
    void close();

    // The schema script for a version: drops and recreates the table.
    static std::string schemaScript(int version);

private:
    struct Closer {
        void operator()(sqlite3* db) const;
    };
    using Connection = std::unique_ptr<sqlite3, Closer>;

    static Connection connect(const std::filesystem::path& url);
    // With the mutex held: when the file at the store's path is no longer the one the
    // connection has open (deleted, or another file renamed over it), the connection
    // moves to the file now there, so nothing is written into a file nobody will read.
    void followFile();
    TrackTable load(const std::string* folder);
    void upsert(const std::vector<Track>& upserts);
    void remove(const std::vector<std::string>& paths);

    std::mutex mutex_;
    std::filesystem::path url_;
    Connection db_;
    std::uint64_t device_ = 0, inode_ = 0; // of the file the connection has open
    bool closed_ = false;
    std::size_t rowsHint_ = 0; // row count seen last, to size results up front
};

} // namespace trovan
