// SPDX-License-Identifier: GPL-3.0-or-later
#include "config/SettingsStore.h"
#include "config/AppPaths.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

TEST(SettingsStore, MissingPartialAndBrokenFiles) {
    fx::TempDir dir;
    SettingsStore store(dir / "config.json");
    EXPECT_EQ(store.load(), Settings{});
    EXPECT_EQ(store.loadProblem(), "");
    // A wrong value costs only its own key: the folders are still there, and the file as
    // it was is kept aside.
    for (const std::string bad : {"\"volume\": \"loud\"", "\"repeatMode\": \"sometimes\"",
                                  "\"customPresets\": [{\"name\": \"x\"}]"}) {
        std::ofstream(store.url()) << "{" << bad << ", \"roots\": [\"/m\xC3\xBAsica\", 1]}";
        EXPECT_EQ(store.load(), Settings{.roots = {"/m\xC3\xBAsica"}}) << bad;
        EXPECT_NE(store.loadProblem(), "");
        EXPECT_EQ(fs::file_size(dir / "config.json.bak"), fs::file_size(store.url()));
    }
    // Not settings at all: defaults, a message, and the file kept aside before the next
    // save replaces it.
    for (const char* bad : {"", "not json", "[]", "{\"volume\": 0.5"}) {
        std::ofstream(store.url()) << bad;
        EXPECT_EQ(store.load(), Settings{}) << bad;
        EXPECT_NE(store.loadProblem().find("No se pudo leer config.json"), std::string::npos);
        std::ostringstream kept;
        kept << std::ifstream(dir / "config.json.bak").rdbuf();
        EXPECT_EQ(kept.str(), bad);
    }
}

// Every setting reads back as saved, folder names that are not UTF-8 byte for byte, and
// the write leaves no temporary file beside the settings.
TEST(SettingsStore, EverySettingAndAnyFolderNameReadBack) {
    fx::TempDir dir;
    SettingsStore store(dir / "nested" / "deeper" / "config.json");
    const std::vector<float> gains = {1.5f, -2, 0, 0, 0, 0, 0, 0, 0, 12};
    const Settings s{
        .roots = {"/mnt/Caf\xE9 \xC3\xB1", "/a\\b\xFF", "x-bytes:relative", "/m\xC3\xBAsica"},
        .volume = 0.25f,
        .shuffle = true,
        .repeatMode = RepeatMode::one,
        .eqEnabled = false,
        .eqPreset = "Mío",
        .eqGains = gains,
        .customPresets = {{"Mío", gains}, {"Otro", {}}},
        .coverMode = "kitty",
        .watch = false,
        .pollMinutes = 12,
        .replayGain = ReplayGainMode::album,
        .preamp = -3.5,
        .crossfade = 4};
    ASSERT_TRUE(store.save(s));
    EXPECT_EQ(store.load(), s);
    auto entries = fs::directory_iterator(store.url().parent_path());
    EXPECT_EQ(std::distance(fs::begin(entries), fs::end(entries)), 1);
    std::ostringstream text;
    text << std::ifstream(store.url()).rdbuf();
    EXPECT_NE(text.str().find("\"x-bytes:/mnt/Caf\\\\xE9 \xC3\xB1\""), std::string::npos)
        << text.str();
    EXPECT_NE(text.str().find("\"/m\xC3\xBAsica\""), std::string::npos); // UTF-8 as it was

    // A file written before escapes existed, with a backslash and "\x" in a name.
    std::ofstream(store.url()) << R"({"roots": ["/old\\xE9", "/plain"]})";
    EXPECT_EQ(store.load().roots, (std::vector<std::string>{"/old\\xE9", "/plain"}));
}

