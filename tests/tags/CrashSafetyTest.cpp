// A child process writes tags and covers into a hundred files while the test kills it
// at random moments. However it dies, once the next write in each folder has run, every
// file must be byte for byte the old version or the new one, files with a second name
// must still share it, and no working file of ours may be left beside them.

#include "TagFiles.h"
#include "tags/TagEditor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
namespace fx = trovan::fixtures;
using namespace trovan;
using tagfiles::bytesOf;

namespace {

// Round r's change: tags on even rounds, a new cover on odd ones (none every fourth).
TagWriteResult change(TagEditor& editor, int round, const std::vector<std::string>& paths) {
    if (round % 2 == 0) {
        TagPatch patch;
        patch.changes["TITLE"] = {"Ronda " + std::to_string(round)};
        patch.changes["ARTIST"] = {"Uno",
                                   std::string(static_cast<std::size_t>(round) * 97 + 1, 'x')};
        return editor.apply(patch, paths);
    }
    if (round % 4 == 3) return editor.setPicture(std::nullopt, paths);
    fx::Cover cover;
    cover.width = cover.height = 64 + round * 8;
    cover.color = round % 3 ? "orange" : "navy";
    return editor.setPicture(Picture{fx::image(cover), "image/jpeg"}, paths);
}

} // namespace

TEST(CrashSafety, KilledWritesLeaveEveryFileOldOrNew) {
    if (!fx::available()) GTEST_SKIP() << "ffmpeg is not installed";
    fx::TempDir dir;
    const std::vector<fs::path> folders = {dir.subdir("a"), dir.subdir("b")};
    const fs::path scratch = dir.subdir("scratch");
    const auto& formats = fx::taggableFormats();
    std::vector<std::string> paths;
    // Large enough that a save moving the audio behind a grown tag takes many writes.
    for (int i = 0; i < 100; ++i)
        paths.push_back(tagfiles::copyOf(formats[static_cast<std::size_t>(i) % formats.size()],
                                         folders[static_cast<std::size_t>(i % 2)],
                                         std::to_string(i), 2, fx::Wave::noise)
                            .string());
    // Some files have a second name elsewhere: those are rewritten in place.
    const fs::path links = dir.subdir("links");
    std::vector<std::pair<std::string, fs::path>> linked;
    for (std::size_t i = 0; i < paths.size(); i += 10) {
        linked.emplace_back(paths[i], links / fs::path(paths[i]).filename());
        fs::create_hard_link(linked.back().first, linked.back().second);
    }
    std::vector<std::string> sentinels;
    for (const auto& folder : folders)
        sentinels.push_back(tagfiles::copyOf(fx::Format::flac, folder, "zz-next").string());

    const auto seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    double roundSeconds = 0;
    const int rounds = 16;
    int killedMidway = 0;
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::string> old;
        for (const auto& p : paths)
            old.push_back(bytesOf(p));
        const auto started = std::chrono::steady_clock::now();
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            TagEditor editor(nullptr);
            change(editor, round, paths);
            ::_exit(0);
        }
        // The first round runs to the end and tells how long a round takes.
        if (round > 0) {
            std::uniform_real_distribution<double> at(0, roundSeconds);
            std::this_thread::sleep_for(std::chrono::duration<double>(at(rng)));
            ::kill(child, SIGKILL);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (round == 0) {
            ASSERT_TRUE(WIFEXITED(status));
            roundSeconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        }

        // The next write in each folder finishes what the dead run left behind.
        TagEditor editor(nullptr);
        TagPatch next;
        next.changes["COMMENT"] = {"siguiente " + std::to_string(round)};
        ASSERT_TRUE(editor.apply(next, sentinels).failed.empty());

        // What the change makes of each old version, done again undisturbed. Copies that
        // were equal before the round must be equal after it, so each is done once.
        std::map<std::string, std::string> redone;
        int changed = 0;
        for (std::size_t i = 0; i < paths.size(); ++i) {
            const std::string now = bytesOf(paths[i]);
            if (now == old[i]) continue;
            ++changed;
            auto [it, fresh] = redone.try_emplace(old[i]);
            if (fresh) {
                const fs::path redo = scratch / fs::path(paths[i]).filename();
                std::ofstream(redo, std::ios::binary) << old[i];
                change(editor, round, {redo.string()});
                it->second = bytesOf(redo);
                fs::remove(redo);
            }
            EXPECT_TRUE(now == it->second)
                << paths[i] << " is neither old nor new after round " << round;
        }
        if (round == 0) {
            EXPECT_EQ(changed, 100) << "an undisturbed round refused some files";
        }
        if (changed > 0 && changed < 100) ++killedMidway;
        for (const auto& [path, link] : linked)
            EXPECT_TRUE(bytesOf(link) == bytesOf(path))
                << link << " lost its link in round " << round;
        for (const auto& folder : folders)
            EXPECT_TRUE(tagfiles::workFiles(folder).empty()) << folder << " after round " << round;
    }
    // Not a check of the writes: a test whose kills all miss proves nothing.
    EXPECT_GE(killedMidway, 3);
    std::set<std::string> decoded; // equal bytes decode alike
    for (const auto& p : paths)
        if (decoded.insert(bytesOf(p)).second) {
            EXPECT_TRUE(fx::decodes(p)) << p;
        }
}
