#include "nbdkit/chunk_cache.h"

#include <cstring>
#include <utility>

namespace serving
{

static constexpr size_t worthPassing = size_t{1} << 20; // bytes; a smaller chunk is soon wanted again

ChunkCache::ChunkCache(uint64_t chunkCount, size_t placeBytes, uint32_t placeCount, FetchBytes fetch)
    : bytesOfAPlace(placeBytes), fetchBytes(std::move(fetch)), memory(host::MakePages(placeBytes * placeCount)),
      places(placeCount), placeOf(chunkCount, nowhere)
{
}

bool ChunkCache::Copy(uint64_t i, size_t offset, size_t byteCount, uint8_t *out)
{
    std::unique_lock<std::mutex> lock(mutex);
    AwaitPassing(i, &lock);
    if (placeOf[i] == nowhere && byteCount == bytesOfAPlace && byteCount >= worthPassing) {
        return Pass(i, out, &lock);
    }
    const uint32_t place = Hold(i, &lock);
    if (place == nowhere) {
        return false;
    }
    lock.unlock();
    memcpy(out, BytesOf(place) + offset, byteCount);
    lock.lock();
    Leave(place);
    return true;
}

bool ChunkCache::Pass(uint64_t i, uint8_t *out, std::unique_lock<std::mutex> *lock)
{
    placeOf[i] = passing;
    lock->unlock();
    const bool isFetched = fetchBytes(i, out);
    lock->lock();
    const bool isAwaited = std::exchange(placeOf[i], nowhere) == awaited;
    const uint32_t spare = isFetched && isAwaited ? FindSpare() : nowhere;
    if (spare != nowhere) {
        Take(spare, {i, 0, State::Filled, false});
        memcpy(BytesOf(spare), out, bytesOfAPlace);
    }
    wasFetched.notify_all();
    return isFetched;
}

void ChunkCache::AwaitPassing(uint64_t i, std::unique_lock<std::mutex> *lock)
{
    while (placeOf[i] == passing || placeOf[i] == awaited) {
        placeOf[i] = awaited;
        wasFetched.wait(*lock);
    }
}

// The place with the bytes of chunk i, of which the caller is then a user, or nowhere.
uint32_t ChunkCache::Hold(uint64_t i, std::unique_lock<std::mutex> *lock)
{
    for (;;) {
        AwaitPassing(i, lock);
        if (placeOf[i] != nowhere) {
            return Join(placeOf[i], lock);
        }
        const uint32_t spare = FindSpare();
        if (spare != nowhere) {
            return FetchInto(spare, i, lock);
        }
        becameSpare.wait(*lock);
    }
}

uint32_t ChunkCache::Join(uint32_t place, std::unique_lock<std::mutex> *lock)
{
    Place &joined = places[place];
    ++joined.users;
    joined.wasWanted = true;
    wasFetched.wait(*lock, [&] { return joined.state != State::Fetching; });
    if (joined.state == State::Filled) {
        return place;
    }
    Leave(place);
    return nowhere;
}

uint32_t ChunkCache::FetchInto(uint32_t place, uint64_t i, std::unique_lock<std::mutex> *lock)
{
    Place &taken = places[place];
    Take(place, {i, 1, State::Fetching, false});
    lock->unlock();
    const bool isFetched = fetchBytes(i, BytesOf(place));
    lock->lock();
    taken.state = isFetched ? State::Filled : State::Empty;
    wasFetched.notify_all();
    if (isFetched) {
        return place;
    }
    placeOf[i] = nowhere;
    Leave(place);
    return nowhere;
}

// A place without users, if possible one that nobody has wanted for a whole turn.
uint32_t ChunkCache::FindSpare()
{
    uint32_t spare = nowhere;
    for (size_t seen = 0; seen < places.size(); ++seen) {
        const uint32_t place = hand;
        hand = hand + 1 < places.size() ? hand + 1 : 0;
        if (places[place].users == 0 && !std::exchange(places[place].wasWanted, false)) {
            return place;
        }
        if (places[place].users == 0 && spare == nowhere) {
            spare = place;
        }
    }
    return spare;
}

// Gives a spare place to another chunk.
void ChunkCache::Take(uint32_t place, const Place &content)
{
    if (places[place].state == State::Filled) {
        placeOf[places[place].chunk] = nowhere;
    }
    places[place] = content;
    placeOf[content.chunk] = place;
}

void ChunkCache::Leave(uint32_t place)
{
    if (--places[place].users == 0) {
        becameSpare.notify_all();
    }
}

uint8_t *ChunkCache::BytesOf(uint32_t place) const
{
    return memory.get() + place * bytesOfAPlace;
}

} // namespace serving