TEST(SettingsStore, WritesThroughALinkAndKeepsAnotherInstancesChanges) {
    fx::TempDir dir;
    fs::create_directories(dir / "dotfiles");
    fs::create_symlink("dotfiles/trovan.json", dir / "config.json");
    SettingsStore ours(dir / "config.json"), theirs(dir / "config.json");
    ASSERT_TRUE(ours.save(Settings{.roots = {"/a"}}));
    EXPECT_TRUE(fs::is_symlink(dir / "config.json"));
    EXPECT_EQ(SettingsStore(dir / "dotfiles" / "trovan.json").load().roots,
              std::vector<std::string>{"/a"});

    // The other instance adds a folder and turns shuffle on; this one, unaware, adds
    // another folder, removes "/a" and changes the volume.
    Settings other = theirs.load();
    other.roots.push_back("/b");
    other.shuffle = true;
    ASSERT_TRUE(theirs.save(other));
    ASSERT_TRUE(ours.save(Settings{.roots = {"/c"}, .volume = 0.3f}));
    EXPECT_EQ(SettingsStore(dir / "config.json").load(),
              (Settings{.roots = {"/b", "/c"}, .volume = 0.3f, .shuffle = true}));
    // And the other instance's next save keeps this one's.
    other.repeatMode = RepeatMode::all;
    ASSERT_TRUE(theirs.save(other));
    EXPECT_EQ(SettingsStore(dir / "config.json").load(), (Settings{.roots = {"/b", "/c"},
                                                                   .volume = 0.3f,
                                                                   .shuffle = true,
                                                                   .repeatMode = RepeatMode::all}));
}

TEST(SettingsStore, LaterSavesWaitForQuietAndReportFailuresOnce) {
    fx::TempDir dir;
    std::vector<std::string> reports;
    std::mutex m;
    SettingsStore store(dir / "config.json", std::chrono::seconds(5));
    for (int i = 1; i <= 5; ++i)
        store.saveLater(Settings{.volume = 0.1f * static_cast<float>(i)});
    EXPECT_FALSE(fs::exists(store.url())); // not yet: the keys may go on
    store.flush();                         // quitting: at once, the last ones
    EXPECT_FLOAT_EQ(SettingsStore(store.url()).load().volume, 0.5f);
    // Left alone, the writer gets there by itself.
    SettingsStore quick(dir / "config.json", std::chrono::milliseconds(20));
    quick.saveLater(Settings{.volume = 0.7f});
    for (int i = 0; i < 500 && SettingsStore(store.url()).load().volume != 0.7f; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FLOAT_EQ(SettingsStore(store.url()).load().volume, 0.7f);

    // A data folder that cannot be written: one message, the settings kept in memory.
    std::ofstream(dir / "plain") << "x";
    SettingsStore blocked(dir / "plain" / "config.json", std::chrono::milliseconds(300));
    blocked.onFailure([&](const std::string& text) {
        std::lock_guard lock(m);
        reports.push_back(text);
    });
    for (float v : {0.2f, 0.3f}) {
        blocked.saveLater(Settings{.volume = v});
        blocked.flush();
    }
    std::lock_guard lock(m);
    EXPECT_EQ(reports.size(), 1u);
}

// Nothing is created in the data folder before the first save.
TEST(AppPaths, DataFolderIsMadeOnlyBySaving) {
    unsetenv("TROVAN_HOME");
    setenv("XDG_DATA_HOME", "", 1);
    setenv("HOME", "/home/ana", 1);
    EXPECT_EQ(AppPaths::support(), fs::path("/home/ana/.local/share/Trovan"));
    fx::TempDir dir;
    auto folder = dir / "x";
    setenv("TROVAN_HOME", folder.c_str(), 1);
    EXPECT_EQ(AppPaths::libraryFile(), folder / "library.sqlite");
    SettingsStore store(AppPaths::configFile());
    EXPECT_EQ(store.load(), Settings{});
    EXPECT_FALSE(fs::exists(folder));
    ASSERT_TRUE(store.save(Settings{}));
    EXPECT_TRUE(fs::exists(folder / "config.json"));
    unsetenv("TROVAN_HOME");
}
