#include "state/CommandParser.h"

#include <gtest/gtest.h>

using namespace trovan;

namespace {
Action action(std::string_view text) {
    auto r = CommandParser::parse(text);
    if (auto* a = std::get_if<Action>(&r)) return *a;
    ADD_FAILURE() << "\"" << text << "\" failed: " << std::get<CommandError>(r).message();
    return {};
}
std::string error(std::string_view text) {
    auto r = CommandParser::parse(text);
    if (auto* e = std::get_if<CommandError>(&r)) return e->message();
    ADD_FAILURE() << "\"" << text << "\" gave " << std::get<Action>(r);
    return {};
}
} // namespace

TEST(CommandParser, FoldersAndQuoting) {
    EXPECT_EQ(action("AGREGAR /x"), Action::addRoot("/x"));
    EXPECT_EQ(action("  add   ~/Music  "), Action::addRoot("~/Music"));
    EXPECT_EQ(action("add \"~/Mi música\""), Action::addRoot("~/Mi música"));
    EXPECT_EQ(action("add ' lead'"), Action::addRoot(" lead"));
    EXPECT_EQ(action("add \"a\"b\""), Action::addRoot("a\"b"));
    EXPECT_EQ(error("add"), "Falta el argumento: ruta");
    EXPECT_EQ(error("add \t "), "Falta el argumento: ruta");
    EXPECT_EQ(action("rm"), Action(Action::Kind::listRoots));
    EXPECT_EQ(action("quitar /x"), Action::removeRoot("/x"));
    EXPECT_EQ(action("Remove '/x y'"), Action::removeRoot("/x y"));
    EXPECT_EQ(action("paths ignored"), Action(Action::Kind::listRoots));
    EXPECT_EQ(action("rutas"), Action(Action::Kind::listRoots));
    // Tabs do not split the word from its argument.
    EXPECT_EQ(error("add\t/x"), "Comando desconocido: add\t/x (usa :help)");
}

TEST(CommandParser, Reindex) {
    EXPECT_EQ(action("reindex"), Action::reindex(false));
    EXPECT_EQ(action("REINDEXAR"), Action::reindex(false));
    EXPECT_EQ(action("reindex!"), Action::reindex(true));
    EXPECT_EQ(action("reindexar!"), Action::reindex(true));
    EXPECT_EQ(action("reindex !"), Action::reindex(false));
}

TEST(CommandParser, Equalizer) {
    EXPECT_EQ(action("eq"), Action(Action::Kind::openEqualizer));
    EXPECT_EQ(action("eq ON"), Action::eqEnabled(true));
    EXPECT_EQ(action("eq off"), Action::eqEnabled(false));
    EXPECT_EQ(action("eq Save  Rock "), Action::eqSave("Rock"));
    EXPECT_EQ(action("eq save Mi Preset"), Action::eqSave("Mi Preset"));
    EXPECT_EQ(action("eq save"), Action::eqPreset("save"));
    EXPECT_EQ(action("eq save   "), Action::eqPreset("save"));
    EXPECT_EQ(action("eq Clásica"), Action::eqPreset("Clásica"));
    EXPECT_EQ(CommandParser::parseEqualizer("save   "),
              CommandResult(CommandError::missingArgument("nombre")));
    EXPECT_EQ(CommandError::missingArgument("nombre").message(), "Falta el argumento: nombre");
}

TEST(CommandParser, SeekTimes) {
    EXPECT_EQ(action("seek 1:42"), Action::seekTo(102));
    EXPECT_EQ(action("ir 90"), Action::seekTo(90));
    EXPECT_EQ(action("seek 1::42"), Action::seekTo(102));
    EXPECT_EQ(action("seek 0:30.5"), Action::seekTo(30.5));
    EXPECT_EQ(action("seek 1:75"), Action::seekTo(135));
    EXPECT_EQ(action("seek 1:02:03"), Action::seekTo(3723));
    EXPECT_EQ(action("seek :42"), Action::seekTo(42));
    EXPECT_EQ(action("seek 1: 42"), Action::seekTo(102));
    for (const char* bad : {"seek", "seek 1:2:3:4", "seek -5", "seek 1:-2", "seek abc", "seek 1:4x",
                            "seek :", "seek nan", "seek inf"})
        EXPECT_EQ(error(bad), "Valor inválido para tiempo: usa 1:42") << bad;
    EXPECT_EQ(CommandParser::parseTime("2:00"), 120.0);
    EXPECT_FALSE(CommandParser::parseTime(""));
    EXPECT_FALSE(CommandParser::parseTime("1 2"));
}

TEST(CommandParser, Volume) {
    EXPECT_EQ(action("vol 100"), Action::setVolume(1.0f));
    EXPECT_EQ(action("volumen 0"), Action::setVolume(0.0f));
    EXPECT_EQ(action("vol 50.5"), Action::setVolume(static_cast<float>(50.5 / 100.0)));
    EXPECT_FLOAT_EQ(action("vol 50.5").volume(), 0.505f);
    for (const char* bad : {"vol 101", "vol -1", "vol alto", "vol", "vol 5 0", "vol 50%"})
        EXPECT_EQ(error(bad), "Valor inválido para volumen: 0–100") << bad;
}

TEST(CommandParser, Covers) {
    EXPECT_EQ(action("cover REMOVE"), Action(Action::Kind::removeCover));
    EXPECT_EQ(action("carátula quitar"), Action(Action::Kind::removeCover));
    EXPECT_EQ(action("CARÁTULA Quitar"), Action(Action::Kind::removeCover));
    EXPECT_EQ(action("cover \"a b.jpg\""), Action::setCover("a b.jpg"));
    EXPECT_EQ(action("caratula /tmp/x.png"), Action::setCover("/tmp/x.png"));
    EXPECT_EQ(error("cover"), "Falta el argumento: imagen o remove");
}

TEST(CommandParser, QuitHelpAndUnknown) {
    for (const char* q : {"q", "quit", "SALIR", "q now"})
        EXPECT_EQ(action(q), Action(Action::Kind::quit)) << q;
    for (const char* h : {"help", "ayuda", "h", "H extra"})
        EXPECT_EQ(action(h), Action(Action::Kind::openHelp)) << h;
    EXPECT_EQ(error("foo bar"), "Comando desconocido: foo (usa :help)");
    EXPECT_EQ(error("FOO"), "Comando desconocido: foo (usa :help)");
    EXPECT_EQ(error("CANCI\xC3\x93N"), "Comando desconocido: canci\xC3\xB3n (usa :help)");
    EXPECT_EQ(error(""), "Comando desconocido:  (usa :help)");
}

TEST(CommandParser, Unquote) {
    EXPECT_EQ(CommandParser::unquote("\"x\""), "x");
    EXPECT_EQ(CommandParser::unquote("'x'"), "x");
    EXPECT_EQ(CommandParser::unquote("\"\""), "");
    EXPECT_EQ(CommandParser::unquote("\""), "\"");
    EXPECT_EQ(CommandParser::unquote("\"x'"), "\"x'");
    EXPECT_EQ(CommandParser::unquote("''x''"), "'x'");
    EXPECT_EQ(CommandParser::unquote("x"), "x");
}
