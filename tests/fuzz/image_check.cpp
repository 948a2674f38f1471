// The law: check says of a chain what verify says. It calls an image sound only where verify accepts it, and damaged
// where verify accepts it only for entries that name another place than their chunk's own, for bytes that belong to
// nothing and for a disk larger than the chunks, and each of those is there.
//
// extract gives the bytes that restore writes, or both fail. It gives no disk where restore gives none, but for a disk
// that takes no such write and for a sealed image without a key of which nothing is needed; and it gives none where
// restore does only for chunks at another place and for sealed ones that have their tag and not their digest. When it
// keeps going it tells why a chain doesn't open to its end. What it then leaves out is a hole, and every other byte
// belongs to a chunk with the digest of its entry. What repair makes has the image's identity, no bytes too many, and
// holds each stored chunk. No image changes, and no command keeps memory when it is done.
//
// The input is what image_files.h says. verify and restore run on the simulated machine, the commands of kestrix-image
// on the system itself. What an entry says is read by the tests' own reader, and digests are those of libcrypto.
#include "fuzz/image_files.h"

#include "kestrix-image/commands.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

using Json = nlohmann::json;

static constexpr uint64_t smallestDisk = 64 * KiB;
static constexpr uint64_t largestDisk = MiB;

// Bytes that are allocated now; there is no such call in a build without the address sanitizer.
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

// ---- The companion's commands ----

struct Answer {
    int status = 0;
    Json says;
};

// What is kept the first times, tables of the libraries, is less than this.
static constexpr int64_t mostBytesKept = 256 * KiB;

static int64_t AllocatedBytes()
{
    return __sanitizer_get_current_allocated_bytes == nullptr
               ? 0
               : static_cast<int64_t>(__sanitizer_get_current_allocated_bytes());
}

static int WithoutKeepingMemory(const std::function<int()> &command)
{
    static int64_t kept = 0;
    const int64_t before = AllocatedBytes();
    const int status = command();
    kept += AllocatedBytes() - before;
    Law(kept < mostBytesKept, "a command of kestrix-image keeps no memory", std::to_string(kept) + " bytes are kept");
    return status;
}

