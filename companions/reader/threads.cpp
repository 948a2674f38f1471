// Work on several threads. Where the system gives none, the caller's own does it all.
#include "reader/reader.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <new>
#include <system_error>
#include <thread>

namespace reader
{

uint32_t CoreCount()
{
    return std::max(1U, std::thread::hardware_concurrency());
}

std::optional<Fault> OnThreads(uint32_t threads, const std::function<void()> &work)
{
    std::atomic<const char *> what = nullptr; // a fault would take memory, and there may be none
    const auto guarded = [&]() noexcept {
        try {
            work();
        } catch (const std::bad_alloc &) {
            what = "there is not enough memory";
        } catch (const std::exception &) {
            what = "a thread ended early";
        }
    };
    std::vector<std::thread> started;
    try {
        started.reserve(threads);
        while (started.size() + 1 < threads) {
            started.emplace_back(guarded);
        }
    } catch (const std::system_error &) { // no more threads: those that there are do all of it
    } catch (const std::bad_alloc &) {
    }
    guarded();
    for (std::thread &thread : started) {
        thread.join();
    }
    return what == nullptr ? std::nullopt : std::optional<Fault>({FaultKind::Unavailable, what.load()});
}

} // namespace reader
