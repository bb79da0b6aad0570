#include "playback/EqualizerPresets.h"

#include <gtest/gtest.h>

namespace trovan {
namespace {

using P = EqualizerPresets;

TEST(EqualizerPresetsTest, AdjustingABandClampsAndMakesItCustom) {
    Settings s;
    s.eqEnabled = false;
    s.eqGains = {1, 11.5f}; // a short list from an old settings file grows to ten bands
    P::adjustBand(s, 1, 1.0f);
    P::adjustBand(s, 9, -30.0f);
    EXPECT_EQ(s.eqGains, (std::vector<float>{1, 12, 0, 0, 0, 0, 0, 0, 0, -12}));
    EXPECT_EQ(s.eqPreset, "Personalizado");
    EXPECT_TRUE(s.eqEnabled);
}

TEST(EqualizerPresetsTest, CyclingWrapsThroughBuiltInsThenCustoms) {
    Settings s;
    EXPECT_EQ(P::preceding(s).name, "Acústica");
    EXPECT_EQ(P::following(s).name, "Rock");
    s.customPresets = {{"Mío", std::vector<float>(10, 1.0f)}, {"Otro", {}}};
    EXPECT_EQ(P::preceding(s).name, "Otro");
    s.eqPreset = "Acústica";
    EXPECT_EQ(P::following(s).name, "Mío");
    // A hand-adjusted curve is not in the list: forward starts over, backward from the end.
    P::adjustBand(s, 2, 1.0f);
    EXPECT_EQ(P::following(s).name, "Plano");
    EXPECT_EQ(P::preceding(s).name, "Otro");
}

TEST(EqualizerPresetsTest, SavingRefusesBuiltInNamesAndReplacesFoldedMatches) {
    Settings s;
    s.eqGains = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(P::savePreset(s, "jazz").message, "jazz es un preset integrado; usa otro nombre");
    EXPECT_FALSE(P::savePreset(s, "CLÁSICA").ok);
    EXPECT_TRUE(s.customPresets.empty());
    EXPECT_EQ(s.eqPreset, "Plano");

    EXPECT_EQ(P::savePreset(s, "Noche").message, "Preset guardado: Noche");
    EXPECT_TRUE(P::savePreset(s, "Día").ok);
    s.eqGains[0] = -5;
    EXPECT_TRUE(P::savePreset(s, "NÓCHE").ok); // replaces "Noche", now last
    ASSERT_EQ(s.customPresets.size(), 2u);
    EXPECT_EQ(s.customPresets[1].name, "NÓCHE");
    EXPECT_EQ(s.customPresets[1].gains[0], -5.0f);
    EXPECT_EQ(s.eqPreset, "NÓCHE");
}

TEST(EqualizerPresetsTest, ChoosingByNameFoldsAndListsWhatExists) {
    Settings s;
    s.eqEnabled = false;
    EXPECT_TRUE(P::choosePreset(s, "rôck").ok);
    EXPECT_EQ(s.eqPreset, "Rock");
    EXPECT_EQ(s.eqGains, EQPreset::builtIn()[1].gains);
    EXPECT_TRUE(s.eqEnabled);

    s.customPresets = {{"Mío", std::vector<float>(10, 1.0f)}};
    auto missing = P::choosePreset(s, "Nada");
    EXPECT_FALSE(missing.ok);
    EXPECT_EQ(missing.message, "No existe el preset Nada. Disponibles: Plano, Rock, Pop, Jazz, "
                               "Clásica, Electrónica, Más graves, Voces, Acústica, Mío");
    EXPECT_EQ(s.eqPreset, "Rock");
}

} // namespace
} // namespace trovan
