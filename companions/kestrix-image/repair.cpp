// repair: a damaged image made whole, in a new file, to the byte.
//
// The table is the promise that the new file has to keep: its identity stays, so that whatever stands on the image
// still stands. So the steps: the table and the trailer must be beyond doubt, as far as anything can vouch for them;
// every chunk that the image stores comes from itself if it is sound there, else from a twin with the recorded digest;
// a sealed one is sealed again under the recorded nonce, and only the recorded tag will do. What is still lacking is
// named, and then no file comes into being.
#include "kestrix-image/bad_chunks.h"
#include "kestrix-image/status.h"
#include "kestrix-image/twins.h"

#include <algorithm>
#include <atomic>
#include <cstring>

using reader::Chain;
using reader::ImageFacts;

// An image that stands on the one to be repaired and has no other file for its base, and where it looks for it.
struct Dependent {
    std::string file;
    std::string name;
    std::string folder;
};

struct RepairRun {
    RepairRun(const CommonOptions &commonOptions, const RepairOptions &repairOptions, Chain &imageAlone)
        : common(commonOptions), options(repairOptions), chain(imageAlone), verdicts(imageAlone.ChunkCount())
    {
    }

    const CommonOptions &common;
    const RepairOptions &options;
    Chain &chain; // the image alone
    host::NewFile out;
    TwinPlaces twinPlaces;
    reader::Verdicts verdicts;
    std::vector<std::string> lacks; // what stands in the way of a whole image
    std::vector<Dependent> stands;
    std::vector<std::string> notes;   // what could not be looked at or taken
    std::vector<LostChunk> lost = {}; // of the chunks that the image stores
    std::mutex mutex;
    host::Trouble writeTrouble; // the first one
    std::atomic<bool> isOver = false;
};

static const ImageFacts &Facts(const RepairRun &run)
{
    return run.chain.images[0].facts;
}

// ---- Whether header, table and trailer are beyond doubt ----

// All images of the folders in which one may stand on this one or be what it stands on.
static std::vector<ImageFacts> LookAround(RepairRun &run)
{
    std::vector<ImageFacts> images;
    std::vector<std::string> folders = {host::FolderOf(run.options.image)};
    if (!run.options.twins.empty()) {
        folders.push_back(run.options.twins + "/");
    }
    for (const std::string &folder : folders) {
        std::vector<std::string> names;
        if (const host::Trouble trouble = host::ListFiles(folder.empty() ? "." : folder, &names)) {
            AddSentence(run.notes, (folder.empty() ? "." : folder) + ": the folder can't be read: " + *trouble);
            continue; // what can't be seen can't vouch for anything
        }
        for (const std::string &name : names) {
            ImageFacts facts = reader::ReadImageFacts(folder + name, false);
            if (facts.kind == reader::FileKind::Unreadable) {
                AddSentence(run.notes, facts.fault->text);
            }
            const bool isKnown = std::any_of(images.begin(), images.end(), [&facts](const ImageFacts &other) {
                return other.identity == facts.identity;
            });
            if (facts.hasTable && !isKnown) {
                images.push_back(std::move(facts));
            }
        }
    }
    return images;
}

// Whether the base that the image names, looked for beside the file at path, is the file of that identity.
static bool IsNamedBy(const ImageFacts &image, const host::FileIdentity &identity, const std::string &path)
{
    const host::BasePlace place = host::FindBase(path, image.trailer->baseName);
    host::FileIdentity found;
    return place.exists && !host::IdentityOf(place.path, &found) && found == identity;
}

// Whether the image that it was made against lies where it looks for it, in another file than the one to be repaired.
static bool HasItsBase(const RepairRun &run, const ImageFacts &image, const std::vector<ImageFacts> &around)
{
    return std::any_of(around.begin(), around.end(), [&](const ImageFacts &other) {
        return other.kind == reader::FileKind::Image && other.id == image.trailer->basePin &&
               !(other.identity == Facts(run).identity) && IsNamedBy(image, other.identity, image.path);
    });
}

