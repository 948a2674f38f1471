// What a restore may do, decided from facts alone: which images can be restored, which disks may be overwritten and
// what has to be typed for that, and what state a disk is in after kestrix ended. Nothing is read and nothing is asked
// here.
#pragma once

#include "host/host.h"
#include "reader/reader.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// ---- Images ----

enum class PartState {
    There,
    Missing,
    Replaced, // another image has its name
    Faulty,   // says tells why
};

// An image that another one stands on.
struct ChainPart {
    std::string name; // of the file
    PartState state = PartState::There;
    std::string says;
};

// Why the image can't be restored as it lies there, as a sentence; empty: nothing is known against it. needs is what it
// stands on, the nearest first.
std::string WhyNotRestorable(const reader::ImageFacts &facts, const std::vector<ChainPart> &needs);

// ---- Disks ----

struct TargetRules {
    uint64_t diskBytes = 0; // of the image's disk
    uint32_t sectorBytes = 0;
    bool takesOtherSectors = false;
    std::vector<std::string>
        imageDisks; // that the image and what it stands on lie on, as host::FileSystemFacts has them
    std::vector<std::string> startDisks; // that the running system was started from
};

// Why a disk can't be overwritten, and what can be done about it.
struct Refusal {
    std::string why;
    std::string remedy;
};

// None: disk, which is one of all, may be overwritten.
std::optional<Refusal> WhyNoTarget(const host::DiskFacts &disk, const std::vector<host::DiskFacts> &all,
                                   const TargetRules &rules);

// ---- What is typed before a disk is overwritten ----

enum class ProofKind {
    SerialEnd, // the last characters of its serial
    Size,      // its size in bytes
    Nothing,   // there is nothing that tells it from every other disk
};

struct Proof {
    ProofKind kind = ProofKind::Nothing;
    size_t characters = 0; // of a serial's end
    std::string text;      // what has to be typed
};

// For a person who sees all of the disks. Blanks in a serial do not count, and small letters are as good as large ones.
Proof ProofForPerson(const host::DiskFacts &disk, const std::vector<host::DiskFacts> &all);

// True if typed is that, or more of the serial's end than was asked for.
bool IsProof(const Proof &proof, const host::DiskFacts &disk, const std::string &typed);

// For a script: the whole serial, to the letter.
Proof ProofForScript(const host::DiskFacts &disk, const std::vector<host::DiskFacts> &all);

// ---- After kestrix ----

enum class DiskState {
    Untouched,
    PartlyWritten, // or that it was not can't be told
    Written,
};

// The line of those that kestrix printed which says why it failed; empty: there is none.
std::string FailureLine(const std::vector<std::string> &lines);

// lines is what kestrix printed until its end.
DiskState StateAfter(const host::ProgramEnd &end, const std::vector<std::string> &lines);
