// The two endings of a failed run and the one progress line.
//
// The error number is taken before anything else in Fatal, because printing may change it. All failures end through
// exit, not abort: the exit hooks are what takes a backup's snapshots down.
#include "cli/console.h"

#include <cstdio>
#include <cstdlib>

void Fatal(const char *message, LONG status)
{
    if (status != 0) {
        fprintf(stderr, "FATAL: %s (NTSTATUS 0x%08lX)\n", message,
                static_cast<unsigned long>(static_cast<ULONG>(status)));
    } else {
        const DWORD lastError = GetLastError();
        fprintf(stderr, "FATAL: %s (GetLastError=%lu)\n", message, static_cast<unsigned long>(lastError));
    }
    EndWithFailure();
}

void EndWithFailure()
{
    exit(1);
}

void PrintProgress(uint64_t done, uint64_t total, uint64_t startTicks)
{
    double percent = 0.0;
    if (total != 0) {
        percent = static_cast<double>(done) * 100.0 / static_cast<double>(total);
    }
    const double elapsedSeconds = static_cast<double>(GetTickCount64() - startTicks) / 1000.0;
    double speed = 0.0;
    if (elapsedSeconds > 0.1) {
        speed = static_cast<double>(done) * 0x1p-20 / elapsedSeconds;
    }
    printf("\r  %6.2f%%  %llu / %llu MiB  (%.1f MiB/s)   ", percent, static_cast<unsigned long long>(done >> 20),
           static_cast<unsigned long long>(total >> 20), speed);
    fflush(stdout);
}

bool IsProgressDue(uint64_t i, uint64_t chunkCount)
{
    return i % 32 == 0 || i + 1 == chunkCount;
}

double ToGiB(uint64_t bytes)
{
    return static_cast<double>(bytes) * 0x1p-30;
}