// What command prints to standard output.
static std::string OutputOf(const std::function<int()> &command, int *status)
{
    constexpr char name[] = "printed";
    fflush(stdout);
    const int original = dup(STDOUT_FILENO);
    const int caught = open(name, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Law(original >= 0 && dup2(caught, STDOUT_FILENO) >= 0, "standard output can be caught");
    *status = WithoutKeepingMemory(command);
    fflush(stdout);
    dup2(original, STDOUT_FILENO);
    close(original);
    close(caught);
    const Bytes printed = ReadBytes(name);
    return std::string(printed.begin(), printed.end());
}

static Answer Ask(const std::function<int()> &command)
{
    Answer answer;
    const std::string text = OutputOf(command, &answer.status);
    answer.says = Json::parse(text, nullptr, false);
    Law(answer.says.is_object(), "the answer is one JSON object", text);
    return answer;
}

static CommonOptions CommonFor(const ImageFiles &images)
{
    CommonOptions common;
    common.json = true;
    common.quiet = true;
    common.caching = host::Caching::Cached;
    common.passwordFile = (images.flags & withoutPassword) != 0 ? "" : "password";
    return common;
}

// ---- The files as the tests read them ----

static size_t IndexOf(const ImageFiles &images, const std::string &name)
{
    Law(name.size() == strlen("a.kstx") && name.substr(1) == ".kstx", "a file is named as it was given", name);
    const auto index = static_cast<size_t>(name[0] - 'a');
    Law(index < images.files.size(), "a file that is named is there", name);
    return index;
}

static uint64_t LengthOf(const HeaderFields &header, uint64_t i)
{
    return std::min<uint64_t>(header.chunkSize, header.diskSize - i * header.chunkSize);
}

static bool LiesOnDisk(const HeaderFields &header, uint64_t i)
{
    const uint64_t begin = i * header.chunkSize;
    return begin <= header.diskSize && LengthOf(header, i) <= header.diskSize - begin;
}

static uint64_t BytesWithoutChunks(const Bytes &file)
{
    const HeaderFields header = HeaderOf(file);
    return header.diskSize - std::min<uint64_t>(header.diskSize, EntriesOf(file).size() * header.chunkSize);
}

static uint64_t BytesTooMany(const Bytes &file)
{
    uint64_t used = DataStartOf(file);
    for (const EntryFields &entry : EntriesOf(file)) {
        used += entry.storedLength;
    }
    if (HeaderOf(file).version == 3) {
        used += LoadInteger(file, file.size() - 4, 4);
    }
    return file.size() - std::min<uint64_t>(used, file.size());
}

// ---- check beside verify ----

static std::vector<std::string> Arguments(const char *command, const ImageFiles &images)
{
    std::vector<std::string> arguments = {command, "--in", "a.kstx"};
    if ((images.flags & withoutPassword) == 0) {
        arguments.insert(arguments.end(), {"--password-file", "password"});
    }
    return arguments;
}

enum class Verdict { Accepts, Refuses, NoMemory };

// Memory that the commands of kestrix-image have, and the machine has not, makes no difference.
static Verdict VerdictOf(const Machine &machine, const RunResult &result)
{
    const bool wantedMemory = std::any_of(machine.calls.begin(), machine.calls.end(), [](const Call &call) {
        return call.failed && (call.name == "calloc" || call.name == "_aligned_malloc");
    });
    if (result.abnormalEnd || wantedMemory) {
        return Verdict::NoMemory;
    }
    return result.exitStatus == 0 ? Verdict::Accepts : Verdict::Refuses;
}

static Machine MachineWithMemory()
{
    Machine machine = MachineForImages();
    machine.memoryBytes = 16 * MiB; // for the usual chunks of 4 MiB
    return machine;
}

static Verdict Verify(const ImageFiles &images)
{
    Machine machine = MachineWithMemory();
    const RunResult result = RunCommand(machine, Arguments("verify", images));
    CheckEnd(images, machine, result, "Do not trust this image for restore.");
    return VerdictOf(machine, result);
}

// What is wrong though verify says nothing of it.
static void CheckStatedDifferences(const ImageFiles &images, const Json &image)
{
    for (const Json &bad : image["badChunks"]) {
        const Bytes &file = images.files[IndexOf(images, bad["file"])];
        const uint64_t chunk = bad["chunk"];
        Law(bad["cause"] == "wrongPlace", "what verify accepts has no bad chunk but for its place", image.dump());
        Law(EntriesOf(file).at(chunk).diskOffset != chunk * HeaderOf(file).chunkSize ||
                !LiesOnDisk(HeaderOf(file), chunk),
            "a wrong place is wrong", image.dump());
    }
    for (const Json &more : image["bytesTooMany"]) {
        Law(more["bytes"] == BytesTooMany(images.files[IndexOf(images, more["file"])]), "the bytes too many are there",
            image.dump());
    }
    Law(image["bytesWithoutChunks"] == BytesWithoutChunks(images.files[0]), "the bytes without chunks are there",
        image.dump());
    Law(!image["badChunks"].empty() || !image["bytesTooMany"].empty() || image["bytesWithoutChunks"] != 0,
        "what is damaged has a fault", image.dump());
}

// That a sound image has none of what verify leaves out.
static void CheckSound(const ImageFiles &images, const Json &image)
{
    const Bytes &file = images.files[0];
    const std::vector<EntryFields> entries = EntriesOf(file);
    for (uint64_t i = 0; i < entries.size(); ++i) {
        Law(entries[i].diskOffset == i * HeaderOf(file).chunkSize && LiesOnDisk(HeaderOf(file), i),
            "a sound image has each chunk at its place", image.dump());
    }
    Law(BytesWithoutChunks(file) == 0, "a sound image has chunks for its whole disk", image.dump());
    for (const Json &one : image["chain"]) {
        Law(BytesTooMany(images.files[IndexOf(images, one["file"])]) == 0, "a sound image has no bytes too many",
            image.dump());
    }
}

static Json CheckBesideVerify(const ImageFiles &images, Verdict verdict)
{
    const CommonOptions common = CommonFor(images);
    CheckOptions options;
    options.images = {"a.kstx"};
    const Answer answer = Ask([&] { return Check(common, options); });
    const Json image = answer.says["images"].at(0);
    const std::string said = image["verdict"];
    Law((answer.status == exitGood && said == "sound") || (answer.status == exitFound && said == "damaged") ||
            (answer.status == exitImpossible && said == "impossible"),
        "the verdict is the status", image.dump());
    if (verdict != Verdict::NoMemory) {
        Law((image["verify"] == "accepts") == (verdict == Verdict::Accepts), "check knows what verify says",
            image.dump());
    }
    Law(said != "sound" || image["verify"] == "accepts", "what is sound is accepted", image.dump());
    Law(image["verify"].is_null() == (said == "impossible"), "only what can't be told is left open", image.dump());
    if (said == "sound") {
        CheckSound(images, image);
    } else if (image["verify"] == "accepts") {
        CheckStatedDifferences(images, image);
    }
    return image;
}

// ---- extract beside restore ----

struct Restored {
    Verdict verdict = Verdict::Refuses;
    bool diskRefused = false; // it is too small, or there is no such place on it
    Bytes disk;
};

static Restored Restore(const ImageFiles &images, uint64_t diskSize)
{
    Restored restored;
    Machine machine = MachineWithMemory();
    machine.disks[1].bytes.resize(std::clamp(diskSize, smallestDisk, largestDisk));
    machine.disks[1].refusesUnaligned = false;
    std::vector<std::string> arguments = Arguments("restore", images);
    arguments.insert(arguments.end(), {"--disk", "1", "--confirm", "YES"});
    const RunResult result = RunCommand(machine, arguments);
    CheckEnd(images, machine, result, "Refusing: target disk 1 is ");
    restored.verdict = VerdictOf(machine, result);
    restored.diskRefused = result.errorText.find("Refusing: target disk 1 is ") != std::string::npos ||
                           result.errorText.find("WriteFile to target disk failed") != std::string::npos;
    restored.disk = std::move(machine.disks[1].bytes);
    return restored;
}

static bool IsSealedAndFirst(const ImageFiles &images, const Json &bad)
{
    return bad["file"] == "a.kstx" && bad["cause"] == "digest" && images.files[0][36] != 0;
}

// Whether a sealed image is among them whose key can't be derived: restore wants it even where nothing of it is needed.
static bool HasSealedWithoutKey(const ImageFiles &images)
{
    return std::any_of(images.files.begin(), images.files.end(), [&images](const Bytes &file) {
        if (!HasTable(file)) {
            return false;
        }
        const HeaderFields header = HeaderOf(file);
        return header.encrypted != 0 && ((images.flags & withoutPassword) != 0 || header.kdfIterations == 0);
    });
}

// The chunks that extract does without, where restore was content.
static void CheckRefusal(const ImageFiles &images, const Json &checked)
{
    Law(checked["fault"].is_null(), "what restore opens is opened", checked.dump());
    for (const Json &bad : checked["badChunks"]) {
        Law(bad["cause"] == "wrongPlace" || IsSealedAndFirst(images, bad),
            "only a place, or a digest behind a tag, keeps from being extracted what restores", checked.dump());
    }
}

static void ExtractBesideRestore(const ImageFiles &images, const Json &checked)
{
    const CommonOptions common = CommonFor(images);
    ExtractOptions options;
    options.image = "a.kstx";
    options.out = "disk";
    remove("disk");
    const Answer answer = Ask([&] { return Extract(common, options); });
    const bool isWhole = answer.says["result"] == "whole";
    Law(isWhole == (answer.status == exitGood), "a whole disk is success", answer.says.dump());
    Law(isWhole == FileExists("disk"), "there is a file if it is whole", answer.says.dump());
    const uint64_t diskSize = HasTable(images.files[0]) ? HeaderOf(images.files[0]).diskSize : 0;
    const Restored restored = Restore(images, diskSize);
    if (restored.verdict == Verdict::NoMemory || restored.diskRefused || diskSize > largestDisk) {
        return;
    }
    Law(!isWhole || restored.verdict == Verdict::Accepts || HasSealedWithoutKey(images), "what is extracted restores",
        answer.says.dump());
    if (isWhole && restored.verdict == Verdict::Accepts) {
        const Bytes disk = ReadBytes("disk");
        Law(disk.size() == diskSize && std::equal(disk.begin(), disk.end(), restored.disk.begin()),
            "extract gives what restore writes");
    } else if (restored.verdict == Verdict::Accepts) {
        Law(checked["verdict"] != "sound", "what is sound is extracted", answer.says.dump());
        CheckRefusal(images, checked);
    }
}

// ---- Extracting what there is ----

static void CheckHole(int disk, uint64_t offset, uint64_t length)
{
    Bytes bytes(std::min(length, largestDisk));
    Law(pread(disk, bytes.data(), bytes.size(), static_cast<off_t>(offset)) == static_cast<ssize_t>(bytes.size()),
        "the file has the disk's length");
    Law(std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; }), "what is missing is a hole");
}

