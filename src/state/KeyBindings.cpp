// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/KeyBindings.h"

#include "text/Text.h"

namespace trovan {

namespace {

using K = Key::Kind;
using A = Action::Kind;

Key ch(const char* c) {
    return Key::character(c);
}

std::vector<KeySection> buildSections() {
    std::vector<KeyBinding> digits;
    std::vector<Key> digitKeys;
    for (char d = '0'; d <= '9'; ++d)
        digitKeys.push_back(Key::character(std::string(1, d)));

    return {
        {"Navegación",
         {
             {{K::tab}, A::focusNext, "Siguiente panel"},
             {{K::backTab}, A::focusPrevious, "Panel anterior"},
             {{K::left}, A::left, "Panel izquierdo · botón ant."},
             {{K::right}, A::right, "Panel derecho · botón sig."},
             {{K::up, ch("k")}, Action::move(-1), "Subir (Reproductor: vol +)"},
             {{K::down, ch("j")}, Action::move(1), "Bajar (Reproductor: vol −)"},
             {{K::pageUp}, Action::page(-1), "Página arriba"},
             {{K::pageDown}, Action::page(1), "Página abajo"},
             {{K::home}, A::jumpToStart, "Ir al principio"},
             {{K::end}, A::jumpToEnd, "Ir al final"},
             {{K::enter}, A::activate, "Abrir · reproducir · pulsar"},
             {{ch("/")}, A::openSearch, "Buscar artista"},
         }},
        {"Reproducción",
         {
             {{ch(" "), Key::function(8)}, A::togglePlay, "Play / pausa"},
             {{ch("n"), Key::function(9)}, A::next, "Siguiente"},
             {{ch("p"), Key::function(7)}, A::previous, "Anterior (o reiniciar)"},
             {{ch(",")}, Action::seekBy(-5.0), "Retroceder 5 s"},
             {{ch(".")}, Action::seekBy(5.0), "Avanzar 5 s"},
             {{ch("<")}, Action::seekBy(-30.0), "Retroceder 30 s"},
             {{ch(">")}, Action::seekBy(30.0), "Avanzar 30 s"},
             {digitKeys, Action::seekFraction(0.0), "Saltar al 0 %–90 %"},
             {{ch("t")}, A::openSeekPrompt, "Ir a minuto (1:42)"},
             {{ch("+")}, Action::volumeBy(0.05f), "Subir volumen"},
             {{ch("-")}, Action::volumeBy(-0.05f), "Bajar volumen"},
             {{ch("m")}, A::toggleMute, "Silenciar"},
             {{ch("s")}, A::toggleShuffle, "Aleatorio"},
             {{ch("r")}, A::cycleRepeat, "Repetir: no → todo → una"},
             {{ch("=")}, A::openEqualizer, "Ecualizador"},
         }},
        {"Cola",
         {
             {{ch("a")}, A::enqueue, "Añadir a la cola"},
             {{ch("A")}, A::enqueueNext, "Reproducir a continuación"},
             {{ch("c")}, A::openQueue, "Ver la cola"},
         }},
        {"Edición",
         {
             {{ch("x")}, A::toggleMark, "Marcar pista / álbum"},
             {{K::shiftUp}, Action::extendSelection(-1), "Extender selección arriba"},
             {{K::shiftDown}, Action::extendSelection(1), "Extender selección abajo"},
             {{K::escape}, A::clearSelection, "Limpiar selección"},
             {{ch("e")}, A::editTags, "Editar tags (formulario)"},
             {{ch("E")}, A::editAllTags, "Todos los tags en $EDITOR"},
             {{ch("l")}, A::toggleLyrics, "Ver letra"},
             {{ch("L")}, A::editLyrics, "Editar letra en $EDITOR"},
         }},
        {"General",
         {
             {{ch(":")}, A::openCommandLine, "Comandos (:help)"},
             {{ch("?")}, A::openHelp, "Esta ayuda"},
             {{ch("q"), Key::ctrl('c')}, A::quit, "Salir"},
         }},
    };
}

} // namespace

const std::vector<KeySection>& KeyBindings::all() {
    static const std::vector<KeySection> sections = buildSections();
    return sections;
}

const std::unordered_map<Key, Action>& KeyBindings::table() {
    static const std::unordered_map<Key, Action> map = [] {
        std::unordered_map<Key, Action> m;
        for (const auto& section : all())
            for (const auto& binding : section.bindings)
                for (const auto& key : binding.keys)
                    m[key] = binding.action;
        for (int d = 0; d <= 9; ++d)
            m[Key::character(std::string(1, static_cast<char>('0' + d)))] =
                Action::seekFraction(d / 10.0);
        return m;
    }();
    return map;
}

std::optional<Action> KeyBindings::lookup(const Key& key) {
    const auto& t = table();
    auto it = t.find(key);
    if (it == t.end()) return std::nullopt;
    return it->second;
}

std::string KeyBindings::label(const Key& key) {
    switch (key.kind) {
    case K::char_:
        return key.text == " " ? "Espacio" : key.text;
    case K::ctrl:
        return "Ctrl+" + text::upper(key.text);
    case K::function: {
        // Appended rather than "F" + string: GCC 12's -Wrestrict misreads that insert.
        std::string name = "F";
        name += std::to_string(key.number);
        return name;
    }
    case K::enter:
        return "Enter";
    case K::tab:
        return "Tab";
    case K::backTab:
        return "Shift+Tab";
    case K::backspace:
        return "⌫";
    case K::delete_:
        return "Supr";
    case K::escape:
        return "Esc";
    case K::up:
        return "↑";
    case K::down:
        return "↓";
    case K::left:
        return "←";
    case K::right:
        return "→";
    case K::shiftUp:
        return "Shift+↑";
    case K::shiftDown:
        return "Shift+↓";
    case K::home:
        return "Inicio";
    case K::end:
        return "Fin";
    case K::pageUp:
        return "RePág";
    case K::pageDown:
        return "AvPág";
    }
    return {};
}

std::string KeyBindings::label(const KeyBinding& binding) {
    const auto& keys = binding.keys;
    if (keys.empty()) return {};
    if (keys.size() >= 4) return label(keys.front()) + "–" + label(keys.back());
    std::string out;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        if (i > 0) out += ' ';
        out += label(keys[i]);
    }
    return out;
}

