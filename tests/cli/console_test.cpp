// What the program says and how it ends: the fatal line in its two forms, the progress line to the byte, sizes in GiB.
//
// The progress line's figures are fixed by the machine's clock, so that each row states the whole line.
#include "cli/console.h"

#include "simulator/run_command.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace
{
RunResult RunFatal(Machine &machine, const char *message, LONG status)
{
    return RunCode(machine, [=] { Fatal(message, status); });
}

std::string ProgressLine(uint64_t done, uint64_t total, uint64_t elapsedMilliseconds)
{
    Machine machine;
    machine.ticks = 50000 + elapsedMilliseconds;
    return RunCode(machine, [=] { PrintProgress(done, total, 50000); }).outputText;
}

uint64_t BytesInStandardOutput()
{
    struct stat facts = {};
    EXPECT_EQ(fstat(fileno(stdout), &facts), 0);
    return static_cast<uint64_t>(facts.st_size);
}

void Hook()
{
    printf("hook ran");
}

std::string WholeLog(const Machine &machine)
{
    return LogText(machine, [](const Call &) { return true; });
}
} // namespace

TEST(Fatal, ShowsTheLastErrorWhenThereIsNoStatus)
{
    for (const DWORD lastError : {0U, 5U, 1117U, 4294967295U}) {
        Machine machine;
        machine.lastError = lastError;
        const RunResult result = RunFatal(machine, "could not do it", 0);
        EXPECT_EQ(result.errorText, "FATAL: could not do it (GetLastError=" + std::to_string(lastError) + ")\n");
        EXPECT_EQ(result.outputText, "");
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_FALSE(result.abnormalEnd);
    }
}

TEST(Fatal, ShowsAStatusInEightUnsignedHexadecimalDigits)
{
    const struct {
        uint32_t status;
        const char *text;
    } rows[] = {
        {0xC000000D, "0xC000000D"}, {0x80000000, "0x80000000"}, {0xFFFFFFFF, "0xFFFFFFFF"}, {0x00000001, "0x00000001"}};
    for (const auto &row : rows) {
        Machine machine;
        machine.lastError = 5;
        const RunResult result = RunFatal(machine, "BCryptEncrypt", static_cast<LONG>(row.status));
        EXPECT_EQ(result.errorText, std::string("FATAL: BCryptEncrypt (NTSTATUS ") + row.text + ")\n");
        EXPECT_EQ(result.outputText, "");
        EXPECT_EQ(result.exitStatus, 1);
    }
}

TEST(Fatal, TakesTheLastErrorAheadOfEverythingElseAndThenExits)
{
    Machine machine;
    machine.lastError = 7;
    RunFatal(machine, "m", 0);
    EXPECT_EQ(WholeLog(machine), "GetLastError -> 7\nstderr FATAL: m (GetLastError=7)\n\nexit 1\n");
    RunFatal(machine, "m", -1);
    EXPECT_EQ(WholeLog(machine), "stderr FATAL: m (NTSTATUS 0xFFFFFFFF)\n\nexit 1\n");
}

// A flush can fail, and then the number is its own.
TEST(Fatal, FlushesNothingAheadOfTheLastError)
{
    Machine machine;
    static char buffer[4096];
    RunCode(machine, [] {
        setvbuf(stderr, buffer, _IOFBF, sizeof(buffer));
        printf("report ");
        fprintf(stderr, "warning ");
        Fatal("m", 0);
    });
    setvbuf(stderr, nullptr, _IONBF, 0);
    EXPECT_EQ(WholeLog(machine), "stdout report \nstderr warning \nGetLastError -> 0\n"
                                 "stderr FATAL: m (GetLastError=0)\n\nexit 1\n");
    EXPECT_EQ(Field(CallsOf(machine, "stdout").at(0), "flushed"), 0U);
    EXPECT_EQ(Field(CallsOf(machine, "stderr").at(0), "flushed"), 0U);
}

TEST(Fatal, PrintsItsMessageAsItStands)
{
    Machine machine;
    EXPECT_EQ(RunFatal(machine, "100%s %n", 0).errorText, "FATAL: 100%s %n (GetLastError=0)\n");
}

TEST(Fatal, RunsExitHooksAndFlushesTheStreams)
{
    Machine machine;
    const RunResult result = RunCode(machine, [] {
        atexit(Hook);
        printf("unfinished line ");
        Fatal("m", 0);
    });
    EXPECT_EQ(result.outputText, "unfinished line hook ran");
    EXPECT_EQ(result.exitStatus, 1);
}

TEST(EndWithFailure, ExitsWithStatus1AndNoWordOfItsOwn)
{
    Machine machine;
    const RunResult result = RunCode(machine, [] {
        atexit(Hook);
        EndWithFailure();
    });
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_FALSE(result.abnormalEnd);
    EXPECT_EQ(result.errorText, "");
    EXPECT_EQ(result.outputText, "hook ran");
}

