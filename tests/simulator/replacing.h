// What the replacements have in common: replaced_files.cpp, replaced_cryptography.cpp and replaced_runtime.cpp, each of
// which says what the log shows of a call's arguments, and what the call does when no fault keeps it from doing so.
//
// All follow one pattern. A call that is none of the program's passes on untouched. A call from frames that a real
// process would never unwind gives back real resources and does nothing else. Everything else goes through Perform.
#pragma once

#include "simulator/real_calls.h"
#include "simulator/running.h"

#include <string>
#include <vector>

// The open object behind a handle, and its name for the log. Something that the run didn't make passes as "outside"; a
// handle that is no more, or never was one, is a misuse and gives null.
Object *Held(void *key, Kind kind, std::string *name);

Outcome FromReal(BOOL succeeded); // of a call of the platform's that has just returned that

// What a call on no open handle comes to; it is a misuse.
Outcome BadHandle(const Call &call);

std::vector<uint8_t> BytesAt(const void *start, size_t count); // none where start is null

// Has the call tell of a buffer of the program's: where it is, how long, and how it is aligned.
void NoteBuffer(Call &call, const void *buffer, uint64_t length);

// The one shape of every call that gives back what it was called on.
Outcome Close(const char *name, void *key, Kind kind, ULONG flags = 0);

// Whether a call that gives something back is nothing for the real platform, because what it names belongs to a run,
// this one or one that is over.
bool GivesBackToRun(void *key);