const std::vector<HelpLine>& KeyBindings::helpLines() {
    static const std::vector<HelpLine> lines = [] {
        std::vector<HelpLine> out;
        bool first = true;
        for (const auto& section : all()) {
            if (!first) out.push_back({});
            first = false;
            out.push_back({HelpLine::Kind::header, text::upper(section.title), {}});
            for (const auto& b : section.bindings)
                out.push_back({HelpLine::Kind::entry, label(b), b.help});
        }
        // Keys of the lyrics view with timed lyrics (panel focused); they stand in for
        // the table's meaning of the same keys there.
        out.push_back({});
        out.push_back({HelpLine::Kind::header, "LETRA SINCRONIZADA", {}});
        const std::pair<const char*, const char*> lyrics[] = {
            {"↑ ↓  Enter", "Elegir línea · ir a ella"}, {"+ -", "Letra 100 ms antes / después"},
            {"w", "Guardar letra (con desfase)"},       {":sync", "Marcar tiempos: Espacio marca"},
            {"⌫  Esc", "Línea atrás · terminar"},
        };
        for (const auto& [keys, desc] : lyrics)
            out.push_back({HelpLine::Kind::entry, keys, desc});
        out.push_back({});
        out.push_back({HelpLine::Kind::header, "EN LA COLA", {}});
        const std::pair<const char*, const char*> queue[] = {
            {"↑ ↓  Enter", "Elegir · reproducir desde ahí"},
            {"J K", "Bajar / subir (o Shift+↓ ↑)"},
            {"d Supr", "Quitar de la cola"},
            {"C", "Vaciar lo que viene después"},
        };
        for (const auto& [keys, desc] : queue)
            out.push_back({HelpLine::Kind::entry, keys, desc});
        out.push_back({});
        out.push_back({HelpLine::Kind::header, "COMANDOS", {}});
        const std::pair<const char*, const char*> commands[] = {
            {":add <ruta>", "Agregar carpeta y reindexar"},
            {":rm <ruta>", "Quitar carpeta y reindexar"},
            {":paths", "Ver / quitar carpetas"},
            {":reindex[!]", "Reindexar (! relee todo)"},
            {":watch [on|off]", "Seguir los cambios de las carpetas"},
            {":eq [preset|on|off]", "Ecualizador"},
            {":eq save <nombre>", "Guardar preset propio"},
            {":seek 1:42", "Ir a minuto"},
            {":vol 80", "Volumen"},
            {":rg auto", "ReplayGain: off, track, album"},
            {":preamp -3", "Preamplificación (dB)"},
            {":crossfade 4", "Fundido entre pistas (s)"},
            {":analyze", "Medir volumen (ReplayGain)"},
            {":cover <imagen>", "Poner carátula a la selección"},
            {":cover remove", "Quitar carátula"},
            {":sync", "Sincronizar la letra"},
            {":queue", "Ver la cola"},
            {":save <nombre>", "Guardar la cola como lista"},
            {":load <lista|ruta>", "Abrir una lista (m3u, pls)"},
            {":export <ruta>", "Exportar la cola (rutas relativas)"},
            {":delete <nombre>", "Borrar una lista guardada"},
            {":q", "Salir"},
        };
        for (const auto& [cmd, desc] : commands)
            out.push_back({HelpLine::Kind::entry, cmd, desc});
        return out;
    }();
    return lines;
}

} // namespace trovan
