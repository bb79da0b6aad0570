#include "state/KeyBindings.h"

#include <gtest/gtest.h>

using namespace trovan;
using K = Key::Kind;
using A = Action::Kind;

namespace {
std::vector<std::string> renderHelp() {
    std::vector<std::string> out;
    for (const auto& line : KeyBindings::helpLines()) {
        switch (line.kind) {
        case HelpLine::Kind::blank:
            out.push_back("");
            break;
        case HelpLine::Kind::header:
            out.push_back("## " + line.label);
            break;
        case HelpLine::Kind::entry:
            out.push_back(line.label + " | " + line.description);
            break;
        }
    }
    return out;
}
} // namespace

TEST(KeyBindings, HelpListsEverySectionThenTheCommands) {
    const std::vector<std::string> expected = {
        "## NAVEGACIÓN",
        "Tab | Siguiente panel",
        "Shift+Tab | Panel anterior",
        "← | Panel izquierdo · botón ant.",
        "→ | Panel derecho · botón sig.",
        "↑ k | Subir (Reproductor: vol +)",
        "↓ j | Bajar (Reproductor: vol −)",
        "RePág | Página arriba",
        "AvPág | Página abajo",
        "Inicio | Ir al principio",
        "Fin | Ir al final",
        "Enter | Abrir · reproducir · pulsar",
        "/ | Buscar artista",
        "",
        "## REPRODUCCIÓN",
        "Espacio F8 | Play / pausa",
        "n F9 | Siguiente",
        "p F7 | Anterior (o reiniciar)",
        ", | Retroceder 5 s",
        ". | Avanzar 5 s",
        "< | Retroceder 30 s",
        "> | Avanzar 30 s",
        "0–9 | Saltar al 0 %–90 %",
        "t | Ir a minuto (1:42)",
        "+ | Subir volumen",
        "- | Bajar volumen",
        "m | Silenciar",
        "s | Aleatorio",
        "r | Repetir: no → todo → una",
        "= | Ecualizador",
        "",
        "## EDICIÓN",
        "x | Marcar pista / álbum",
        "Shift+↑ | Extender selección arriba",
        "Shift+↓ | Extender selección abajo",
        "Esc | Limpiar selección",
        "e | Editar tags (formulario)",
        "E | Todos los tags en $EDITOR",
        "l | Ver letra",
        "L | Editar letra en $EDITOR",
        "",
        "## GENERAL",
        ": | Comandos (:help)",
        "? | Esta ayuda",
        "q Ctrl+C | Salir",
        "",
        "## COMANDOS",
        ":add <ruta> | Agregar carpeta y reindexar",
        ":rm <ruta> | Quitar carpeta y reindexar",
        ":paths | Ver / quitar carpetas",
        ":reindex[!] | Reindexar (! relee todo)",
        ":eq [preset|on|off] | Ecualizador",
        ":eq save <nombre> | Guardar preset propio",
        ":seek 1:42 | Ir a minuto",
        ":vol 80 | Volumen",
        ":cover <imagen> | Poner carátula a la selección",
        ":cover remove | Quitar carátula",
        ":q | Salir",
    };
    EXPECT_EQ(renderHelp(), expected);
    // The sections keep their sizes: 12, 15, 8 and 3 rows.
    std::vector<std::size_t> sizes;
    for (const auto& s : KeyBindings::all())
        sizes.push_back(s.bindings.size());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{12, 15, 8, 3}));
}

TEST(KeyBindings, EveryKeyOfTheTableLeadsToItsAction) {
    // Every key listed in the sections reaches that row's action, except the digits.
    for (const auto& section : KeyBindings::all())
        for (const auto& b : section.bindings)
            for (const auto& key : b.keys) {
                auto found = KeyBindings::lookup(key);
                ASSERT_TRUE(found) << KeyBindings::label(key);
                if (b.action.kind != A::seekFraction) {
                    EXPECT_EQ(*found, b.action) << KeyBindings::label(key);
                }
            }
    for (int d = 0; d <= 9; ++d)
        EXPECT_EQ(KeyBindings::lookup(Key::character(std::to_string(d))),
                  Action::seekFraction(d / 10.0));

    const std::pair<Key, Action> pairs[] = {
        {Key::character("k"), Action::move(-1)},
        {Key(K::up), Action::move(-1)},
        {Key::character("j"), Action::move(1)},
        {Key(K::down), Action::move(1)},
        {Key::character(" "), A::togglePlay},
        {Key::function(8), A::togglePlay},
        {Key::character("n"), A::next},
        {Key::function(9), A::next},
        {Key::character("p"), A::previous},
        {Key::function(7), A::previous},
        {Key::character("q"), A::quit},
        {Key::ctrl('c'), A::quit},
        {Key::character("e"), A::editTags},
        {Key::character("E"), A::editAllTags},
        {Key::character("l"), A::toggleLyrics},
        {Key::character("L"), A::editLyrics},
        {Key::character("+"), Action::volumeBy(0.05f)},
        {Key::character("-"), Action::volumeBy(-0.05f)},
        {Key::character("<"), Action::seekBy(-30)},
        {Key(K::shiftDown), Action::extendSelection(1)},
        {Key(K::escape), A::clearSelection},
        {Key(K::backTab), A::focusPrevious},
    };
    for (const auto& [key, act] : pairs)
        EXPECT_EQ(KeyBindings::lookup(key), act) << KeyBindings::label(key);

    for (const Key& absent : {Key::character("z"), Key(K::delete_), Key::function(1),
                              Key::ctrl('a'), Key(K::backspace)})
        EXPECT_FALSE(KeyBindings::lookup(absent)) << KeyBindings::label(absent);
    EXPECT_EQ(KeyBindings::table().size(), 53u); // no key is bound twice
}

TEST(KeyBindings, KeyLabels) {
    EXPECT_EQ(KeyBindings::label(Key::character(" ")), "Espacio");
    EXPECT_EQ(KeyBindings::label(Key::character("ñ")), "ñ");
    EXPECT_EQ(KeyBindings::label(Key::ctrl('w')), "Ctrl+W");
    EXPECT_EQ(KeyBindings::label(Key::function(12)), "F12");
    EXPECT_EQ(KeyBindings::label(Key(K::backspace)), "⌫");
    EXPECT_EQ(KeyBindings::label(Key(K::delete_)), "Supr");
    EXPECT_EQ(KeyBindings::label(Key(K::pageDown)), "AvPág");
    EXPECT_EQ(KeyBindings::label(KeyBinding{{Key(K::up), Key(K::down), Key(K::left)}, A::quit, ""}),
              "↑ ↓ ←");
    EXPECT_EQ(KeyBindings::label(
                  KeyBinding{{Key(K::up), Key(K::down), Key(K::left), Key(K::right)}, A::quit, ""}),
              "↑–→");
}
