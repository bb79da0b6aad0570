#include "state/KeyBindings.h"
#include "text/Text.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace trovan;
using K = Key::Kind;
using A = Action::Kind;

TEST(KeyBindings, HelpListsEverySectionThenTheCommands) {
    std::string text;
    for (const auto& line : KeyBindings::helpLines())
        text += (line.kind == HelpLine::Kind::blank    ? ""
                 : line.kind == HelpLine::Kind::header ? "## " + line.label
                                                       : line.label + " | " + line.description) +
                "\n";
    EXPECT_EQ(
        text,
        "## NAVEGACIÓN\nTab | Siguiente panel\nShift+Tab | Panel anterior\n"
        "← | Panel izquierdo · botón ant.\n→ | Panel derecho · botón sig.\n"
        "↑ k | Subir (Reproductor: vol +)\n↓ j | Bajar (Reproductor: vol −)\n"
        "RePág | Página arriba\nAvPág | Página abajo\nInicio | Ir al principio\n"
        "Fin | Ir al final\nEnter | Abrir · reproducir · pulsar\n/ | Buscar artista\n\n"
        "## REPRODUCCIÓN\nEspacio F8 | Play / pausa\nn F9 | Siguiente\n"
        "p F7 | Anterior (o reiniciar)\n, | Retroceder 5 s\n. | Avanzar 5 s\n"
        "< | Retroceder 30 s\n> | Avanzar 30 s\n0–9 | Saltar al 0 %–90 %\n"
        "t | Ir a minuto (1:42)\n+ | Subir volumen\n- | Bajar volumen\nm | Silenciar\n"
        "s | Aleatorio\nr | Repetir: no → todo → una\n= | Ecualizador\n\n## EDICIÓN\n"
        "x | Marcar pista / álbum\nShift+↑ | Extender selección arriba\n"
        "Shift+↓ | Extender selección abajo\nEsc | Limpiar selección\n"
        "e | Editar tags (formulario)\nE | Todos los tags en $EDITOR\nl | Ver letra\n"
        "L | Editar letra en $EDITOR\n\n## GENERAL\n: | Comandos (:help)\n? | Esta ayuda\n"
        "q Ctrl+C | Salir\n\n## COMANDOS\n:add <ruta> | Agregar carpeta y reindexar\n"
        ":rm <ruta> | Quitar carpeta y reindexar\n:paths | Ver / quitar carpetas\n"
        ":reindex[!] | Reindexar (! relee todo)\n:eq [preset|on|off] | Ecualizador\n"
        ":eq save <nombre> | Guardar preset propio\n:seek 1:42 | Ir a minuto\n:vol 80 | Volumen\n"
        ":cover <imagen> | Poner carátula a la selección\n:cover remove | Quitar carátula\n"
        ":q | Salir\n");
}

TEST(KeyBindings, EveryKeyOfTheTableLeadsToItsAction) {
    int keys = 0;
    for (const auto& section : KeyBindings::all())
        for (const auto& b : section.bindings)
            for (const auto& key : b.keys) {
                ++keys;
                if (b.action.kind != A::seekFraction) {
                    EXPECT_EQ(KeyBindings::lookup(key), b.action) << KeyBindings::label(key);
                }
            }
    EXPECT_EQ(KeyBindings::table().size(), static_cast<std::size_t>(keys)); // none bound twice
    for (int d = 0; d <= 9; ++d)
        EXPECT_EQ(KeyBindings::lookup(Key::character(std::to_string(d))),
                  Action::seekFraction(d / 10.0));
    // The rows themselves say what they mean.
    const std::pair<Key, Action> pairs[] = {{Key::character("k"), Action::move(-1)},
                                            {Key::character(" "), A::togglePlay},
                                            {Key::ctrl('c'), A::quit},
                                            {Key::character("L"), A::editLyrics},
                                            {Key::character("+"), Action::volumeBy(0.05f)},
                                            {Key(K::backTab), A::focusPrevious}};
    for (const auto& [key, act] : pairs)
        EXPECT_EQ(KeyBindings::lookup(key), act) << KeyBindings::label(key);
    for (const Key& absent : {Key::character("z"), Key(K::delete_), Key::function(1),
                              Key::ctrl('a'), Key(K::backspace)})
        EXPECT_FALSE(KeyBindings::lookup(absent)) << KeyBindings::label(absent);
}

// The manual page lists the keys and commands as the help overlay does, row by row: its
// KEYS part has one subsection per help section and one tagged paragraph per binding,
// and its COMMANDS part one per command.
TEST(KeyBindings, ManualPageListsWhatTheHelpLists) {
    std::ifstream page(TROVAN_SOURCE_DIR "/doc/trovan.1");
    ASSERT_TRUE(page) << "doc/trovan.1 is missing";
    auto plain = [](std::string s) {
        if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
        for (std::size_t p; (p = s.find("\\-")) != std::string::npos;)
            s.replace(p, 2, "-");
        return s;
    };
    std::vector<HelpLine> listed;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind(".SH ", 0) == 0) {
            inside = line == ".SH TECLAS" || line == ".SH COMANDOS";
            if (line == ".SH COMANDOS") {
                listed.push_back({});
                listed.push_back({HelpLine::Kind::header, "COMANDOS", {}});
            }
        } else if (inside && line.rfind(".SS ", 0) == 0) {
            if (!listed.empty()) listed.push_back({});
            listed.push_back({HelpLine::Kind::header, text::upper(line.substr(4)), {}});
        } else if (inside && line == ".TP") {
            std::string label, description;
            std::getline(page, label);
            std::getline(page, description);
            ASSERT_EQ(label.rfind(".B ", 0), 0u) << label;
            listed.push_back({HelpLine::Kind::entry, plain(label.substr(3)), plain(description)});
        }
    }
    ASSERT_EQ(listed.size(), KeyBindings::helpLines().size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
        const HelpLine& help = KeyBindings::helpLines()[i];
        EXPECT_EQ(listed[i], help)
            << "help line " << i << ": " << help.label << " | " << help.description
            << "\nmanual: " << listed[i].label << " | " << listed[i].description;
    }
}
