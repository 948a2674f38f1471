// Blocks of memory in whole huge pages of their own. An unbuffered transfer pins one page of such a block instead of
// hundreds, and two blocks exchange their content without a byte being copied. A block ends at a page that nobody may
// touch.
#pragma once

#include <cstddef>

// True when a block of size bytes is made of whole huge pages.
bool IsWholeHugePages(size_t size);

// A block of size bytes, whole huge pages, at a multiple of alignment, a power of two. Huge pages are asked for; where
// the kernel gives small ones, everything else holds all the same. Null if there is no room.
void *MakePageBlock(size_t size, size_t alignment);

// Releases the block; false if it is no page block.
bool FreePageBlock(void *block);

// True when block is a page block, and one of exactly size bytes.
bool IsPageBlock(const void *block);
bool IsPageBlock(const void *block, size_t size);

// Gives target the content of *filled by moving the pages, all three blocks being size bytes long. Then *filled is
// where target's old content lies, and *empty a block without content again; both may be other blocks than before.
// False where the kernel can't: the content of all three is undefined.
bool MovePagesInto(void *target, void **filled, void **empty, size_t size);