// What stands on this image under its name was made against one identity. One that has its base in a copy waits for no
// new file, but vouches for the table no less.
static void AskWhatStandsOnIt(RepairRun &run, const std::vector<ImageFacts> &around)
{
    std::vector<std::string> doubts;
    bool isVouchedFor = false;
    for (const ImageFacts &facts : around) {
        if (facts.trailer && facts.trailer->basePin == Facts(run).id) {
            isVouchedFor = true;
            if (!HasItsBase(run, facts, around)) {
                run.stands.push_back({facts.path, facts.trailer->baseName, host::FolderOf(facts.path)});
            }
        } else if (facts.trailer && IsNamedBy(facts, Facts(run).identity, facts.path)) {
            doubts.push_back("its header or table is not what " + facts.path + " was made against");
        }
    }
    if (!isVouchedFor) { // else those others were made against what had the name before
        run.lacks.insert(run.lacks.end(), doubts.begin(), doubts.end());
    }
}

static void CompareReferences(RepairRun &run, const reader::ImageFile &base)
{
    const reader::ImageFile &image = run.chain.images[0];
    for (uint64_t i = 0; i < image.table.size(); ++i) {
        if (image.table[i].storedLength == 0 && memcmp(image.table[i].hash, base.table[i].hash, digestBytes) != 0) {
            AddSentence(run.lacks, "the entry of chunk " + std::to_string(i) + " has another digest than the base");
        }
    }
}

static bool IsEqualButForCase(const std::string &left, const std::string &right)
{
    const auto lower = [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + ('a' - 'A')) : letter;
    };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&lower](char a, char b) { return lower(a) == lower(b); });
}

// A file system that doesn't mind the case of names finds the base under a damaged one too.
static bool IsFoundUnderOtherCase(const std::string &folder, const std::string &name)
{
    std::vector<std::string> names;
    return !host::ListFiles(folder.empty() ? "." : folder, &names) &&
           std::find(names.begin(), names.end(), name) == names.end() &&
           std::any_of(names.begin(), names.end(),
                       [&name](const std::string &other) { return IsEqualButForCase(name, other); });
}

// The base that a thin image names, with the identity that it pins, vouches for its trailer and its references.
static void AskBase(RepairRun &run, const std::vector<ImageFacts> &around)
{
    const ImageFacts &facts = Facts(run);
    if (facts.fault) {
        AddSentence(run.lacks, "its trailer, which nothing else holds: " + facts.fault->text);
        return;
    }
    const auto isBase = [&facts](const ImageFacts &other) {
        return other.id == facts.trailer->basePin && IsNamedBy(facts, other.identity, other.path) &&
               other.header.chunkCount == facts.header.chunkCount && other.header.diskSize == facts.header.diskSize &&
               other.header.chunkSize == facts.header.chunkSize && other.header.sectorSize == facts.header.sectorSize;
    };
    const auto base = std::find_if(around.begin(), around.end(), isBase);
    if (base == around.end()) {
        AddSentence(run.lacks, "the image that it stands on, " + facts.trailer->baseName +
                                   ", as it was then: without it nothing vouches for the trailer");
        return;
    }
    if (IsFoundUnderOtherCase(host::FolderOf(base->path), facts.trailer->baseName)) {
        AddSentence(run.lacks,
                    "a trailer that names its base as the folder does, letter by letter: " + facts.trailer->baseName);
    }
    reader::Result<reader::ImageFile> opened = reader::OpenImageFile(base->path, host::Caching::Cached, true);
    if (opened && opened->facts.id != facts.trailer->basePin) {
        AddSentence(run.lacks, base->path + ", the image that it stands on, which was replaced meanwhile");
    } else if (opened) {
        CompareReferences(run, *opened);
    } else {
        AddSentence(run.lacks, "the table of the image that it stands on: " + opened.fault.text);
    }
}

static bool IsAllZero(const uint8_t *bytes, size_t byteCount)
{
    return std::all_of(bytes, bytes + byteCount, [](uint8_t byte) { return byte == 0; });
}

// An entry that no writer leaves: what it should have been, nothing tells.
static void JudgeEntry(RepairRun &run, uint64_t i)
{
    const reader::ImageFile &image = run.chain.images[0];
    const ChunkEntry &entry = image.table[i];
    const bool isStored = entry.storedLength != 0;
    const std::string chunk = "the entry of chunk " + std::to_string(i);
    if (entry.diskOffset != i * image.facts.header.chunkSize) {
        AddSentence(run.lacks, chunk + " names another place on the disk");
    }
    if (isStored ? entry.storedLength != reader::LengthOfChunk(image.facts.header, i)
                 : !reader::IsThin(image.facts.header)) {
        AddSentence(run.lacks, chunk + " has a wrong stored length");
    }
    const bool hasSeal = !IsAllZero(entry.nonce, sizeof(entry.nonce)) || !IsAllZero(entry.tag, sizeof(entry.tag));
    if (hasSeal && !(isStored && reader::IsSealed(image.facts.header))) {
        AddSentence(run.lacks, chunk + " has a nonce or a tag, where nothing is sealed");
    }
}

