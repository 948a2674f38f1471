// The law: whatever bytes a chain of image files holds, verify ends with its verdict or with one stated line, and an
// image that it accepts restores: every entry's bytes go to the disk in order, each with the digest of its entry, and
// nothing else ends that restore but a disk that does not take them. Accepted or not, restore writes no byte of a plain
// image that has not the digest of its entry, and a plain image that restores whole is one that verify accepts.
//
// The input is what image_files.h says, the disk has 64 KiB. What restore writes is compared with the table as the
// test's own reader sees it, and with the digests of libcrypto.
#include "fuzz/image_files.h"

static constexpr uint64_t diskBytes = 64 * KiB;

static std::vector<std::string> Arguments(const char *command, const ImageFiles &images)
{
    std::vector<std::string> arguments = {command, "--in", "a.kstx"};
    if ((images.flags & withoutPassword) == 0) {
        arguments.insert(arguments.end(), {"--password-file", "password"});
    }
    return arguments;
}

static bool Verifies(const ImageFiles &images)
{
    Machine machine = MachineForImages();
    const RunResult result = RunCommand(machine, Arguments("verify", images));
    CheckEnd(images, machine, result, "Do not trust this image for restore.");
    const bool accepted = !result.abnormalEnd && result.exitStatus == 0;
    Law(accepted == (result.outputText.find("Verify OK - all ") != std::string::npos), "the verdict is the status",
        result.outputText);
    Law(!accepted || CountCalls(machine, "ReadFile", "file:a.kstx") != 0, "what is accepted was read");
    return accepted;
}

// What restore sends to the disk, looked at write by write.
struct Writes {
    uint64_t chunks = 0;         // that were begun
    bool atChunkStart = false;   // the disk was moved, and nothing written since
    uint64_t matchingChunks = 0; // begun with a write of what their entry has the digest of
};

static void NoteCall(Writes &writes, const std::vector<EntryFields> &entries, bool isPlain, const Call &call)
{
    if (call.object.compare(0, 4, "disk") != 0) {
        return;
    }
    if (call.name == "SetFilePointerEx") {
        Law(writes.chunks < entries.size(), "no chunk is written that the table does not have");
        Law(Field(call, "offset") == entries[writes.chunks].diskOffset, "a chunk goes where its entry says");
        ++writes.chunks;
        writes.atChunkStart = true;
    } else if (call.name == "WriteFile") {
        Law(writes.atChunkStart, "a chunk is one write");
        writes.atChunkStart = false;
        const auto *bytes = static_cast<const uint8_t *>(call.buffer);
        const bool matches = Sha256Of(Bytes(bytes, bytes + Field(call, "length"))) == entries[writes.chunks - 1].hash;
        Law(matches || !isPlain, "no byte of a plain image is written unchecked");
        writes.matchingChunks += matches ? 1 : 0;
    }
}

static uint64_t CountNonEmptyChunks(const HeaderFields &header)
{
    uint64_t count = 0;
    for (uint64_t i = 0; i < header.chunkCount; ++i) {
        count += header.chunkSize != 0 && header.diskSize != i * header.chunkSize ? 1 : 0;
    }
    return count;
}

static void CheckRestore(const ImageFiles &images, bool accepted)
{
    const Bytes &file = images.files[0];
    const bool isWhole = HasTable(file);
    const std::vector<EntryFields> entries = isWhole ? EntriesOf(file) : std::vector<EntryFields>();
    const bool isPlain = isWhole && file[36] == 0;
    Machine machine = MachineForImages();
    machine.disks[1].bytes.resize(diskBytes);
    Writes writes;
    machine.onCall = [&](Machine &, const Call &call) { NoteCall(writes, entries, isPlain, call); };
    std::vector<std::string> arguments = Arguments("restore", images);
    arguments.insert(arguments.end(), {"--disk", "1", "--confirm", "YES"});
    const RunResult result = RunCommand(machine, arguments);
    CheckEnd(images, machine, result, "Refusing: target disk 1 is ");
    const bool restored = !result.abnormalEnd && result.exitStatus == 0;
    const bool diskRefused = result.errorText.find("Refusing: target disk 1 is ") != std::string::npos ||
                             result.errorText.find("WriteFile to target disk failed") != std::string::npos;
    Law(!accepted || restored || diskRefused, "what verify accepts restores", result.errorText + result.abnormalText);
    Law(!restored || accepted || !isPlain, "a plain image that restores is accepted by verify");
    if (restored) {
        Law(writes.chunks == entries.size(), "a whole restore has every chunk of the table");
    }
    if (restored && accepted) {
        Law(writes.matchingChunks == CountNonEmptyChunks(HeaderOf(file)), "every chunk restored has its digest");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Scratch scratch;
    Input input(data, size);
    const ImageFiles images = TakeImageFiles(input);
    WriteImageFiles(images);
    CheckRestore(images, Verifies(images));
    return 0;
}
