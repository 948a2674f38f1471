// Checked chunks in memory, shared by all threads of a server.
//
// The memory for them is taken once, as so many places of one size, and a chunk is fetched straight into its place:
// what is under way counts as held, so that no number of clients makes it more. A chunk that several want is fetched
// once, by the first of them, while the others wait. Who finds every place in use waits for one. What has been wanted
// once goes before what is wanted again and again.
//
// Who wants a large chunk as a whole is copying the disk: the chunk goes straight into that buffer, and is kept only
// for those who have asked for it meanwhile.
#pragma once

#include "host/host.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace serving
{

// Puts the bytes of chunk i into out, on the thread that wants them; false if they can't be had. Must not throw.
using FetchBytes = std::function<bool(uint64_t i, uint8_t *out)>;

class ChunkCache
{
public:
    static constexpr uint32_t mostPlaces = UINT32_MAX - 2;

    // For chunks 0 to chunkCount - 1 of placeBytes each, the last perhaps shorter, of which placeCount are held at a
    // time: from one to mostPlaces. Throws std::bad_alloc.
    ChunkCache(uint64_t chunkCount, size_t placeBytes, uint32_t placeCount, FetchBytes fetch);

    // Copies byteCount bytes of chunk i, from its byte offset on, to out. Any thread may call it at any time. False:
    // the chunk could not be fetched; the next to want it tries again.
    bool Copy(uint64_t i, size_t offset, size_t byteCount, uint8_t *out);

private:
    enum class State : uint8_t { Empty, Fetching, Filled };
    struct Place {
        uint64_t chunk = 0;
        uint32_t users = 0; // threads that fetch it, wait for it or copy from it: it stays as long
        State state = State::Empty;
        bool wasWanted = false; // once more, since the search for a spare place last came by
    };
    // What stands in placeOf for a chunk without a place: there is nothing of it, it is on its way into someone's
    // buffer, or that and someone else waits for it.
    static constexpr uint32_t nowhere = UINT32_MAX, passing = UINT32_MAX - 1, awaited = UINT32_MAX - 2;

    bool Pass(uint64_t i, uint8_t *out, std::unique_lock<std::mutex> *lock);
    void AwaitPassing(uint64_t i, std::unique_lock<std::mutex> *lock);
    uint32_t Hold(uint64_t i, std::unique_lock<std::mutex> *lock);
    uint32_t Join(uint32_t place, std::unique_lock<std::mutex> *lock);
    uint32_t FetchInto(uint32_t place, uint64_t i, std::unique_lock<std::mutex> *lock);
    uint32_t FindSpare();
    void Take(uint32_t place, const Place &content);
    void Leave(uint32_t place);
    uint8_t *BytesOf(uint32_t place) const;

    const size_t bytesOfAPlace;
    const FetchBytes fetchBytes;
    const host::Pages memory;

    std::mutex mutex; // over all below
    std::condition_variable wasFetched;
    std::condition_variable becameSpare;
    std::vector<Place> places;
    std::vector<uint32_t> placeOf; // for each chunk
    uint32_t hand = 0;             // where the search for a spare place goes on
};

} // namespace serving
