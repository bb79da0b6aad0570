#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Prints the include graph between the folders of src/ and fails (exit 1) on an edge
that goes up or round the layer order of TROVAN_LAYERS, on a guarded CMake edge, or on
a CMake link list that differs from what the target's code includes."""
import re
import sys
from pathlib import Path

root = Path(__file__).resolve().parent.parent
src = root / "src"
layers = re.search(r"set\(TROVAN_LAYERS ([^)]*)\)", (root / "CMakeLists.txt").read_text()).group(1).split()
rank = {name: i for i, name in enumerate(layers)}
# Folders built as loadable modules rather than as part of their layer's library.
modules = {"playback/cubeb": "trovan_cubeb", "playback/mpris": "trovan_mpris", "media/ffmpeg": "trovan_ffmpeg"}
# System headers and the CMake targets that provide them.
system = [("sqlite3.h", ["SQLite::SQLite3"]), ("nlohmann/", ["nlohmann_json::nlohmann_json"]),
          ("taglib/", ["PkgConfig::TAGLIB"]), ("libav", ["PkgConfig::FFMPEG"]), ("libsw", ["PkgConfig::FFMPEG"]),
          ("zlib.h", ["ZLIB::ZLIB"]), ("unicode/", ["ICU::uc", "ICU::i18n"]), ("asio/", ["trovan_asio"]),
          ("ebur128.h", ["PkgConfig::EBUR128"]), ("cubeb/", ["cubeb::cubeb"]), ("sdbus-c++/", ["SDBusCpp::sdbus-c++"]),
          ("dlfcn.h", ["${CMAKE_DL_LIBS}"]), ("thread", ["Threads::Threads"]), ("pthread.h", ["Threads::Threads"])]


def target_of(path):
    rel = path.relative_to(src).as_posix()
    for folder, name in modules.items():
        if rel.startswith(folder + "/"):
            return name
    return "trovan_" + rel.split("/")[0] if "/" in rel else None


needs, edges, errors = {}, {}, []
for path in sorted(src.rglob("*")):
    if path.suffix not in (".cpp", ".h") or target_of(path) is None:
        continue
    target, layer = target_of(path), path.relative_to(src).parts[0]
    wanted = needs.setdefault(target, set())
    for kind, name in re.findall(r'^\s*#\s*include\s*([<"])([^>"]+)', path.read_text(), re.M):
        if kind == '"':
            other = name.split("/")[0]
            if other != layer and other in rank:
                edges.setdefault((layer, other), []).append(path.relative_to(src).as_posix())
                if target not in modules.values():
                    wanted.add("trovan_" + other)
            continue
        for prefix, libs in system:
            if name.startswith(prefix) and (prefix != "thread" or name == "thread"):
                wanted.update(libs)

for (a, b), files in sorted(edges.items(), key=lambda e: (rank[e[0][0]], rank[e[0][1]])):
    bad = rank[b] >= rank[a]
    print(f"{a} -> {b} ({len(files)})" + ("  UPWARD" if bad else ""))
    if bad:
        errors.append(f"{a} -> {b}: " + ", ".join(files[:3]))

linked = {}
for cmake in src.rglob("CMakeLists.txt"):
    text = re.sub(r"#.*", "", cmake.read_text())
    if re.search(r"if\s*\((NOT\s+)?(TARGET|EXISTS)", text):
        errors.append(f"{cmake.relative_to(root)}: guarded edge (if(TARGET/EXISTS))")
    for target, rest in re.findall(r"target_link_libraries\(\s*(\S+)([^)]*)\)", text):
        words = [w for w in rest.split() if w not in ("PUBLIC", "PRIVATE", "INTERFACE")]
        linked.setdefault(target, set()).update(words)
for target in sorted(needs):
    have, want = linked.get(target, set()), needs[target]
    if have != want:
        errors.append(f"{target}: links {sorted(have - want)} without including them, "
                      f"includes {sorted(want - have)} without linking them")
for e in errors:
    print("error:", e, file=sys.stderr)
sys.exit(1 if errors else 0)
