// SPDX-License-Identifier: GPL-3.0-or-later
// Every system call a tag write makes, in turn: failed (EIO, ENOSPC, and EINTR where the
// call is retried), or the process killed right before or right after it. Then the next
// start's recovery runs. At every point each file must be its old or its new version
// byte for byte (both decode), a file with two names must keep sharing them, the
// journal must be empty and no working file left. A power cut is modelled too: nothing
// may be renamed over a file, nor a file rewritten in place, before what it relies on
// has been synced.

#include "TagFiles.h"
#include "config/WriteSeam.h"
#include "tags/TagEditor.h"
#include "tags/WriteJournal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
namespace fx = trovan::fixtures;
using namespace trovan;
using fixtures::slurp;

namespace {

constexpr int kUnsynced = 3; // a child's exit code when the power-cut model is broken

enum class Mode { failEIO, failENOSPC, failEINTR, killBefore, killAfter };

std::string folderOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// Tracks what has reached the disk: a file written since its last sync is dirty, and so
// is a folder in which a file was created or renamed.
class PowerCutModel {
public:
    explicit PowerCutModel(std::set<std::string> targets) : targets_(std::move(targets)) {}

    // A description of the broken rule, or empty.
    std::string see(const WriteSeam::Call& call, bool after) {
        switch (call.kind) {
        case WriteCall::open:
            if (after && call.result >= 0) {
                paths_[int(call.result)] = call.path;
                if (call.flags & O_CREAT) dirty_.insert(folderOf(call.path));
            }
            break;
        case WriteCall::copy:
        case WriteCall::write:
        case WriteCall::truncate:
        case WriteCall::journalWrite: {
            if (after) break;
            const std::string& path = paths_[call.fd];
            if (targets_.count(path))
                for (const auto& other : dirty_)
                    if (other != path)
                        return path + " rewritten in place before " + other + " was synced";
            dirty_.insert(path);
            break;
        }
        case WriteCall::fsync:
            if (after && call.result == 0) dirty_.erase(paths_[call.fd]);
            break;
        case WriteCall::rename:
            if (!after && dirty_.count(call.path))
                return std::string(call.path) + " renamed before it was synced";
            if (after && call.result == 0) dirty_.insert(folderOf(call.to));
            break;
        case WriteCall::unlink:
            break;
        }
        return {};
    }

private:
    std::set<std::string> targets_;
    std::map<int, std::string> paths_;
    std::set<std::string> dirty_;
};

struct Scenario {
    std::string name;
    std::vector<fx::Format> formats;
    bool hardLinked = false;
    // Failed calls, cut calls, or both (a batch's points are split in two runs).
    bool failures = true, cuts = true;
};

void putBack(const std::string& path, const std::string& bytes) {
    // In place: a second name must keep sharing the file.
    std::FILE* f = std::fopen(path.c_str(), "r+b");
    ASSERT_TRUE(f) << path;
    ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
    std::fclose(f);
    fs::resize_file(path, bytes.size());
}

bool sameFile(const fs::path& a, const fs::path& b) {
    struct stat x {
    }, y{};
    return ::stat(a.c_str(), &x) == 0 && ::stat(b.c_str(), &y) == 0 && x.st_ino == y.st_ino &&
           x.st_dev == y.st_dev;
}

class FaultInjection : public testing::TestWithParam<Scenario> {};

} // namespace

