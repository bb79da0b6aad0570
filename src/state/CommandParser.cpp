// SPDX-License-Identifier: GPL-3.0-or-later
#include "state/CommandParser.h"

#include "config/ReplayGainMode.h"
#include "library/ReplayGain.h"
#include "text/Text.h"

#include <charconv>
#include <cmath>
#include <vector>

namespace trovan {

std::string CommandError::message() const {
    switch (kind) {
    case Kind::unknownCommand:
        return "Comando desconocido: " + what + " (usa :help)";
    case Kind::missingArgument:
        return "Falta el argumento: " + what;
    case Kind::invalidValue:
        return "Valor inválido para " + what;
    }
    return what;
}

std::optional<double> CommandParser::parseNumber(std::string_view text) {
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.front() == '+') return std::nullopt;
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

std::optional<double> CommandParser::parseTime(std::string_view text) {
    std::vector<std::string_view> pieces;
    std::size_t start = 0;
    while (start <= text.size()) {
        std::size_t colon = text.find(':', start);
        std::size_t end = colon == std::string_view::npos ? text.size() : colon;
        if (end > start) pieces.push_back(text.substr(start, end - start));
        if (colon == std::string_view::npos) break;
        start = colon + 1;
    }
    if (pieces.empty() || pieces.size() > 3) return std::nullopt;
    double value = 0;
    for (std::string_view piece : pieces) {
        auto number = parseNumber(text::trim(piece));
        if (!number || *number < 0) return std::nullopt;
        value = value * 60 + *number;
    }
    return value;
}

std::string CommandParser::unquote(std::string_view text) {
    if (text.size() >= 2 && text.front() == text.back() &&
        (text.front() == '"' || text.front() == '\''))
        return std::string(text.substr(1, text.size() - 2));
    return std::string(text);
}

CommandResult CommandParser::parseEqualizer(std::string_view argument) {
    std::string lower = text::lower(argument);
    if (argument.empty()) return Action(Action::Kind::openEqualizer);
    if (lower == "on") return Action::eqEnabled(true);
    if (lower == "off") return Action::eqEnabled(false);
    if (lower.starts_with("save ")) {
        std::string_view name = text::trim(argument.substr(5));
        if (name.empty()) return CommandError::missingArgument("nombre");
        return Action::eqSave(std::string(name));
    }
    return Action::eqPreset(std::string(argument));
}

CommandResult CommandParser::parse(std::string_view text) {
    text = text::trim(text);
    std::size_t space = text.find(' ');
    std::string word = text::lower(text.substr(0, space));
    std::string argument = space == std::string_view::npos
                               ? std::string()
                               : unquote(text::trim(text.substr(space + 1)));

    if (word == "add" || word == "agregar") {
        if (argument.empty()) return CommandError::missingArgument("ruta");
        return Action::addRoot(argument);
    }
    if (word == "rm" || word == "remove" || word == "quitar") {
        if (argument.empty()) return Action(Action::Kind::listRoots);
        return Action::removeRoot(argument);
    }
    if (word == "paths" || word == "rutas") return Action(Action::Kind::listRoots);
    if (word == "reindex" || word == "reindexar") return Action::reindex(false);
    if (word == "reindex!" || word == "reindexar!") return Action::reindex(true);
    if (word == "eq") return parseEqualizer(argument);
    if (word == "watch" || word == "vigilar") {
        const std::string mode = text::lower(argument);
        if (mode.empty() || mode == "on" || mode == "off") return Action::watch(mode);
        return CommandError::invalidValue("watch: on u off");
    }
    if (word == "seek" || word == "ir") {
        if (auto seconds = parseTime(argument)) return Action::seekTo(*seconds);
        return CommandError::invalidValue("tiempo: usa 1:42");
    }
    if (word == "vol" || word == "volumen") {
        auto v = parseNumber(argument);
        if (v && *v >= 0 && *v <= 100) return Action::setVolume(static_cast<float>(*v / 100.0));
        return CommandError::invalidValue("volumen: 0–100");
    }
    if (word == "cover" || word == "caratula" || word == "carátula") {
        if (argument.empty()) return CommandError::missingArgument("imagen o remove");
        std::string lower = text::lower(argument);
        if (lower == "remove" || lower == "quitar") return Action(Action::Kind::removeCover);
        return Action::setCover(argument);
    }
    if (word == "covers" || word == "caratulas" || word == "carátulas") {
        const std::string mode = text::lower(argument);
        if (mode == "auto" || mode == "kitty" || mode == "sixel" || mode == "bloques")
            return Action::setCoverMode(mode);
        if (mode.empty())
            return CommandError::missingArgument("modo (auto, kitty, sixel o bloques)");
        return CommandError::invalidValue("carátulas: usa auto, kitty, sixel o bloques");
    }
    if (word == "queue" || word == "cola") return Action(Action::Kind::openQueue);
    if (word == "save" || word == "guardar") {
        if (argument.empty()) return CommandError::missingArgument("nombre de la lista");
        return Action::savePlaylist(argument);
    }
    if (word == "load" || word == "abrir") {
        if (argument.empty()) return CommandError::missingArgument("nombre o ruta de la lista");
        return Action::loadPlaylist(argument);
    }
    if (word == "export" || word == "exportar") {
        if (argument.empty()) return CommandError::missingArgument("ruta");
        return Action::exportPlaylist(argument);
    }
    if (word == "delete" || word == "borrar") {
        if (argument.empty()) return CommandError::missingArgument("nombre de la lista");
        return Action::deletePlaylist(argument);
    }
    if (word == "rg" || word == "replaygain") {
        std::string mode = text::lower(argument);
        if (mode == "pista") mode = "track";
        if (mode == "album" || mode == "álbum") mode = "album";
        if (replayGainModeFromString(mode)) return Action::setReplayGain(mode);
        if (mode.empty()) return CommandError::missingArgument("modo (off, track, album o auto)");
        return CommandError::invalidValue("rg: usa off, track, album o auto");
    }
    if (word == "preamp") {
        auto db = ReplayGain::parseGain(argument);
        if (db && std::abs(*db) <= 15) return Action::setPreamp(*db);
        return CommandError::invalidValue("preamp: de −15 a +15 dB");
    }
    if (word == "crossfade" || word == "fundido") {
        auto seconds = parseNumber(argument);
        if (seconds && *seconds >= 0 && *seconds <= 12) return Action::setCrossfade(*seconds);
        return CommandError::invalidValue("crossfade: de 0 a 12 segundos");
    }
    if (word == "analyze" || word == "analizar") return Action(Action::Kind::analyzeLoudness);
    if (word == "sync" || word == "sincronizar") return Action(Action::Kind::syncLyrics);
    if (word == "q" || word == "quit" || word == "salir") return Action(Action::Kind::quit);
    if (word == "help" || word == "ayuda" || word == "h") return Action(Action::Kind::openHelp);
    return CommandError::unknownCommand(word);
}

} // namespace trovan
