// What the command lines of the companions have in common.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

// Parses the arguments behind the program's name; all options must have been added. A word in brackets is a word. Help
// and version are printed when they are asked for, and no subcommand is then called back. False after a fault, which
// was told on the error stream.
bool ParseCommandLine(CLI::App &app, std::vector<std::string> arguments);

// Runs a program between the preparation of its process and the arrival of what it printed, and gives its exit status.
// That is failed after an exception, which is told, and where what was printed did not arrive.
int RunGuarded(const char *name, int failed, const std::function<int()> &run);