TEST_P(FaultInjection, EveryCallFailedOrCutLeavesEachFileOldOrNew) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    const Scenario& scenario = GetParam();
    fx::TempDir dir;
    const fs::path music = dir.subdir("musica");
    const fs::path journalFile = dir / "datos" / "escrituras.diario";
    auto journal = std::make_shared<WriteJournal>(journalFile);

    std::vector<std::string> paths;
    for (std::size_t i = 0; i < scenario.formats.size(); ++i)
        paths.push_back(
            tagfiles::copyOf(scenario.formats[i], music, "pista" + std::to_string(i)).string());
    fs::path link;
    if (scenario.hardLinked) {
        link = dir.subdir("otra") / "misma.flac";
        fs::create_hard_link(paths[0], link);
    }
    TagPatch patch;
    patch.changes["TITLE"] = {"Nuevo"};
    // Longer than the padding: the audio has to move.
    patch.changes["COMMENT"] = {std::string(20000, 'c')};

    std::vector<std::string> oldBytes, newBytes;
    for (const auto& p : paths)
        oldBytes.push_back(slurp(p));
    const std::set<std::string> targets(paths.begin(), paths.end());

    // An undisturbed run counts the calls and gives the new versions.
    std::vector<WriteCall> calls;
    {
        PowerCutModel model(targets);
        std::string broken;
        WriteSeam::setHook([&](const WriteSeam::Call& call, bool after) {
            if (!after) calls.push_back(call.kind);
            if (auto why = model.see(call, after); !why.empty() && broken.empty()) broken = why;
            return 0;
        });
        TagEditor editor(nullptr, journal);
        editor.setWorkers(1); // the same calls in the same order in every run
        auto result = editor.apply(patch, paths);
        WriteSeam::setHook(nullptr);
        ASSERT_TRUE(result.failed.empty());
        ASSERT_TRUE(broken.empty()) << broken;
    }
    for (const auto& p : paths) {
        newBytes.push_back(slurp(p));
        ASSERT_NE(newBytes.back(), oldBytes[newBytes.size() - 1]);
        EXPECT_TRUE(fx::decodes(p)) << p;
    }
    if (scenario.hardLinked) {
        ASSERT_TRUE(sameFile(paths[0], link));
    }
    for (std::size_t i = 0; i < paths.size(); ++i)
        putBack(paths[i], oldBytes[i]);
    for (const auto& p : paths)
        EXPECT_TRUE(fx::decodes(p)) << p;
    ASSERT_EQ(journal->openEntries(), 0u);

    const int n = static_cast<int>(calls.size());
    int points = 0;
    for (int i = 0; i < n; ++i) {
        const WriteCall kind = calls[static_cast<std::size_t>(i)];
        std::vector<Mode> modes;
        if (scenario.failures) {
            modes = {Mode::failEIO, Mode::failENOSPC};
            if (kind == WriteCall::copy || kind == WriteCall::write ||
                kind == WriteCall::journalWrite)
                modes.push_back(Mode::failEINTR);
        }
        if (scenario.cuts) modes.insert(modes.end(), {Mode::killBefore, Mode::killAfter});
        for (Mode mode : modes) {
            SCOPED_TRACE("call " + std::to_string(i) + " of " + std::to_string(n) + ", mode " +
                         std::to_string(int(mode)));
            ++points;
            const pid_t child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                PowerCutModel model(targets);
                int seen = 0;
                WriteSeam::setHook([&](const WriteSeam::Call& call, bool after) {
                    if (auto why = model.see(call, after); !why.empty()) {
                        std::fprintf(stderr, "%s\n", why.c_str());
                        ::_exit(kUnsynced);
                    }
                    if (after) {
                        if (seen - 1 == i && mode == Mode::killAfter) ::raise(SIGKILL);
                        return 0;
                    }
                    if (seen++ != i) return 0;
                    switch (mode) {
                    case Mode::failEIO:
                        return EIO;
                    case Mode::failENOSPC:
                        return ENOSPC;
                    case Mode::failEINTR:
                        return EINTR;
                    case Mode::killBefore:
                        ::raise(SIGKILL);
                        return 0;
                    case Mode::killAfter:
                        return 0;
                    }
                    return 0;
                });
                TagEditor editor(nullptr, std::make_shared<WriteJournal>(journalFile));
                editor.setWorkers(1);
                editor.apply(patch, paths);
                ::_exit(0);
            }
            int status = 0;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
            ASSERT_TRUE((WIFEXITED(status) && WEXITSTATUS(status) == 0) || killed)
                << (WIFEXITED(status) && WEXITSTATUS(status) == kUnsynced
                        ? "a power cut here would tear a file"
                        : "the writer crashed");

            // The next start.
            auto recovery = WriteJournal(journalFile).recover();
            for (const auto& message : recovery.messages)
                ADD_FAILURE() << "recovery said: " << message;
            EXPECT_EQ(WriteJournal(journalFile).openEntries(), 0u) << slurp(journalFile);
            for (std::size_t f = 0; f < paths.size(); ++f) {
                const std::string now = slurp(paths[f]);
                EXPECT_TRUE(now == oldBytes[f] || now == newBytes[f])
                    << paths[f] << " is neither old nor new";
            }
            if (scenario.hardLinked) {
                EXPECT_TRUE(sameFile(paths[0], link)) << "link split";
            }
            EXPECT_TRUE(tagfiles::workFiles(music).empty());
            if (HasFailure()) return;
            for (std::size_t f = 0; f < paths.size(); ++f)
                putBack(paths[f], oldBytes[f]);
        }
    }
    std::printf("[ %s ] %d calls, %d points checked\n", scenario.name.c_str(), n, points);
    EXPECT_GT(n, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Writes, FaultInjection,
    testing::Values(Scenario{"flac", {fx::Format::flac}}, Scenario{"mp3", {fx::Format::mp3}},
                    Scenario{"m4a", {fx::Format::aac}}, Scenario{"ogg", {fx::Format::vorbis}},
                    Scenario{"enlazado", {fx::Format::flac}, true},
                    Scenario{"lote_fallos",
                             {fx::Format::flac, fx::Format::mp3, fx::Format::vorbis},
                             false,
                             true,
                             false},
                    Scenario{"lote_cortes",
                             {fx::Format::flac, fx::Format::mp3, fx::Format::vorbis},
                             false,
                             false,
                             true}),
    [](const testing::TestParamInfo<Scenario>& info) { return info.param.name; });
