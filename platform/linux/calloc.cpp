// The program's own calls of calloc and free, linked with --wrap: memory for a chunk is a page block, so that the chunk
// goes to a disk from where it is, without a copy. The one that was freed last is kept for the next chunk, and no pages
// have to be had anew for it.
//
// A block that is new comes zeroed and untouched from the kernel, as the C run-time's large ones do: a table that a
// damaged header claims is to cost nothing until it is really read.
#include "page_block.h"

#include <cstdlib>
#include <cstring>
#include <utility>

static constexpr size_t mostBytesKept = size_t{16} << 20; // of a block that is freed

static void *spareBlock = nullptr;

extern "C" void *__real_calloc(size_t count, size_t size);
extern "C" void __real_free(void *block);

extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    if (size == 0 || count > mostBytesKept / size || !IsWholeHugePages(count * size)) {
        return __real_calloc(count, size);
    }
    if (IsPageBlock(spareBlock, count * size)) {
        return memset(std::exchange(spareBlock, nullptr), 0, count * size);
    }
    return MakePageBlock(count * size, 1);
}

extern "C" void __wrap_free(void *block)
{
    if (!IsPageBlock(block)) {
        __real_free(block);
    } else {
        FreePageBlock(std::exchange(spareBlock, block));
    }
}
