// Logging writes, cutting them, and taking a file from one state to the next; see the header.
#include "powercut/crash_states.h"

#include "simulator/system_beneath.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace
{
struct Range {
    uint64_t start;
    uint64_t end;
};

void CopyRange(const Bytes &from, uint64_t fromStart, const Range &range, Bytes &to)
{
    std::copy_n(from.begin() + static_cast<std::ptrdiff_t>(range.start - fromStart), range.end - range.start,
                to.begin() + static_cast<std::ptrdiff_t>(range.start));
}

// What stands there once the kept writes have been made in their order.
void Rebuild(StateFile &file, const Range &range)
{
    CopyRange(file.ground, 0, range, file.content);
    for (size_t i = 0; i < file.units.size(); ++i) {
        const Write &unit = file.units[i];
        const Range common = {std::max(range.start, unit.offset), std::min(range.end, unit.End())};
        if (file.kept[i] && common.start < common.end) {
            CopyRange(unit.bytes, unit.offset, common, file.content);
        }
    }
}

void WriteRanges(const StateFile &file, const std::vector<Range> &ranges)
{
    std::fstream stream(FileNamed(file.path), std::ios::binary | std::ios::in | std::ios::out);
    for (const Range &range : ranges) {
        const uint64_t end = std::min(range.end, file.lengthBytes);
        if (range.start < end) {
            stream.seekp(static_cast<std::streamoff>(range.start));
            stream.write(reinterpret_cast<const char *>(file.content.data() + range.start),
                         static_cast<std::streamsize>(end - range.start));
        }
    }
    stream.close();
    if (!stream.good()) {
        throw std::runtime_error("cannot write " + file.path);
    }
}
} // namespace

void LogWrites(Machine &machine, const std::string &path, WriteLog *log)
{
    machine.onCall = [path, log](Machine &, const Call &call) {
        if (call.name != "WriteFile" || call.object.compare(0, path.size() + 6, "file:" + path + "#") != 0) {
            return;
        }
        if (log->writes.empty()) {
            log->lengthBefore = std::filesystem::file_size(FileNamed(path));
        }
        const auto *first = static_cast<const uint8_t *>(call.buffer);
        log->writes.push_back({log->writes.size(), Field(call, "offset"), Bytes(first, first + Field(call, "length"))});
    };
}

std::vector<Write> CutToBlocks(const std::vector<Write> &writes)
{
    std::vector<Write> units;
    for (const Write &write : writes) {
        for (uint64_t start = write.offset; start < write.End();) {
            const uint64_t end = std::min(write.End(), (start / blockBytes + 1) * blockBytes);
            const uint8_t *first = write.bytes.data() + (start - write.offset);
            units.push_back({write.number, start, Bytes(first, first + (end - start))});
            start = end;
        }
    }
    return units;
}

uint64_t LengthOf(const std::vector<Write> &units, const Kept &kept)
{
    uint64_t lengthBytes = 0;
    for (size_t i = 0; i < units.size(); ++i) {
        lengthBytes = kept[i] ? std::max(lengthBytes, units[i].End()) : lengthBytes;
    }
    return lengthBytes;
}

StateFile MakeStateFile(const std::string &path, const std::vector<Write> &units, Bytes ground)
{
    StateFile file;
    file.path = path;
    file.units = units;
    file.ground = std::move(ground);
    file.ground.resize(LengthOf(units, Kept(units.size(), true)));
    file.content = file.ground;
    file.kept.resize(units.size());
    WriteBytes(path, {});
    return file;
}

void Show(StateFile &file, const Kept &kept, uint64_t lengthBytes)
{
    std::vector<Range> changed;
    for (size_t i = 0; i < file.units.size(); ++i) {
        if (file.kept[i] != kept[i]) {
            changed.push_back({file.units[i].offset, file.units[i].End()});
        }
    }
    file.kept = kept;
    for (const Range &range : changed) {
        Rebuild(file, range);
    }
    if (lengthBytes < file.lengthBytes) {
        std::filesystem::resize_file(FileNamed(file.path), lengthBytes);
    } else if (lengthBytes > file.lengthBytes) {
        changed.push_back({file.lengthBytes, lengthBytes});
    }
    file.lengthBytes = lengthBytes;
    WriteRanges(file, changed);
}
