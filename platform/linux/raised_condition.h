// What stands for a structured exception here: the port raises one where Windows would.
#pragma once

#include <windows.h>

// code is the exception code that Windows has for the same event.
struct RaisedCondition {
    DWORD code;
};

constexpr DWORD moduleNotFoundCondition = 0xC06D007E; // binding a library late, and it is not there
