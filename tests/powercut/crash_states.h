// What a power cut may leave of a file, worked out from the log of the writes to it.
//
// Each write is cut where the file's blocks of 4 KiB begin, and each of these units is either there or not: a file
// system may have kept any of the last ones, whatever their order was. Where nothing was kept the ground shows, which
// is zeros, or what lay there before. One file is taken from state to state, and only what differs is written.
#pragma once

#include "simulator/images.h"
#include "simulator/machine.h"

#include <string>
#include <vector>

constexpr uint64_t blockBytes = 4096;

struct Write {
    size_t number; // among the writes of the run, from 0 on; of a unit, that of the write it is cut from
    uint64_t offset;
    Bytes bytes;

    uint64_t End() const
    {
        return offset + bytes.size();
    }
};

// The writes of a run to one file, in their order.
struct WriteLog {
    std::vector<Write> writes;
    uint64_t lengthBefore = 0; // of the file, ahead of the first of them
};

// Makes the machine fill log with the writes to that file until onCall is set anew; log has to stay until then.
void LogWrites(Machine &machine, const std::string &path, WriteLog *log);

std::vector<Write> CutToBlocks(const std::vector<Write> &writes);

using Kept = std::vector<bool>; // for each unit

uint64_t LengthOf(const std::vector<Write> &units, const Kept &kept); // as these writes leave it

struct StateFile {
    std::string path;
    std::vector<Write> units;
    Bytes ground;  // as long as the file can be
    Bytes content; // of the state that is shown, ground behind its end
    Kept kept;
    uint64_t lengthBytes = 0;
};

// A new file, empty. The ground is cut or filled up with zeros.
StateFile MakeStateFile(const std::string &path, const std::vector<Write> &units, Bytes ground = {});
// Brings the file into that state; it is closed afterwards.
void Show(StateFile &file, const Kept &kept, uint64_t lengthBytes);
