// SPDX-License-Identifier: GPL-3.0-or-later
#include "library/LibraryStore.h"

#include <sqlite3.h>

#include <sys/stat.h>
#include <unistd.h>
#include <variant>

namespace trovan {

namespace {

constexpr const char* kSetup = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;";
constexpr const char* kVersion = "PRAGMA user_version";
constexpr const char* kLoadAll =
    "SELECT path, mtime, size, title, artist, album_artist, album, genre, year, track, disc, "
    "duration_ms, codec, sample_rate, bitrate, channels, rg_track_gain, rg_track_peak, "
    "rg_album_gain, rg_album_peak FROM tracks";
constexpr const char* kStamps = "SELECT path, mtime, size FROM tracks";
constexpr const char* kUpsertPrefix =
    "INSERT OR REPLACE INTO tracks(path, mtime, size, title, artist, album_artist, album, genre, "
    "year, track, disc, duration_ms, codec, sample_rate, bitrate, channels, rg_track_gain, "
    "rg_track_peak, rg_album_gain, rg_album_peak) VALUES(";
constexpr int kColumns = 20;
// Version 1 had no loudness columns. Its rows are kept and shown as they are; their
// stamps are cleared so that the next scan reads every file again, loudness tags too.
constexpr const char* kMigrateFrom1 = "BEGIN IMMEDIATE;\n"
                                      "ALTER TABLE tracks ADD COLUMN rg_track_gain REAL;\n"
                                      "ALTER TABLE tracks ADD COLUMN rg_track_peak REAL;\n"
                                      "ALTER TABLE tracks ADD COLUMN rg_album_gain REAL;\n"
                                      "ALTER TABLE tracks ADD COLUMN rg_album_peak REAL;\n"
                                      "UPDATE tracks SET mtime = -1;\n"
                                      "PRAGMA user_version = 2;\n"
                                      "COMMIT;";
constexpr const char* kDelete = "DELETE FROM tracks WHERE path = ?";

struct Finalizer {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;

// What a failed call on the cache throws: the flows show it after their own words.
[[noreturn]] void fail(sqlite3* db, const char* what) {
    throw std::runtime_error(std::string(what) + " (" + (db ? sqlite3_errmsg(db) : "cerrada") +
                             ")");
}

// Runs a statement with no result rows (BEGIN, COMMIT, a script).
void exec(sqlite3* db, const char* sql, const char* what) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(db, what);
}

// The statements are fixed text; failing to prepare one means the database is damaged.
Statement prepare(sqlite3* db, const std::string& sql) {
    if (!db) fail(db, "la base de datos está cerrada");
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) {
        sqlite3_finalize(raw);
        fail(db, "la base de datos está dañada");
    }
    return Statement(raw);
}

// Steps a statement to its end; false when SQLite refused this one row (a text too big
// for it). Anything else (a full disk, an I/O error, a lock held too long) is thrown,
// and the transaction is rolled back: a batch is kept whole or not at all.
bool stepToEnd(sqlite3* db, sqlite3_stmt* s) {
    const int rc = sqlite3_step(s);
    static_cast<void>(sqlite3_reset(s));
    if (rc == SQLITE_DONE) return true;
    const int primary = rc & 0xff;
    if ((primary == SQLITE_TOOBIG || primary == SQLITE_CONSTRAINT) && !sqlite3_get_autocommit(db))
        return false;
    fail(db, "no se pudo escribir en la base de datos");
}

bool sameFile(const struct stat& st, std::uint64_t device, std::uint64_t inode) {
    return static_cast<std::uint64_t>(st.st_dev) == device &&
           static_cast<std::uint64_t>(st.st_ino) == inode;
}

std::string text(sqlite3_stmt* s, int column) {
    auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s, column));
    if (!p) return {};
    return std::string(p, static_cast<std::size_t>(sqlite3_column_bytes(s, column)));
}

using Value = std::variant<const std::string*, int64_t, double, std::optional<double>>;

// Binds parameters 1, 2, 3... in order; the first failing result code, else SQLITE_OK.
int bind(sqlite3_stmt* s, std::initializer_list<Value> values) {
    int index = 1;
    for (const auto& v : values) {
        int rc;
        // With its length, so a value holding a NUL is stored whole.
        if (auto* str = std::get_if<const std::string*>(&v))
            rc = sqlite3_bind_text64(s, index, (*str)->data(), (*str)->size(), SQLITE_TRANSIENT,
                                     SQLITE_UTF8);
        else if (auto* i = std::get_if<int64_t>(&v))
            rc = sqlite3_bind_int64(s, index, *i);
        else if (auto* d = std::get_if<double>(&v))
            rc = sqlite3_bind_double(s, index, *d);
        else if (auto& o = std::get<std::optional<double>>(v))
            rc = sqlite3_bind_double(s, index, *o);
        else
            rc = sqlite3_bind_null(s, index);
        if (rc != SQLITE_OK) return rc;
        ++index;
    }
    return SQLITE_OK;
}