static void CheckChunks(const ImageFiles &images, const Json &says)
{
    const HeaderFields header = HeaderOf(images.files[0]);
    const std::vector<EntryFields> entries = EntriesOf(images.files[0]);
    std::vector<bool> isBad(entries.size());
    for (const Json &bad : says["badChunks"]) {
        isBad[bad["chunk"]] = true;
    }
    const int disk = open("disk", O_RDONLY | O_CLOEXEC);
    Law(disk >= 0, "the file is there", says.dump());
    for (uint64_t i = 0; i < entries.size(); ++i) {
        const uint64_t offset = i * header.chunkSize;
        const uint64_t length = LengthOf(header, i);
        Law(isBad[i] || LiesOnDisk(header, i), "a chunk that is no part of the disk is bad", says.dump());
        if (isBad[i] && LiesOnDisk(header, i)) {
            CheckHole(disk, offset, length);
        } else if (!isBad[i]) {
            Bytes bytes(length);
            Law(pread(disk, bytes.data(), length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length),
                "the file has the disk's length");
            Law(Sha256Of(bytes) == entries[i].hash, "a chunk that is not bad has its digest", says.dump());
        }
    }
    close(disk);
}

static void ExtractWhatThereIs(const ImageFiles &images, const Json &checked)
{
    const CommonOptions common = CommonFor(images);
    ExtractOptions options;
    options.image = "a.kstx";
    options.out = "disk";
    options.keepGoing = true;
    options.map = "map";
    options.twins = ".";
    remove("disk");
    remove("map");
    const Answer answer = Ask([&] { return Extract(common, options); });
    const bool isThere = answer.says["result"] == "whole" || answer.says["result"] == "holes";
    Law(isThere == FileExists("disk") && isThere == FileExists("map"), "file and map are there together",
        answer.says.dump());
    Law((answer.says["result"] == "whole") == (answer.status == exitGood), "a whole disk is success",
        answer.says.dump());
    const bool isTold = !answer.says.contains("notes") || !answer.says["notes"].empty();
    Law(checked["fault"].is_null() || isTold || HasSealedWithoutKey(images),
        "of a chain that does not open to its end it is told why", answer.says.dump());
    if (isThere) {
        CheckChunks(images, answer.says);
    }
}