static void JudgeHeader(RepairRun &run)
{
    const ImageHeader &header = Facts(run).header;
    const uint64_t chunksOfDisk =
        header.chunkSize == 0 ? 0
                              : header.diskSize / header.chunkSize + (header.diskSize % header.chunkSize == 0 ? 0 : 1);
    if (chunksOfDisk != header.chunkCount) {
        AddSentence(run.lacks, "a header that agrees with itself about the size of the disk");
    }
    if (header.sectorSize == 0 || header.chunkSize % header.sectorSize != 0) {
        AddSentence(run.lacks, "a header that agrees with itself about the sectors: a chunk is a whole number of them");
    }
    const bool hasDerivation = header.kdfIterations != 0 || !IsAllZero(header.salt, sizeof(header.salt));
    if (header.encrypted > 1 || (header.encrypted == 0 && hasDerivation)) {
        AddSentence(run.lacks, "a header that agrees with itself about whether the image is sealed");
    }
}

static void JudgeTable(RepairRun &run, const std::vector<ImageFacts> &around)
{
    const ImageHeader &header = Facts(run).header;
    JudgeHeader(run);
    if (Facts(run).hasStrayTrailer) {
        AddSentence(run.lacks, "a header that agrees with the trailer about whether it stands on another image");
    }
    for (uint64_t i = 0; i < run.chain.ChunkCount(); ++i) {
        JudgeEntry(run, i);
    }
    AskWhatStandsOnIt(run, around);
    if (reader::IsThin(header)) {
        AskBase(run, around);
    }
}

// ---- The chunks ----

static void KeepTrouble(RepairRun &run, const host::Trouble &trouble)
{
    const std::lock_guard<std::mutex> lock(run.mutex);
    run.writeTrouble = run.writeTrouble ? run.writeTrouble : trouble;
    run.isOver = true;
}

// Puts the plaintext of a stored chunk into the new file, piece by piece, as the table has it.
struct StoredChunkWriter {
    StoredChunkWriter(RepairRun &repairRun, uint64_t chunkToWrite)
        : run(repairRun), entry(repairRun.chain.images[0].table[chunkToWrite]),
          begin(repairRun.chain.images[0].OffsetOf(chunkToWrite)), offset(begin)
    {
        const reader::ImageFile &image = run.chain.images[0];
        if (reader::IsSealed(image.facts.header)) {
            sealing.emplace(*image.key, entry.nonce, entry.storedLength);
        }
    }

    // False: it can't be written, or is sealed otherwise than recorded.
    bool Take(const uint8_t *piece, size_t byteCount)
    {
        const uint8_t *bytes = piece;
        if (sealing) {
            sealed.assign(piece, piece + byteCount);
            if (!sealing->Add(sealed.data(), byteCount)) {
                return false;
            }
            bytes = sealed.data();
        }
        if (const host::Trouble trouble = host::WriteAt(run.out, offset, bytes, byteCount)) {
            KeepTrouble(run, trouble);
            return false;
        }
        offset += byteCount;
        return !IsComplete() || HasTag();
    }

    bool IsComplete() const
    {
        return offset - begin >= entry.storedLength;
    }

    bool HasTag()
    {
        uint8_t tag[tagBytes] = {};
        return !sealing || (sealing->Finish(tag) && memcmp(tag, entry.tag, sizeof(tag)) == 0);
    }

    RepairRun &run;
    const ChunkEntry &entry;
    uint64_t begin = 0;
    uint64_t offset = 0; // in the new file
    std::optional<host::Sealing> sealing;
    std::vector<uint8_t> sealed;
};

static std::optional<reader::ChunkFault> CopyChunk(RepairRun &run, reader::ChunkReader &reader, uint64_t chunk)
{
    StoredChunkWriter writer(run, chunk);
    bool isTaken = true;
    std::optional<reader::ChunkFault> fault = reader.Read(chunk, [&](const uint8_t *piece, size_t byteCount) {
        isTaken = writer.Take(piece, byteCount);
        return isTaken;
    });
    if (!fault && !isTaken) {
        fault = reader::ChunkFault{reader::ChunkCause::Seal, 0, {}};
    }
    return fault;
}