// A row whose values cannot be bound (a text too big for SQLite) is skipped, like one
// SQLite refuses to write; any other failure (no memory) is thrown.
bool bound(sqlite3* db, sqlite3_stmt* s, int rc) {
    if (rc == SQLITE_OK) return true;
    static_cast<void>(sqlite3_clear_bindings(s));
    if (rc == SQLITE_TOOBIG || rc == SQLITE_RANGE) return false;
    fail(db, "no se pudo escribir en la base de datos");
}

} // namespace

LibraryStoreError::LibraryStoreError(Kind kind, std::string message)
    : std::runtime_error("open(\"" + message + "\")"), kind_(kind), message_(std::move(message)) {}

void LibraryStore::Closer::operator()(sqlite3* db) const {
    sqlite3_close_v2(db);
}

std::string LibraryStore::schemaScript(int version) {
    return "DROP TABLE IF EXISTS tracks;\n"
           "CREATE TABLE tracks(\n"
           "    path TEXT PRIMARY KEY, mtime REAL NOT NULL, size INTEGER NOT NULL,\n"
           "    title TEXT, artist TEXT, album_artist TEXT, album TEXT, genre TEXT,\n"
           "    year INTEGER, track INTEGER, disc INTEGER, duration_ms INTEGER,\n"
           "    codec TEXT, sample_rate INTEGER, bitrate INTEGER, channels INTEGER,\n"
           "    rg_track_gain REAL, rg_track_peak REAL, rg_album_gain REAL, rg_album_peak REAL\n"
           ") WITHOUT ROWID;\n"
           "PRAGMA user_version = " +
           std::to_string(version) + ";";
}

LibraryStore::LibraryStore(const std::filesystem::path& url) : url_(url) {
    if (url.has_parent_path()) std::filesystem::create_directories(url.parent_path());
    db_ = connect(url_);
    struct stat st {};
    if (::stat(url_.c_str(), &st) == 0) {
        device_ = static_cast<std::uint64_t>(st.st_dev);
        inode_ = static_cast<std::uint64_t>(st.st_ino);
    }
}

LibraryStore::Connection LibraryStore::connect(const std::filesystem::path& url) {
    sqlite3* raw = nullptr;
    int rc =
        sqlite3_open_v2(url.c_str(), &raw,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    Connection db(raw);
    auto failed = [&] {
        return LibraryStoreError(LibraryStoreError::Kind::open,
                                 raw ? sqlite3_errmsg(raw) : url.string());
    };
    if (rc != SQLITE_OK) throw failed();

    // Another Trovan writing the same cache holds it only for a moment: wait for it.
    if (sqlite3_busy_timeout(db.get(), 10000) != SQLITE_OK) throw failed();
    // A file system without shared memory keeps the rollback journal (journal_mode answers
    // with the mode it kept, not with an error); an error here is a cache that cannot be
    // written at all (read-only, a full disk), which must stop the start, not a scan.
    if (sqlite3_exec(db.get(), kSetup, nullptr, nullptr, nullptr) != SQLITE_OK) throw failed();

    // SQLite opens any file lazily; the version read is the first real look at it, so a
    // file that is not a database (or is damaged) fails here, as an open failure.
    sqlite3_stmt* rawVersion = nullptr;
    rc = sqlite3_prepare_v2(db.get(), kVersion, -1, &rawVersion, nullptr);
    Statement version(rawVersion);
    int stepped = rc == SQLITE_OK ? sqlite3_step(version.get()) : rc;
    if (stepped != SQLITE_ROW && stepped != SQLITE_DONE) throw failed();
    int64_t current = stepped == SQLITE_ROW ? sqlite3_column_int64(version.get(), 0) : 0;
    version.reset();
    if (stepped == SQLITE_ROW && current == kSchemaVersion) return db;
    if (stepped == SQLITE_ROW && current == 1) {
        if (sqlite3_exec(db.get(), kMigrateFrom1, nullptr, nullptr, nullptr) == SQLITE_OK)
            return db;
        static_cast<void>(sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr));
        throw failed();
    }
    // Any other version: the cache is thrown away whole and rebuilt by the next scan.
    if (sqlite3_exec(db.get(), schemaScript(kSchemaVersion).c_str(), nullptr, nullptr, nullptr) !=
        SQLITE_OK)
        throw failed();
    return db;
}

