// The program's own calls of calloc, linked with --wrap=calloc: memory for a chunk lies on whole huge pages, so that it
// goes to a disk from where it is, without a copy, and stays with the process for the next chunk when it is freed.
//
// Larger blocks come zeroed and untouched from the kernel each time: a table that a damaged header claims is to cost
// nothing until it is really read.
#include "page_block.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <sys/mman.h>

static constexpr size_t mostBytesKept = size_t{16} << 20; // of a block that is freed
static constexpr size_t mostBytesFree = size_t{64} << 20; // of all of them
static const bool blocksAreKept =
    mallopt(M_MMAP_THRESHOLD, mostBytesKept + 2 * hugePageBytes) != 0 && mallopt(M_TRIM_THRESHOLD, mostBytesFree) != 0;

extern "C" void *__real_calloc(size_t count, size_t size);

extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    if (size == 0 || count > mostBytesKept / size || !IsWholeHugePages(count * size)) {
        return __real_calloc(count, size);
    }
    void *block = nullptr;
    if (posix_memalign(&block, hugePageBytes, count * size) != 0) {
        return nullptr;
    }
    madvise(block, count * size, MADV_HUGEPAGE); // advice; nothing depends on it
    return memset(block, 0, count * size);
}
