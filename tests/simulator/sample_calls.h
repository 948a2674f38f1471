// One use of each replaced call, from an object file that shares nothing with the simulator.
#pragma once

#include <functional>
#include <map>
#include <string>

// By the name of the call, a piece of code that makes it, on a machine with a disk 0 of at least a sector, two volumes
// and a snapshot service with a writer, and with an empty current folder.
std::map<std::string, std::function<void()>> SampleCalls();

// Ends the process as a program should that a test runs: exit from a function that has nothing to take down, so that
// the end can pass as an exception through its callers, whatever they hold.
[[noreturn]] void EndWithStatus(int status);
