// The read ahead of a handle: a block of its own that the kernel fills, and an empty one for the exchange of pages when
// it is handed over.
//
// The block goes to the kernel in pieces, each small enough for one request of the usual devices: a larger one would be
// given to a kernel thread first. Only a block that came whole is handed over. A fault in one is no news yet, since
// nobody asked for it: the bytes are read again, plainly, if they are asked for.
#include "read_ahead.h"

#include "page_block.h"

#include <cerrno>
#include <cstdlib>
#include <liburing.h>
#include <memory>

static constexpr uint64_t pieceBytes = uint64_t{1} << 20;
static constexpr uint64_t nowhere = UINT64_MAX;

struct ReadAhead {
    io_uring ring;
    void *block; // what is read ahead goes there
    void *empty;
    uint64_t byteCount; // of each of the two
    uint64_t position;  // of what is read ahead; nowhere if it is not wanted any more
    unsigned int piecesUnderWay;
};

// Waits until nothing is under way. True: each piece came whole.
static bool AwaitPieces(ReadAhead &ahead)
{
    bool isWhole = true;
    while (ahead.piecesUnderWay != 0) {
        io_uring_cqe *completion = nullptr;
        const int result = io_uring_wait_cqe(&ahead.ring, &completion);
        if (result == 0) {
            isWhole = isWhole && completion->res == static_cast<int>(pieceBytes);
            io_uring_cqe_seen(&ahead.ring, completion);
            --ahead.piecesUnderWay;
        } else if (result != -EINTR) {
            abort(); // the kernel may be writing into the block, and there is no way left to learn when it ends
        }
    }
    return isWhole;
}

static ReadAhead *MakeReadAhead(uint64_t byteCount)
{
    auto ahead = std::make_unique<ReadAhead>();
    ahead->block = MakePageBlock(byteCount, 1);
    ahead->empty = MakePageBlock(byteCount, 1);
    ahead->byteCount = byteCount;
    ahead->position = nowhere;
    const auto pieces = static_cast<unsigned int>(byteCount / pieceBytes);
    if (ahead->block == nullptr || ahead->empty == nullptr || io_uring_queue_init(pieces, &ahead->ring, 0) != 0) {
        FreePageBlock(ahead->block);
        FreePageBlock(ahead->empty);
        return nullptr;
    }
    return ahead.release();
}

// Hands the pieces to the kernel; false if it didn't take them all.
static bool SubmitPieces(ReadAhead &ahead, int descriptor)
{
    const auto pieces = static_cast<unsigned int>(ahead.byteCount / pieceBytes);
    for (uint64_t done = 0; done < ahead.byteCount; done += pieceBytes) {
        io_uring_prep_read(io_uring_get_sqe(&ahead.ring), descriptor, static_cast<char *>(ahead.block) + done,
                           static_cast<unsigned int>(pieceBytes), ahead.position + done);
    }
    const int submitted = io_uring_submit(&ahead.ring);
    ahead.piecesUnderWay = submitted < 0 ? 0 : static_cast<unsigned int>(submitted);
    return ahead.piecesUnderWay == pieces;
}

void StartReadAhead(PortHandle &handle, const void *buffer, uint64_t byteCount)
{
    if (!IsPageBlock(buffer, byteCount)) {
        return;
    }
    if (handle.ahead == nullptr) {
        handle.ahead = MakeReadAhead(byteCount);
        handle.readsAhead = handle.ahead != nullptr;
    }
    if (!handle.readsAhead || handle.ahead->byteCount != byteCount) {
        return;
    }
    AwaitPieces(*handle.ahead);
    handle.ahead->position = handle.position;
    if (!SubmitPieces(*handle.ahead, handle.aheadDescriptor)) {
        EndReadAhead(handle);
    }
}

bool TakeReadAhead(PortHandle &handle, void *buffer, uint64_t byteCount)
{
    ReadAhead *ahead = handle.ahead;
    if (ahead == nullptr) {
        return false;
    }
    const bool isAskedFor =
        ahead->position == handle.position && ahead->byteCount == byteCount && IsPageBlock(buffer, byteCount);
    ahead->position = nowhere;
    uint64_t lengthBytes = 0;
    // A disk that has become shorter since then ends where it ends now.
    if (!isAskedFor || !AwaitPieces(*ahead) || !LengthOfDisk(handle, &lengthBytes) ||
        lengthBytes < handle.position + byteCount) {
        return false;
    }
    if (!MovePagesInto(buffer, &ahead->block, &ahead->empty, byteCount)) {
        EndReadAhead(handle);
        return false;
    }
    return true;
}

void EndReadAhead(PortHandle &handle)
{
    handle.readsAhead = false;
    if (handle.ahead == nullptr) {
        return;
    }
    const std::unique_ptr<ReadAhead> ahead(handle.ahead);
    handle.ahead = nullptr;
    AwaitPieces(*ahead);
    io_uring_queue_exit(&ahead->ring);
    FreePageBlock(ahead->block);
    FreePageBlock(ahead->empty);
}
