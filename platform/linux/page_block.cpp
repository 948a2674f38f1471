// Blocks of whole huge pages: each lies inside a wider range of addresses that is reserved and can't be touched, so
// that it starts where it has to and runs into nothing at its end. The list of them is short: a program has a few
// buffers.
#include "page_block.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <vector>

static constexpr size_t hugePageBytes = size_t{2} << 20;

struct PageBlock {
    void *block;
    size_t size;
    void *reserved; // the range around it
    size_t reservedSize;
};

// Never destroyed: memory is freed until the very end of the process.
static std::vector<PageBlock> &PageBlocks()
{
    static auto *const blocks = new std::vector<PageBlock>;
    return *blocks;
}

static std::vector<PageBlock>::iterator FindPageBlock(const void *block)
{
    return std::find_if(PageBlocks().begin(), PageBlocks().end(),
                        [block](const PageBlock &known) { return known.block == block; });
}

bool IsWholeHugePages(size_t size)
{
    return size != 0 && size % hugePageBytes == 0;
}

void *MakePageBlock(size_t size, size_t alignment)
{
    alignment = std::max(alignment, hugePageBytes);
    const size_t reservedSize = size + 2 * alignment;
    if (reservedSize <= size) {
        return nullptr;
    }
    void *reserved = mmap(nullptr, reservedSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (reserved == MAP_FAILED) {
        return nullptr;
    }
    const size_t beyond = reinterpret_cast<uintptr_t>(reserved) % alignment;
    void *block = static_cast<char *>(reserved) + (alignment - beyond);
    if (mprotect(block, size, PROT_READ | PROT_WRITE) != 0) {
        munmap(reserved, reservedSize);
        return nullptr;
    }
    madvise(block, size, MADV_HUGEPAGE); // advice; nothing depends on it
    PageBlocks().push_back({block, size, reserved, reservedSize});
    return block;
}

bool FreePageBlock(void *block)
{
    const auto found = FindPageBlock(block);
    if (found == PageBlocks().end()) {
        return false;
    }
    munmap(found->reserved, found->reservedSize);
    PageBlocks().erase(found);
    return true;
}

bool IsPageBlock(const void *block)
{
    return FindPageBlock(block) != PageBlocks().end();
}

bool IsPageBlock(const void *block, size_t size)
{
    const auto found = FindPageBlock(block);
    return found != PageBlocks().end() && found->size == size;
}

// What is moved away leaves its addresses as fresh memory behind, so that no range is ever lost to another mapping.
static bool MovePages(void *from, void *to, size_t size)
{
    return mremap(from, size, size, MREMAP_MAYMOVE | MREMAP_FIXED | MREMAP_DONTUNMAP, to) != MAP_FAILED;
}

bool MovePagesInto(void *target, void **filled, void **empty, size_t size)
{
    if (!MovePages(target, *empty, size)) {
        return false;
    }
    if (!MovePages(*filled, target, size)) {
        // A move that fails late has already taken the target's addresses out of use.
        if (mmap(target, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) == MAP_FAILED) {
            abort();
        }
        return false;
    }
    std::swap(*filled, *empty);
    return true;
}