TEST(PrintProgress, ShowsPercentMebibytesAndTheMeanSpeed)
{
    const struct {
        uint64_t done;
        uint64_t total;
        uint64_t elapsedMilliseconds;
        const char *line;
    } rows[] = {
        {4 * MiB, 10 * MiB, 1000, "\r   40.00%  4 / 10 MiB  (4.0 MiB/s)   "},
        {10 * MiB, 10 * MiB, 4000, "\r  100.00%  10 / 10 MiB  (2.5 MiB/s)   "},
        {1 * MiB, 3 * MiB, 8000, "\r   33.33%  1 / 3 MiB  (0.1 MiB/s)   "},
        {2 * MiB, 3 * MiB, 1, "\r   66.67%  2 / 3 MiB  (0.0 MiB/s)   "},
        {4 * MiB, 10 * MiB, 4294968296, "\r   40.00%  4 / 10 MiB  (0.0 MiB/s)   "}, // a second more than 32 bits hold
        {0, 5 * MiB, 1000, "\r    0.00%  0 / 5 MiB  (0.0 MiB/s)   "},
        {0, 0, 1000, "\r    0.00%  0 / 0 MiB  (0.0 MiB/s)   "},
        {4 * MiB, 0, 1000, "\r    0.00%  4 / 0 MiB  (4.0 MiB/s)   "},
        {512, 1024, 1000, "\r   50.00%  0 / 0 MiB  (0.0 MiB/s)   "},
        {1048575, 1048576, 1000, "\r  100.00%  0 / 1 MiB  (1.0 MiB/s)   "},
        {1572864, 1572864, 1000, "\r  100.00%  1 / 1 MiB  (1.5 MiB/s)   "},      // cut to whole MiB, not rounded
        {115 * MiB, 800 * MiB, 0, "\r   14.38%  115 / 800 MiB  (0.0 MiB/s)   "}, // multiplied, then divided
        {2 * MiB, 1 * MiB, 1000, "\r  200.00%  2 / 1 MiB  (2.0 MiB/s)   "},
        {1ULL << 63, 0xFFFFFFFFFFFFFFFF, 2000,
         "\r   50.00%  8796093022208 / 17592186044415 MiB  (4398046511104.0 MiB/s)   "},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(ProgressLine(row.done, row.total, row.elapsedMilliseconds), row.line);
    }
}

TEST(PrintProgress, ShowsNoSpeedInTheFirstTenthOfASecond)
{
    const uint64_t done = 101 * MiB;
    EXPECT_EQ(ProgressLine(done, done, 0), "\r  100.00%  101 / 101 MiB  (0.0 MiB/s)   ");
    EXPECT_EQ(ProgressLine(done, done, 99), "\r  100.00%  101 / 101 MiB  (0.0 MiB/s)   ");
    EXPECT_EQ(ProgressLine(done, done, 100), "\r  100.00%  101 / 101 MiB  (0.0 MiB/s)   ");
    EXPECT_EQ(ProgressLine(done, done, 101), "\r  100.00%  101 / 101 MiB  (1000.0 MiB/s)   ");
}

TEST(PrintProgress, ReadsTheClockOnceAndFlushesWithoutALineEnd)
{
    Machine machine;
    uint64_t before = 0;
    uint64_t after = 0;
    RunCode(machine, [&] {
        before = BytesInStandardOutput();
        PrintProgress(MiB, 2 * MiB, 0);
        after = BytesInStandardOutput();
    });
    EXPECT_EQ(WholeLog(machine), "GetTickCount64 -> 1000\nstdout \r   50.00%  1 / 2 MiB  (1.0 MiB/s)   \n");
    EXPECT_EQ(before, 0U);
    EXPECT_EQ(after, 37U);
}

TEST(IsProgressDue, HoldsForEvery32ndChunkAndForTheLast)
{
    std::vector<uint64_t> due;
    for (uint64_t i = 0; i < 71; ++i) {
        if (IsProgressDue(i, 71)) {
            due.push_back(i);
        }
    }
    EXPECT_EQ(due, (std::vector<uint64_t>{0, 32, 64, 70}));
    EXPECT_TRUE(IsProgressDue(0, 1));
    EXPECT_TRUE(IsProgressDue(31, 32));
    EXPECT_FALSE(IsProgressDue(31, 33));
}

TEST(ToGiB, IsTheCountTimesTwoToTheMinus30)
{
    EXPECT_EQ(ToGiB(0), 0.0);
    EXPECT_EQ(ToGiB(1), 9.313225746154785e-10);
    EXPECT_EQ(ToGiB(GiB), 1.0);
    EXPECT_EQ(ToGiB(3 * GiB / 2), 1.5);
    EXPECT_EQ(ToGiB(500107862016), 465.76174163818359375);
    EXPECT_EQ(ToGiB(0xFFFFFFFFFFFFFFFF), 17179869184.0);
}
