// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/App.h"

#include <string>
#include <vector>

int main(int argc, char** argv) {
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) args.emplace_back(argv[i]);
    return trovan::App::main(args);
}
