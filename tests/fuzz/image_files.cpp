// Image files out of an input, with what is mended about them, and the laws on how a run over them ends.
#include "fuzz/image_files.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <regex>

static constexpr size_t headerBytes = 64;
static constexpr size_t entryBytes = 72;
static constexpr size_t mostFiles = 5;
static constexpr size_t noFile = mostFiles;

static std::string FileName(size_t i)
{
    return std::string(1, static_cast<char>('a' + i)) + ".kstx";
}

bool HasTable(const Bytes &image)
{
    return image.size() >= headerBytes && LoadInteger(image, 28, 8) <= (image.size() - headerBytes) / entryBytes;
}

// Where the trailer of a thin image begins; the file's size if there is none.
static size_t TrailerStart(const Bytes &image)
{
    if (image.size() < headerBytes + 48 || image[8] != 3) {
        return image.size();
    }
    const uint64_t length = LoadInteger(image, image.size() - 4, 4);
    return length >= 48 && length <= image.size() - headerBytes ? image.size() - length : image.size();
}

// The number of the file that the trailer names, or noFile.
static size_t NamedBase(const ImageFiles &images, const Bytes &image)
{
    const size_t start = TrailerStart(image);
    if (start == image.size()) {
        return noFile;
    }
    const std::string name(image.begin() + static_cast<ptrdiff_t>(start) + 12, image.end() - 36);
    for (size_t i = 0; i < images.files.size(); ++i) {
        if (name == FileName(i) && HasTable(images.files[i])) {
            return i;
        }
    }
    return noFile;
}

static void StoreDigest(Bytes &image, size_t offset, const std::array<uint8_t, 32> &digest)
{
    std::copy(digest.begin(), digest.end(), image.begin() + static_cast<ptrdiff_t>(offset));
}

// Only what lies within the file gets its digest, and only up to the length of a chunk.
static void FitHashes(ImageFiles &images, Bytes &image)
{
    if (!HasTable(image) || image[36] != 0) {
        return;
    }
    const size_t base = NamedBase(images, image);
    const HeaderFields header = HeaderOf(image);
    uint64_t place = DataStartOf(image);
    for (uint64_t i = 0; i < header.chunkCount; ++i) {
        const size_t entry = headerBytes + i * entryBytes;
        const uint64_t stored = LoadInteger(image, entry + 8, 4);
        const uint64_t length = std::min<uint64_t>(header.chunkSize, header.diskSize - i * header.chunkSize);
        if (stored == 0 && base != noFile && i < LoadInteger(images.files[base], 28, 8)) {
            std::copy_n(images.files[base].begin() + static_cast<ptrdiff_t>(entry) + 12, 32,
                        image.begin() + static_cast<ptrdiff_t>(entry) + 12);
        } else if (place <= image.size() && std::min(stored, length) <= image.size() - place) {
            const auto first = image.begin() + static_cast<ptrdiff_t>(place);
            StoreDigest(image, entry + 12,
                        Sha256Of(Bytes(first, first + static_cast<ptrdiff_t>(std::min(stored, length)))));
        }
        place += stored;
    }
}

static void FitPin(ImageFiles &images, Bytes &image)
{
    const size_t base = NamedBase(images, image);
    if (base != noFile) {
        StoreDigest(image, image.size() - 36, ImageIdOf(images.files[base]));
    }
}

ImageFiles TakeImageFiles(Input &input)
{
    ImageFiles images;
    images.flags = static_cast<uint8_t>(input.Integer(1));
    const size_t count = input.Integer(1) % mostFiles + 1;
    for (size_t i = 0; i < count; ++i) {
        images.files.push_back(i + 1 < count ? input.Take(input.Integer(2)) : input.Rest());
        if (images.files[i].size() >= headerBytes) {
            StoreInteger(images.files[i], 60, LoadInteger(images.files[i], 60, 4) & 15, 4);
        }
    }
    for (size_t i = count; i-- > 0;) {
        if ((images.flags & withFittingHashes) != 0) {
            FitHashes(images, images.files[i]);
        }
    }
    for (Bytes &image : images.files) {
        if ((images.flags & withFittingPins) != 0) {
            FitPin(images, image);
        }
    }
    return images;
}

Machine MachineForImages()
{
    Machine machine;
    machine.memoryBytes = MiB;
    return machine;
}

void WriteImageFiles(const ImageFiles &images)
{
    if (!FileExists("password")) {
        WriteText("password", "password\n");
    }
    for (size_t i = 0; i < mostFiles; ++i) {
        if (i < images.files.size()) {
            WriteBytes(FileName(i), images.files[i]);
        } else {
            remove(FileName(i).c_str());
        }
    }
}

// The last line, without the line break at its end.
static std::string LastLine(std::string text)
{
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text.substr(text.rfind('\n') + 1);
}

static bool IsFailureLine(const std::string &line)
{
    static const std::regex withNumber("FATAL: [A-Za-z-][^\n]* \\((GetLastError=[0-9]+|NTSTATUS 0x[0-9A-F]{8})\\)");
    static const std::regex ofAChunk(
        "FATAL: chunk [0-9]+ (failed authentication \\(corrupt/tampered image\\)|hash mismatch \\(corrupt image\\)) - "
        "restore aborted, target disk left partially written\\.");
    return std::regex_match(line, withNumber) || std::regex_match(line, ofAChunk);
}

static void CheckWords(const RunResult &result, const std::string &refusal)
{
    const std::string last = LastLine(result.errorText);
    const bool isFatal = IsFailureLine(last);
    Law(isFatal || (!refusal.empty() && last.find(refusal) != std::string::npos), "a failure says what failed",
        result.errorText);
    const size_t first = result.errorText.find("FATAL: ");
    Law(!isFatal || result.errorText.find("FATAL: ", first + 1) == std::string::npos, "one failure is reported once",
        result.errorText);
}

// Five files that don't are read within the machine's memory.
static bool ClaimsMuch(const Bytes &image)
{
    constexpr uint64_t much = 80 * KiB;
    if (image.size() < headerBytes) {
        return false;
    }
    const HeaderFields header = HeaderOf(image);
    if (header.chunkSize > much || header.chunkCount > much / 72) {
        return true;
    }
    const std::vector<EntryFields> entries = HasTable(image) ? EntriesOf(image) : std::vector<EntryFields>();
    return std::any_of(entries.begin(), entries.end(),
                       [](const EntryFields &entry) { return entry.storedLength > much; });
}

void CheckEnd(const ImageFiles &images, const Machine &machine, const RunResult &result, const std::string &refusal)
{
    if (result.abnormalEnd) {
        Law(result.abnormalText == "std::bad_alloc", "only want of memory ends the program abnormally",
            result.abnormalText);
        Law(std::any_of(images.files.begin(), images.files.end(), ClaimsMuch),
            "no more memory is asked for than a file claims");
    } else if (result.exitStatus == 0) {
        Law(result.errorText.empty(), "success leaves the error stream empty", result.errorText);
    } else {
        Law(result.exitStatus == 1, "a failure has exit status 1", std::to_string(result.exitStatus));
        CheckWords(result, refusal);
    }
    Law(machine.misuses.empty(), "nothing is closed twice or used when closed",
        machine.misuses.empty() ? "" : machine.misuses[0]);
    for (const Call &call : machine.calls) {
        if (call.name == "CreateFileW" && call.object.compare(0, 5, "file:") == 0) {
            Law(Field(call, "access") == GENERIC_READ, "images are only read", call.text);
        }
    }
}
