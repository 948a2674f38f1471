// The guarded creation of the backup components with registers that hold whatever a call before may have left in them,
// where the snapshot library or its entry is missing. What is raised has to reach the guard on every way, and the
// caller has to find its own registers as they were.
//
// Linked as the program is. Prints how many calls were made, how many of them the guard ended, how many left the
// caller's registers alone, and what was raised how often; ends with exit status 0 if it lives to say so.
#include "structured_guard.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <vector>

// In the order in which CallWithRegisters takes them: those that a call preserves, general and vector, then those that
// it may change.
constexpr size_t preservedRegisters = 18;
constexpr size_t seededRegisters = 29;
constexpr size_t seedOfR8 = 26;
constexpr size_t seedOfR9 = 27;

using Seeds = std::array<uint64_t, seededRegisters>;
using Preserved = std::array<uint64_t, preservedRegisters>;

// Calls CreateBackupComponentsGuarded with the seeds in the registers, and stores what the preserved ones hold behind
// it. Gives what the guard gave.
extern "C" bool CallWithRegisters(IVssBackupComponents **components, HRESULT *result, const uint64_t *seeds,
                                  uint64_t *preserved);

extern "C" bool (*const guardedCall)(IVssBackupComponents **, HRESULT *) = CreateBackupComponentsGuarded;

// The frame: 32 bytes for the callee, ten vector registers, the address for the results.
asm(R"(
        .text
        .globl  CallWithRegisters
        .def    CallWithRegisters; .scl 2; .type 32; .endef
        .seh_proc CallWithRegisters
CallWithRegisters:
        .irp reg, %rbx, %rbp, %rsi, %rdi, %r12, %r13, %r14, %r15
        pushq   \reg
        .seh_pushreg \reg
        .endr
        subq    $200, %rsp
        .seh_stackalloc 200
        .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movaps  %xmm\n, (\n * 16 - 64)(%rsp)
        .seh_savexmm %xmm\n, (\n * 16 - 64)
        .endr
        .seh_endprologue
        movq    %r9, 192(%rsp)
        movq    %r8, %rax
        movq    0(%rax), %rbx
        movq    8(%rax), %rbp
        movq    16(%rax), %rsi
        movq    24(%rax), %rdi
        movq    32(%rax), %r12
        movq    40(%rax), %r13
        movq    48(%rax), %r14
        movq    56(%rax), %r15
        .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movddup (\n * 8 + 16)(%rax), %xmm\n
        .endr
        .irp n, 0, 1, 2, 3, 4, 5
        movddup (\n * 8 + 144)(%rax), %xmm\n
        .endr
        movq    192(%rax), %r10
        movq    200(%rax), %r11
        movq    208(%rax), %r8
        movq    216(%rax), %r9
        movq    224(%rax), %rax
        callq   *guardedCall(%rip)
        movq    192(%rsp), %rdx
        movq    %rbx, 0(%rdx)
        movq    %rbp, 8(%rdx)
        movq    %rsi, 16(%rdx)
        movq    %rdi, 24(%rdx)
        movq    %r12, 32(%rdx)
        movq    %r13, 40(%rdx)
        movq    %r14, 48(%rdx)
        movq    %r15, 56(%rdx)
        .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movq    %xmm\n, (\n * 8 + 16)(%rdx)
        movaps  (\n * 16 - 64)(%rsp), %xmm\n
        .endr
        addq    $200, %rsp
        .irp reg, %r15, %r14, %r13, %r12, %rdi, %rsi, %rbp, %rbx
        popq    \reg
        .endr
        retq
        .seh_endproc
)");

static std::map<DWORD, unsigned> raised;

static LONG CALLBACK CountRaised(EXCEPTION_POINTERS *pointers)
{
    ++raised[pointers->ExceptionRecord->ExceptionCode];
    return EXCEPTION_CONTINUE_SEARCH;
}

static uint64_t AddressOf(const void *place)
{
    return reinterpret_cast<uint64_t>(place);
}

static uint64_t CodeAddress(const char *library, const char *name)
{
    return AddressOf(reinterpret_cast<const void *>(GetProcAddress(GetModuleHandleA(library), name)));
}

// Code of the program and of the system, at a function's start and inside of it; addresses of data; no addresses.
static std::vector<uint64_t> SeedValues()
{
    static uint64_t data = 0;
    const uint64_t guard = AddressOf(reinterpret_cast<const void *>(&CreateBackupComponentsGuarded));
    const uint64_t caller = AddressOf(reinterpret_cast<const void *>(&CallWithRegisters));
    const uint64_t printing = AddressOf(reinterpret_cast<const void *>(&printf));
    const uint64_t load = CodeAddress("kernelbase.dll", "LoadLibraryExW");
    const uint64_t wait = CodeAddress("kernelbase.dll", "WaitForSingleObjectEx");
    const uint64_t close = CodeAddress("ntdll.dll", "NtClose");
    return {0,
            1,
            ~uint64_t{0},
            0x8000000000000000,
            0x00007FFFFFFFFFFF,
            AddressOf(&data),
            guard,
            guard + 14,
            load,
            load + 16,
            wait,
            wait + 16,
            printing,
            printing + 16,
            close,
            caller,
            caller + 40};
}

static std::vector<Seeds> AllSeeds()
{
    const std::vector<uint64_t> values = SeedValues();
    std::vector<Seeds> all;
    for (const uint64_t value : values) {
        Seeds seeds = {};
        seeds[seedOfR8] = value;
        all.push_back(seeds);
        seeds[seedOfR9] = value;
        all.push_back(seeds);
        seeds[seedOfR8] = 0;
        all.push_back(seeds);
        seeds.fill(value);
        all.push_back(seeds);
    }
    std::mt19937_64 random(1);
    for (unsigned count = 0; count < 400; ++count) {
        Seeds seeds;
        for (uint64_t &seed : seeds) {
            seed = count % 4 == 0 ? random() : values[random() % values.size()];
        }
        all.push_back(seeds);
    }
    return all;
}

static bool KeptIn(const Preserved &preserved, const Seeds &seeds)
{
    return std::equal(preserved.begin(), preserved.end(), seeds.begin());
}

int main()
{
    AddVectoredExceptionHandler(1, CountRaised);
    unsigned calls = 0;
    unsigned caught = 0;
    unsigned kept = 0;
    for (const Seeds &seeds : AllSeeds()) {
        IVssBackupComponents *components = nullptr;
        HRESULT result = S_OK;
        Preserved preserved = {};
        ++calls;
        caught += CallWithRegisters(&components, &result, seeds.data(), preserved.data()) ? 0 : 1;
        kept += KeptIn(preserved, seeds) ? 1 : 0;
    }
    printf("calls: %u, caught: %u, registers kept: %u\n", calls, caught, kept);
    for (const auto &[code, times] : raised) {
        printf("raised 0x%08lX: %u\n", code, times);
    }
}