// ---- Repairing ----

// That each stored chunk opens and has its digest, in a file whose table is whole.
static bool HoldsItsChunks(const Bytes &file)
{
    const HeaderFields header = HeaderOf(file);
    const std::vector<EntryFields> entries = EntriesOf(file);
    const bool storesAny =
        std::any_of(entries.begin(), entries.end(), [](const EntryFields &entry) { return entry.storedLength != 0; });
    if (!storesAny || (header.encrypted != 0 && header.kdfIterations == 0)) {
        return !storesAny; // no key comes from no iterations
    }
    const std::array<uint8_t, 32> key =
        header.encrypted != 0 ? Pbkdf2Of("password", header.salt, header.kdfIterations) : std::array<uint8_t, 32>();
    uint64_t place = DataStartOf(file);
    for (const EntryFields &entry : entries) {
        if (entry.storedLength > file.size() - place) {
            return false;
        }
        const auto first = file.begin() + static_cast<ptrdiff_t>(place);
        Bytes chunk(first, first + entry.storedLength);
        if (entry.storedLength != 0 && header.encrypted != 0 &&
            !Unseal(key, entry.nonce, Bytes(chunk), entry.tag, &chunk)) {
            return false;
        }
        if (entry.storedLength != 0 && Sha256Of(chunk) != entry.hash) {
            return false;
        }
        place += entry.storedLength;
    }
    return true;
}

static void RepairWithWhatThereIs(const ImageFiles &images)
{
    const CommonOptions common = CommonFor(images);
    const RepairOptions options = {"a.kstx", "repaired", ".", std::nullopt};
    remove("repaired");
    const Answer answer = Ask([&] { return Repair(common, options); });
    const std::string result = answer.says["result"];
    Law((result == "whole" || result == "sound") == (answer.status == exitGood), "what is whole is success",
        answer.says.dump());
    Law((result == "whole") == FileExists("repaired"), "there is a file if it is whole", answer.says.dump());
    if (result == "whole" || result == "sound") {
        const Bytes &before = images.files[0];
        const Bytes after = result == "whole" ? ReadBytes("repaired") : before;
        Law(HasTable(after) && ImageIdOf(after) == ImageIdOf(before), "a repaired image has its identity",
            answer.says.dump());
        Law(BytesTooMany(after) == 0 && HoldsItsChunks(after), "a repaired image is sound", answer.says.dump());
    }
    remove("repaired");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Scratch scratch;
    Input input(data, size);
    const ImageFiles images = TakeImageFiles(input);
    WriteImageFiles(images);
    const Json checked = CheckBesideVerify(images, Verify(images));
    ExtractBesideRestore(images, checked);
    ExtractWhatThereIs(images, checked);
    RepairWithWhatThereIs(images);
    for (size_t i = 0; i < images.files.size(); ++i) {
        Law(ReadBytes(std::string(1, static_cast<char>('a' + i)) + ".kstx") == images.files[i], "no image is changed");
    }
    return 0;
}
