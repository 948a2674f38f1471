// Reading a disk ahead of its reader, through the kernel's asynchronous interface: while the program works on a block,
// the next one is on its way. Where the kernel refuses that, or can't move pages, nothing is read ahead and nobody is
// told: the same bytes come by plain reads.
#pragma once

#include "port.h"

// Starts reading the byteCount bytes at the handle's position, behind the same number that were just read into buffer.
// What was read ahead before and not taken is dropped. Does nothing where the buffer is no page block of that size.
void StartReadAhead(PortHandle &handle, const void *buffer, uint64_t byteCount);

// True: the byteCount bytes at the handle's position had been read ahead and are in buffer now; the position stays.
// False: they had not been, or not all of them, and what was read ahead is dropped; buffer's content is undefined.
bool TakeReadAhead(PortHandle &handle, void *buffer, uint64_t byteCount);

// Waits for what is under way and gives everything back; the handle reads ahead no more.
void EndReadAhead(PortHandle &handle);
