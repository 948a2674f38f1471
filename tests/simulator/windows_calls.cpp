// The simulator's side of the link on Windows: what the program's objects find under the names of the replaced calls.
//
// An object reaches a function of a system library through a pointer, which the link names after the function, and a
// function of the C run-time directly. The link sends both here: the pointer NAME is taken for this file's, and the
// function NAME for the replacement. The platform's own functions answer to REAL(NAME), because the tests are linked
// with copies of the platform's libraries in which those names are written so; see windows_libraries.cmake beside this
// file.
#include "simulator/real_calls.h"

#define REPLACED(name)                                                                                                 \
    extern "C" decltype(name) REPLACEMENT(name);                                                                       \
    extern "C" const decltype(&name) __imp___wrap_##name = &REPLACEMENT(name);
#include "replaced_calls.inc"
#undef REPLACED
