#include "library/SettingsStore.h"
#include "library/AppPaths.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

using namespace trovan;
namespace fx = trovan::fixtures;
namespace fs = std::filesystem;

// Their names and order show in the equalizer's "no such preset" message.
TEST(Settings, BuiltInPresetsHaveTenBands) {
    for (const auto& p : EQPreset::builtIn())
        EXPECT_EQ(p.gains.size(), 10u) << p.name;
}

TEST(SettingsStore, MissingPartialAndBrokenFiles) {
    fx::TempDir dir;
    SettingsStore store(dir / "config.json");
    EXPECT_EQ(store.load(), Settings{});

    std::ofstream(store.url()) << R"({"volume": 0.5})";
    EXPECT_EQ(store.load(), Settings{.volume = 0.5f});

    std::ofstream(store.url()) << R"({"volume": 3.0, "unknown": [1, 2], "shuffle": null})";
    EXPECT_FLOAT_EQ(store.load().volume, 3.0f); // taken as it is; clamped when changed

    for (const char* bad :
         {"", "not json", "[]", "{\"volume\": \"loud\"}", "{\"shuffle\": 1}",
          "{\"repeatMode\": \"sometimes\"}", "{\"roots\": \"/music\"}", "{\"roots\": [1]}",
          "{\"eqGains\": [1, \"a\"]}", "{\"customPresets\": [{\"name\": \"x\"}]}",
          "{\"customPresets\": [{\"gains\": []}]}", "{\"volume\": 0.5"}) {
        std::ofstream(store.url()) << bad;
        EXPECT_EQ(store.load(), Settings{}) << bad;
    }
}

TEST(SettingsStore, SavesSortedIndentedJsonThatReadsBack) {
    fx::TempDir dir;
    SettingsStore store(dir / "nested" / "deeper" / "config.json");
    const std::vector<float> gains = {1.5f, -2, 0, 0, 0, 0, 0, 0, 0, 12};
    Settings s{{"/música/uno", "/b"},         0.8f, true, RepeatMode::one, false, "Mío", gains,
               {{"Mío", gains}, {"Otro", {}}}};
    ASSERT_TRUE(store.save(s));
    EXPECT_EQ(store.load(), s);

    std::ostringstream read;
    read << std::ifstream(store.url()).rdbuf();
    const auto text = read.str();
    std::size_t at = 0; // keys in order, indented by two
    for (const char* key : {"customPresets", "eqEnabled", "eqGains", "eqPreset", "repeatMode",
                            "roots", "shuffle", "volume"})
        EXPECT_NE(at = text.find(std::string("\n  \"") + key + "\": ", at), std::string::npos)
            << key;
    EXPECT_NE(text.find("\"volume\": 0.8\n"), std::string::npos) << text;

    // Saving again replaces the file and leaves no temporary files behind.
    s.volume = 0.25f;
    ASSERT_TRUE(store.save(s));
    EXPECT_FLOAT_EQ(store.load().volume, 0.25f);
    auto entries = fs::directory_iterator(store.url().parent_path());
    EXPECT_EQ(std::distance(fs::begin(entries), fs::end(entries)), 1);

    // A folder that cannot exist: the save fails quietly.
    std::ofstream(dir / "plain") << "x";
    EXPECT_FALSE(SettingsStore(dir / "plain" / "config.json").save(s));
}

// The environment decides the data folder; nothing is created before the first save.
TEST(AppPaths, DataFolder) {
    unsetenv("TROVAN_HOME");
    setenv("XDG_DATA_HOME", "/data", 1);
    EXPECT_EQ(AppPaths::support(), fs::path("/data/Trovan"));
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
