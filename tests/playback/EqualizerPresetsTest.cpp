#include "playback/EqualizerPresets.h"

#include <gtest/gtest.h>

namespace trovan {
namespace {

TEST(EqualizerPresetsTest, AdjustingABandClampsAndMakesItCustom) {
    Settings s;
    s.eqEnabled = false;
    s.eqGains[3] = 11.5f;
    EqualizerPresets::adjustBand(s, 3, 1.0f);
    EXPECT_EQ(s.eqGains[3], 12.0f);
    EqualizerPresets::adjustBand(s, 3, 1.0f);
    EXPECT_EQ(s.eqGains[3], 12.0f);
    EXPECT_EQ(s.eqPreset, "Personalizado");
    EXPECT_TRUE(s.eqEnabled);
    EqualizerPresets::adjustBand(s, 0, -30.0f);
    EXPECT_EQ(s.eqGains[0], -12.0f);

    Settings shortGains;
    shortGains.eqGains = {1, 2};
    EqualizerPresets::adjustBand(shortGains, 9, 1.0f);
    ASSERT_EQ(shortGains.eqGains.size(), 10u);
    EXPECT_EQ(shortGains.eqGains[9], 1.0f);
    EXPECT_EQ(shortGains.eqGains[1], 2.0f);
}

TEST(EqualizerPresetsTest, CyclingThroughTheListWraps) {
    Settings s;
    s.eqPreset = "Acústica";
    EXPECT_EQ(EqualizerPresets::following(s).name, "Plano");
    s.eqPreset = "Plano";
    EXPECT_EQ(EqualizerPresets::preceding(s).name, "Acústica");
    EXPECT_EQ(EqualizerPresets::following(s).name, "Rock");
    s.customPresets = {{"Mío", std::vector<float>(10, 1.0f)},
                       {"Otro", std::vector<float>(10, 2.0f)}};
    EXPECT_EQ(EqualizerPresets::preceding(s).name, "Otro");
    s.eqPreset = "Acústica";
    EXPECT_EQ(EqualizerPresets::following(s).name, "Mío");

    // A hand-adjusted curve is not in the list: p starts over, P from the end.
    EqualizerPresets::adjustBand(s, 2, 1.0f);
    EXPECT_EQ(EqualizerPresets::following(s).name, "Plano");
    EXPECT_EQ(EqualizerPresets::preceding(s).name, "Otro");
    s.eqPreset = "rock"; // compared exactly here
    EXPECT_EQ(EqualizerPresets::following(s).name, "Plano");
}

TEST(EqualizerPresetsTest, SavingRefusesBuiltInNamesAndReplacesMatchingOnes) {
    Settings s;
    s.eqGains = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    auto refused = EqualizerPresets::savePreset(s, "jazz");
    EXPECT_FALSE(refused.ok);
    EXPECT_EQ(refused.message, "jazz es un preset integrado; usa otro nombre");
    EXPECT_TRUE(EqualizerPresets::savePreset(s, "CLÁSICA").ok == false);
    EXPECT_TRUE(s.customPresets.empty());
    EXPECT_EQ(s.eqPreset, "Plano");

    auto first = EqualizerPresets::savePreset(s, "Noche");
    EXPECT_TRUE(first.ok);
    EXPECT_EQ(first.message, "Preset guardado: Noche");
    EXPECT_TRUE(EqualizerPresets::savePreset(s, "Día").ok);
    s.eqGains[0] = -5;
    EXPECT_TRUE(EqualizerPresets::savePreset(s, "NÓCHE").ok); // folds onto "Noche"
    ASSERT_EQ(s.customPresets.size(), 2u);
    EXPECT_EQ(s.customPresets[0].name, "Día");
    EXPECT_EQ(s.customPresets[1].name, "NÓCHE");
    EXPECT_EQ(s.customPresets[1].gains[0], -5.0f);
    EXPECT_EQ(s.eqPreset, "NÓCHE");
}

TEST(EqualizerPresetsTest, ChoosingByNameFoldsAndListsWhatExists) {
    Settings s;
    s.eqEnabled = false;
    EXPECT_TRUE(EqualizerPresets::choosePreset(s, "rôck").ok);
    EXPECT_EQ(s.eqPreset, "Rock");
    EXPECT_EQ(s.eqGains, EQPreset::builtIn()[1].gains);
    EXPECT_TRUE(s.eqEnabled);
    EXPECT_TRUE(EqualizerPresets::choosePreset(s, "MAS GRAVES").ok);
    EXPECT_EQ(s.eqPreset, "Más graves");

    s.customPresets = {{"Mío", std::vector<float>(10, 1.0f)}};
    auto missing = EqualizerPresets::choosePreset(s, "Nada");
    EXPECT_FALSE(missing.ok);
    EXPECT_EQ(missing.message,
              "No existe el preset Nada. Disponibles: Plano, Rock, Pop, Jazz, Clásica, "
              "Electrónica, Más graves, Voces, Acústica, Mío");
    EXPECT_EQ(s.eqPreset, "Más graves");

    EqualizerPresets::applyPreset(s, EQPreset::flat());
    EXPECT_EQ(s.eqPreset, "Plano");
    EXPECT_EQ(s.eqGains, std::vector<float>(10, 0.0f));
}

} // namespace
} // namespace trovan