static std::optional<reader::Fault> CopyChunks(RepairRun &run)
{
    reader::ChunkFeeder feeder(run.chain, 0);
    Progress progress(!run.common.quiet, run.options.image, BytesToRead(run.chain, 0));
    return ReadChunks(run.common.threads, feeder, run.verdicts,
                      [&run](reader::ChunkReader &reader, uint64_t chunk) { return CopyChunk(run, reader, chunk); },
                      {[&progress](uint64_t bytes) { progress.Add(bytes); }, [&run] { return !run.isOver; }});
}

// isWhole: all places were searched to their end.
static void SettleTwins(RepairRun &run, bool isWhole)
{
    for (const LostChunk &chunk : run.lost) {
        if (chunk.isFound) {
            run.verdicts.Clear(chunk.chunk);
        } else if (chunk.place != nowhere) {
            AddSentence(run.lacks, "chunk " + std::to_string(chunk.chunk) +
                                       " as it was sealed: " + NameOfPlace(run.twinPlaces, chunk.place) +
                                       " has it, but under the recorded nonce it gives another tag");
        } else if (isWhole) {
            AddSentence(run.lacks, "chunk " + std::to_string(chunk.chunk) + ": no twin of it was found");
        }
    }
}

// Where no seal opened, a twin tells more: under the right password its first chunk gets the recorded tag, unless the
// table is damaged. Without that a search through all twins would be for nothing.
static void TakeTwins(RepairRun &run)
{
    run.lost = LostChunks(run.chain, run.verdicts);
    bool isDoubted = LooksLikeAnotherPassword(run.verdicts);
    bool isRefuted = false;
    std::optional<StoredChunkWriter> writer;
    const auto take = [&](uint64_t chunk, uint64_t offset, const uint8_t *piece, size_t byteCount) {
        if (offset == 0) {
            writer.emplace(run, chunk);
        }
        const bool isTaken = writer->Take(piece, byteCount);
        isDoubted = isDoubted && !(isTaken && writer->IsComplete());
        isRefuted = isRefuted || (isDoubted && !isTaken);
        return isTaken;
    };
    run.twinPlaces.known = {Facts(run).identity};
    FindTwins(run.common, run.chain, run.twinPlaces, run.lost, run.notes,
              {take, nullptr, [&] { return !run.isOver && !isRefuted; }});
    if (isDoubted) {
        AddSentence(run.lacks, std::string("the right password: ") + anotherPasswordText);
    }
    SettleTwins(run, !isRefuted);
}

// ---- The file ----

static host::Trouble WriteAround(const RepairRun &run)
{
    const reader::ImageFile &image = run.chain.images[0];
    host::Trouble trouble = host::WriteAt(run.out, 0, &image.facts.header, sizeof(image.facts.header));
    if (!trouble) {
        trouble = host::WriteAt(run.out, sizeof(image.facts.header), image.table.data(),
                                image.table.size() * sizeof(ChunkEntry));
    }
    if (!trouble && image.facts.trailer) {
        const std::vector<uint8_t> trailer = reader::EncodeTrailer(*image.facts.trailer);
        trouble = host::WriteAt(run.out, image.facts.dataEnd, trailer.data(), trailer.size());
    }
    return trouble;
}

static reader::Fault OutFault(const RepairRun &run, const host::Trouble &trouble)
{
    return {reader::FaultKind::Unavailable, run.options.out + ": it can't be written: " + *trouble};
}

// Where nothing is stored there is nothing to open or to seal.
static std::optional<reader::Fault> PrepareKey(const CommonOptions &common, reader::ImageFile *image)
{
    std::optional<std::string> password;
    if (image->facts.storedChunks == 0) {
        return {};
    }
    if (reader::IsSealed(image->facts.header) && !common.passwordFile.empty()) {
        reader::Result<std::string> given = reader::ReadPassword(common.passwordFile);
        if (!given) {
            return given.fault;
        }
        password = *given;
    }
    return reader::DeriveImageKey(image, password);
}

