// Reading a disk ahead of its reader, through the kernel's asynchronous interface: while the program works on a block,
// the next one is on its way. Where the kernel refuses that, or can't move pages, nothing is read ahead and nobody is
// told: the same bytes come by plain reads.
#pragma once

#include "port.h"

// Tells the kernel that the file behind descriptor, which lies on device, will be read from its beginning to its end.
// In ordered_reads.cpp.
void AdviseSequentialReading(int descriptor, dev_t device);

// Opens the disk at path, behind whose handle it is, once more, for what is read ahead of the reader: the kernel holds
// on to an open file until its last request is done, and the lock of the handle is to go with the handle and the
// process. The descriptor is the caller's; below 0 if the disk can't be opened again. In ordered_reads.cpp.
int OpenForReadAhead(const std::string &path, const PortHandle &disk);

// Starts reading the byteCount bytes at the handle's position, behind the same number that were just read into buffer.
// What was read ahead before and not taken is dropped. Does nothing where the buffer is no page block of that size.
void StartReadAhead(PortHandle &handle, const void *buffer, uint64_t byteCount);

// True: the byteCount bytes at the handle's position had been read ahead and are in buffer now; the position stays.
// False: they had not been, or not all of them, and what was read ahead is dropped; buffer's content is undefined.
bool TakeReadAhead(PortHandle &handle, void *buffer, uint64_t byteCount);

// Reads up to byteCount bytes at the position of handle, a disk that is read ahead, and moves the position with them.
// True: *bytesRead is short only at the end. False with the last error set. In ordered_reads.cpp.
bool ReadInOrder(PortHandle &handle, void *buffer, DWORD byteCount, DWORD *bytesRead);

// Waits for what is under way and gives everything back; the handle reads ahead no more.
void EndReadAhead(PortHandle &handle);
