// What the simulator needs of the system that it runs on, beside the calls that it stands in for. Each system has a
// file of its own behind this: linux_beneath.cpp and windows_beneath.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

// A descriptor of an empty file that takes bytes as they are, can be read again, and is gone once it is closed; below 0
// on failure.
int OpenCapture(const char *name);

// The file that the program means by these bytes: where names are made of units of 16 bits, each byte is one, widened
// with its sign.
std::filesystem::path FileNamed(const std::string &bytes);

// How many files and the like this process holds open.
size_t OpenDescriptors();

// Raises a condition of that code, as the system does where a library to be bound late is not there. Passes through
// frames that have nothing to take down, and no others.
[[noreturn]] void RaiseCondition(uint32_t code);

// Calls body and gives the code of the condition that it raised; 0 if it raised none.
uint32_t ConditionRaisedBy(const std::function<void()> &body);

constexpr uint32_t libraryIsMissing = 0xC06D007E; // the code of binding a library late that is not there