void LibraryStore::followFile() {
    if (closed_) return;
    struct stat st {};
    if (db_ && ::stat(url_.c_str(), &st) == 0 && sameFile(st, device_, inode_)) return;
    // The old connection's log lies under the name the new file will use. SQLite keeps
    // the log of a file that moved, and would replay it into the new file: empty it into
    // the old file while it is still open, and if that cannot be done, remove the log
    // once the connection has let go of it. A file there that is not a cache is left
    // alone, and tried again by the next call.
    if (db_) {
        const std::string wal = url_.string() + "-wal";
        struct stat before {};
        const bool hadLog = ::stat(wal.c_str(), &before) == 0;
        static_cast<void>(sqlite3_wal_checkpoint_v2(db_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                    nullptr, nullptr));
        db_.reset();
        struct stat after {};
        if (hadLog && ::stat(wal.c_str(), &after) == 0 && after.st_size > 0 &&
            after.st_ino == before.st_ino && after.st_dev == before.st_dev) {
            ::unlink(wal.c_str());
            ::unlink((url_.string() + "-shm").c_str());
        }
    }
    db_ = connect(url_);
    if (::stat(url_.c_str(), &st) == 0) {
        device_ = static_cast<std::uint64_t>(st.st_dev);
        inode_ = static_cast<std::uint64_t>(st.st_ino);
    }
}

LibraryStore::~LibraryStore() = default;

std::vector<Track> LibraryStore::loadAll() {
    const TrackTable table = loadTable();
    std::vector<Track> tracks;
    tracks.reserve(table.size());
    for (TrackTable::Id id = 0; id < table.size(); ++id)
        tracks.push_back(table.track(id));
    return tracks;
}

TrackTable LibraryStore::loadTable() {
    return load(nullptr);
}

TrackTable LibraryStore::loadUnder(const std::string& folder) {
    return load(&folder);
}

TrackTable LibraryStore::load(const std::string* folder) {
    std::lock_guard lock(mutex_);
    followFile();
    // Every path below "folder/" sorts between "folder/" and "folder0" ('0' follows '/'),
    // so the primary key's index answers it without a scan of the table.
    auto s = prepare(db_.get(), folder ? std::string(kLoadAll) + " WHERE path > ?1 AND path < ?2"
                                       : std::string(kLoadAll));
    auto* st = s.get();
    if (folder) {
        const std::string low = *folder + "/", high = *folder + "0";
        sqlite3_bind_text(st, 1, low.data(), static_cast<int>(low.size()), SQLITE_TRANSIENT);
        sqlite3_bind_text(st, 2, high.data(), static_cast<int>(high.size()), SQLITE_TRANSIENT);
    }
    auto view = [st](int column) {
        auto* p = reinterpret_cast<const char*>(sqlite3_column_text(st, column));
        return p ? std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(st, column)))
                 : std::string_view{};
    };
    TrackTable table;
    TrackTable::Fields f;
    int rc;
    while ((rc = sqlite3_step(st)) == SQLITE_ROW) {
        f.path = view(0);
        f.mtime = sqlite3_column_double(st, 1);
        f.size = sqlite3_column_int64(st, 2);
        f.title = view(3);
        f.artist = view(4);
        f.albumArtist = view(5);
        f.album = view(6);
        f.genre = view(7);
        f.year = sqlite3_column_int64(st, 8);
        f.trackNumber = sqlite3_column_int64(st, 9);
        f.discNumber = sqlite3_column_int64(st, 10);
        f.durationMs = sqlite3_column_int64(st, 11);
        f.codec = view(12);
        f.sampleRate = sqlite3_column_int64(st, 13);
        f.bitrate = sqlite3_column_int64(st, 14);
        f.channels = sqlite3_column_int64(st, 15);
        auto real = [st](int column) -> std::optional<double> {
            if (sqlite3_column_type(st, column) == SQLITE_NULL) return std::nullopt;
            return sqlite3_column_double(st, column);
        };
        f.replayGain = {real(16), real(17), real(18), real(19)};
        table.add(f);
    }
    if (rc != SQLITE_DONE) fail(db_.get(), "no se pudo leer la biblioteca");
    if (folder) return table;
    rowsHint_ = table.size();
    // The pages read on the way are not needed again soon.
    sqlite3_db_release_memory(db_.get());
    return table;
}

void LibraryStore::checkpoint() {
    std::lock_guard lock(mutex_);
    if (!db_) return;
    // A checkpoint that cannot finish (a reader in another process) leaves the log for
    // the next one; everything in it is committed and kept.
    static_cast<void>(sqlite3_wal_checkpoint_v2(db_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                nullptr, nullptr));
}

void LibraryStore::close() {
    std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock || !db_) return;
    static_cast<void>(sqlite3_wal_checkpoint_v2(db_.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                nullptr, nullptr));
    // The last connection to close removes the log.
    closed_ = true;
    if (sqlite3_close(db_.get()) == SQLITE_OK) db_.release();
}