// All that can fail for another reason than that something is lacking.
static std::optional<reader::Fault> RunRepair(RepairRun &run)
{
    std::optional<reader::Fault> fault =
        OpenTwinPlaces(run.common, run.options.twins, run.options.twinDisk, &run.twinPlaces);
    if (fault) {
        return fault;
    }
    JudgeTable(run, LookAround(run));
    if (!run.lacks.empty()) {
        return {}; // no chunk can make good what the table does not tell
    }
    fault = PrepareKey(run.common, &run.chain.images[0]);
    if (fault) {
        return fault;
    }
    if (const host::Trouble trouble = host::CreateNewFile(run.options.out, host::Existing::IsTrouble, &run.out)) {
        return OutFault(run, trouble);
    }
    fault = CopyChunks(run);
    if (fault) {
        return fault;
    }
    if (!run.writeTrouble) {
        TakeTwins(run);
    }
    if (!run.writeTrouble) {
        fault = GoneMedium(run.chain, run.verdicts);
    }
    if (fault) {
        return fault;
    }
    const bool isNeeded = !run.lost.empty() || Facts(run).bytesTooMany != 0;
    host::Trouble trouble = run.writeTrouble;
    if (!trouble && run.lacks.empty() && isNeeded) {
        trouble = WriteAround(run);
        trouble = trouble ? trouble : host::FinishNewFile(&run.out);
    }
    return trouble ? std::optional<reader::Fault>(OutFault(run, trouble)) : std::nullopt;
}

// ---- The report ----

static void ReportLists(JsonOutput &output, const RepairRun &run)
{
    output.Member("lacks", run.lacks);
    output.BeginList("standsOnIt");
    for (const Dependent &dependent : run.stands) {
        output.Item({{"file", dependent.file}, {"name", dependent.name}, {"folder", dependent.folder}});
    }
    output.End();
    output.Member("notes", run.notes);
    output.BeginList("twins");
    if (output.wanted) {
        ReportTwins(output, run.twinPlaces, run.lost);
    }
    output.End();
}

static void PrintLists(JsonOutput &output, const RepairRun &run)
{
    ReportTwins(output, run.twinPlaces, run.lost);
    for (const std::string &lack : run.lacks) {
        PrintLine("  lacking: " + lack);
    }
    for (const std::string &note : run.notes) {
        PrintLine("  note: " + note);
    }
}

static std::string PlaceText(const std::string &name, const std::string &folder)
{
    return name + " in the folder " + (folder.empty() ? "." : folder);
}

static void PrintPlace(const RepairRun &run)
{
    for (const Dependent &dependent : run.stands) {
        PrintLine("  " + dependent.file + " stands on it, and looks for it as " +
                  PlaceText(dependent.name, dependent.folder));
    }
    if (run.stands.empty()) {
        PrintLine("  what may stand on it looks for it as " +
                  PlaceText(host::NameOf(run.options.image), host::FolderOf(run.options.image)));
    }
}

static int ReportRepair(JsonOutput &output, const RepairRun &run)
{
    const bool isNeeded = !run.lost.empty() || Facts(run).bytesTooMany != 0;
    const bool isWhole = run.lacks.empty();
    output.Member("result", !isWhole ? "lacking" : isNeeded ? "whole" : "sound");
    output.Member("identity", IdText(Facts(run).id));
    output.Member("name", host::NameOf(run.options.image));
    output.Member("folder", host::FolderOf(run.options.image));
    ReportLists(output, run);
    if (!output.wanted) {
        PrintLine(run.options.image + (!isWhole   ? ": it can NOT be made whole; nothing was written"
                                       : isNeeded ? ": made whole in " + run.options.out
                                                  : ": nothing of it is damaged; nothing was written"));
        PrintLists(output, run);
        if (isWhole && isNeeded) {
            PrintPlace(run);
        }
    }
    return isWhole ? exitGood : exitFound;
}

int Repair(const CommonOptions &common, const RepairOptions &options)
{
    JsonOutput output(common.json);
    output.Member("image", options.image);
    output.Member("out", options.out);
    reader::Result<reader::ImageFile> image = reader::OpenImageFile(options.image, common.caching, true);
    if (!image) {
        return ReportFault(output, "nothing", image.fault);
    }
    Chain chain = reader::MakeAlone(std::move(*image));
    RepairRun run(common, options, chain);
    if (const std::optional<reader::Fault> fault = RunRepair(run)) {
        return ReportFault(output, "nothing", *fault);
    }
    return ReportRepair(output, run);
}
