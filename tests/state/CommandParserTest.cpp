// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/CommandParser.h"

#include <gtest/gtest.h>

using namespace trovan;
using A = Action::Kind;

TEST(CommandParser, CommandsSynonymsCaseAndQuoting) {
    const std::pair<Action, std::vector<const char*>> cases[] = {
        {Action::addRoot("/x"), {"AGREGAR /x"}},
        {Action::addRoot("~/Music"), {"  add   ~/Music  "}},
        {Action::addRoot("~/Mi música"), {"add \"~/Mi música\""}},
        {Action::addRoot(" lead"), {"add ' lead'"}},
        {Action::addRoot("a\"b"), {"add \"a\"b\""}},
        {Action::addRoot("'x'"), {"add ''x''"}},
        {Action::addRoot("\"x'"), {"add \"x'"}},
        {Action::addRoot("\""), {"add \""}},
        {Action::removeRoot("/x"), {"quitar /x"}},
        {Action::removeRoot("/x y"), {"Remove '/x y'"}},
        {A::listRoots, {"rm", "paths ignored", "rutas"}},
        {Action::reindex(false), {"REINDEXAR", "reindex !"}},
        {Action::reindex(true), {"reindex!", "reindexar!"}},
        {Action::watch(""), {"watch", "VIGILAR  "}},
        {Action::watch("off"), {"watch OFF", "vigilar off"}},
        {A::openEqualizer, {"eq"}},
        {Action::eqEnabled(true), {"eq ON"}},
        {Action::eqEnabled(false), {"eq off"}},
        {Action::eqSave("Rock"), {"eq Save  Rock "}},
        {Action::eqSave("Mi Preset"), {"eq save Mi Preset"}},
        {Action::eqPreset("save"), {"eq save", "eq save   "}},
        {Action::eqPreset("Clásica"), {"eq Clásica"}},
        {Action::seekTo(102), {"seek 1:42", "seek 1::42", "ir 1: 42"}},
        {Action::seekTo(30.5), {"seek 0:30.5"}},
        {Action::seekTo(135), {"seek 1:75"}},
        {Action::seekTo(3723), {"seek 1:02:03"}},
        {Action::seekTo(42), {"seek :42", "ir 42"}},
        {Action::setVolume(1.0f), {"vol 100"}},
        {Action::setVolume(0.0f), {"volumen 0"}},
        {Action::setVolume(static_cast<float>(50.5 / 100.0)), {"vol 50.5"}},
        {A::removeCover, {"cover REMOVE", "CARÁTULA Quitar"}},
        {Action::setCover("a b.jpg"), {"cover \"a b.jpg\""}},
        {Action::setCoverMode("sixel"), {"covers sixel", "CARÁTULAS Sixel", "caratulas sixel"}},
        {A::openQueue, {"queue", "COLA"}},
        {Action::savePlaylist("Mi lista"), {"save Mi lista", "guardar \"Mi lista\""}},
        {Action::loadPlaylist("~/a b.m3u"), {"abrir '~/a b.m3u'", "LOAD ~/a b.m3u"}},
        {Action::exportPlaylist("/x/l.m3u8"), {"exportar /x/l.m3u8"}},
        {Action::deletePlaylist("../x"), {"borrar ../x", "delete ../x"}},
        {Action::setReplayGain("album"), {"rg album", "RG Álbum", "replaygain ALBUM"}},
        {Action::setReplayGain("track"), {"rg pista", "rg track"}},
        {Action::setPreamp(-3.5),
         {"preamp -3.5", "preamp -3,5 dB",
          "preamp \xE2\x88\x92"
          "3.5"}},
        {Action::setCrossfade(4), {"crossfade 4", "FUNDIDO 4.0"}},
        {A::analyzeLoudness, {"analyze", "ANALIZAR"}},
        {A::quit, {"q", "SALIR", "q now"}},
        {A::openHelp, {"ayuda", "H extra"}}};
    for (const auto& [expected, inputs] : cases)
        for (const char* text : inputs) {
            const CommandResult r = CommandParser::parse(text);
            ASSERT_TRUE(std::holds_alternative<Action>(r))
                << text << ": " << std::get<CommandError>(r).message();
            EXPECT_EQ(std::get<Action>(r), expected) << text;
        }
}

TEST(CommandParser, ErrorMessages) {
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {"Falta el argumento: ruta", {"add", "add \t ", "export"}},
        {"Falta el argumento: nombre de la lista", {"save", "guardar  ", "borrar"}},
        {"Falta el argumento: nombre o ruta de la lista", {"load"}},
        {"Falta el argumento: imagen o remove", {"cover"}},
        {"Valor inválido para carátulas: usa auto, kitty, sixel o bloques",
         {"covers iterm", "caratulas 3"}},
        {"Valor inválido para tiempo: usa 1:42",
         {"seek", "seek 1:2:3:4", "seek -5", "seek 1:-2", "seek abc", "seek 1:4x",
          "seek :", "seek nan", "seek inf"}},
        {"Valor inválido para volumen: 0–100",
         {"vol 101", "vol -1", "vol alto", "vol", "vol 5 0", "vol 50%"}},
        {"Valor inválido para watch: on u off", {"watch sí", "watch on off"}},
        {"Falta el argumento: modo (off, track, album o auto)", {"rg"}},
        {"Valor inválido para rg: usa off, track, album o auto", {"rg on", "rg 3"}},
        {"Valor inválido para preamp: de −15 a +15 dB",
         {"preamp", "preamp 16", "preamp abc", "preamp +inf", "preamp -15.5 dB"}},
        {"Valor inválido para crossfade: de 0 a 12 segundos",
         {"crossfade", "crossfade 13", "fundido -1", "crossfade dos", "crossfade nan",
          "crossfade 4s"}},
        {"Comando desconocido: foo (usa :help)", {"foo bar", "FOO"}},
        {"Comando desconocido: canci\xC3\xB3n (usa :help)", {"CANCI\xC3\x93N"}},
        {"Comando desconocido: add\t/x (usa :help)", {"add\t/x"}}, // only spaces split
        {"Comando desconocido:  (usa :help)", {""}},
    };
    for (const auto& [message, inputs] : cases)
        for (const char* text : inputs) {
            const CommandResult r = CommandParser::parse(text);
            ASSERT_TRUE(std::holds_alternative<CommandError>(r)) << text;
            EXPECT_EQ(std::get<CommandError>(r).message(), message) << text;
        }
}