bool LibraryStore::isEmpty() {
    std::lock_guard lock(mutex_);
    followFile();
    auto s = prepare(db_.get(), "SELECT 1 FROM tracks LIMIT 1");
    const int rc = sqlite3_step(s.get());
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) fail(db_.get(), "no se pudo leer la biblioteca");
    return rc == SQLITE_DONE;
}

std::unordered_map<std::string, FileStamp> LibraryStore::stamps() {
    std::lock_guard lock(mutex_);
    followFile();
    auto s = prepare(db_.get(), kStamps);
    std::unordered_map<std::string, FileStamp> out;
    out.reserve(rowsHint_);
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW)
        out.insert_or_assign(text(s.get(), 0), FileStamp{sqlite3_column_double(s.get(), 1),
                                                         sqlite3_column_int64(s.get(), 2)});
    if (rc != SQLITE_DONE) fail(db_.get(), "no se pudo leer la biblioteca");
    rowsHint_ = out.size();
    return out;
}

void LibraryStore::forEachStamp(
    const std::function<void(std::string_view path, const FileStamp&)>& visit) {
    std::lock_guard lock(mutex_);
    followFile();
    auto s = prepare(db_.get(), kStamps);
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
        auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s.get(), 0));
        std::string_view path =
            p ? std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(s.get(), 0)))
              : std::string_view{};
        visit(path, FileStamp{sqlite3_column_double(s.get(), 1), sqlite3_column_int64(s.get(), 2)});
    }
    if (rc != SQLITE_DONE) fail(db_.get(), "no se pudo leer la biblioteca");
}

void LibraryStore::apply(const std::vector<Track>& upserts,
                         const std::vector<std::string>& deletions) {
    Batch batch(*this);
    batch.add(upserts);
    batch.commit(deletions);
}

LibraryStore::Batch::Batch(LibraryStore& store) : store_(store), lock_(store.mutex_) {
    store_.followFile();
    // The write lock is taken here, waiting for another writer up to the busy timeout,
    // rather than at the first row.
    exec(store_.db_.get(), "BEGIN IMMEDIATE", "no se pudo empezar a escribir en la base de datos");
}

LibraryStore::Batch::~Batch() {
    // A failed rollback leaves nothing to undo: SQLite rolls back on its own when the
    // transaction could not go on.
    if (open_ && store_.db_ && !sqlite3_get_autocommit(store_.db_.get()))
        static_cast<void>(sqlite3_exec(store_.db_.get(), "ROLLBACK", nullptr, nullptr, nullptr));
}

void LibraryStore::Batch::add(const std::vector<Track>& upserts) {
    store_.upsert(upserts);
}

void LibraryStore::Batch::commit(const std::vector<std::string>& deletions) {
    store_.remove(deletions);
    if (sqlite3_exec(store_.db_.get(), "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
        std::string message = sqlite3_errmsg(store_.db_.get());
        // A COMMIT that fails leaves the transaction open; nothing of it is kept.
        if (!sqlite3_get_autocommit(store_.db_.get()) &&
            sqlite3_exec(store_.db_.get(), "ROLLBACK", nullptr, nullptr, nullptr) != SQLITE_OK)
            message +=
                "; tampoco se pudo deshacer: " + std::string(sqlite3_errmsg(store_.db_.get()));
        open_ = false;
        throw std::runtime_error("no se pudo guardar la biblioteca (" + message + ")");
    }
    open_ = false;
    lock_.unlock();
}

void LibraryStore::upsert(const std::vector<Track>& upserts) {
    if (upserts.empty()) return;
    std::string sql = kUpsertPrefix;
    for (int i = 0; i < kColumns; ++i)
        sql += i ? ",?" : "?";
    sql += ")";
    auto s = prepare(db_.get(), sql);
    for (const auto& t : upserts) {
        const int rc = bind(s.get(), {&t.path,
                                      t.mtime,
                                      int64_t{t.size},
                                      &t.title,
                                      &t.artist,
                                      &t.albumArtist,
                                      &t.album,
                                      &t.genre,
                                      int64_t{t.year},
                                      int64_t{t.trackNumber},
                                      int64_t{t.discNumber},
                                      int64_t{t.durationMs},
                                      &t.codec,
                                      int64_t{t.sampleRate},
                                      int64_t{t.bitrate},
                                      int64_t{t.channels},
                                      t.replayGain.trackGain,
                                      t.replayGain.trackPeak,
                                      t.replayGain.albumGain,
                                      t.replayGain.albumPeak});
        // A row that cannot be written is skipped.
        if (bound(db_.get(), s.get(), rc)) stepToEnd(db_.get(), s.get());
    }
}

void LibraryStore::remove(const std::vector<std::string>& paths) {
    if (paths.empty()) return;
    auto s = prepare(db_.get(), kDelete);
    for (const auto& path : paths) {
        if (bound(db_.get(), s.get(), bind(s.get(), {&path}))) stepToEnd(db_.get(), s.get());
    }
}

} // namespace trovan
