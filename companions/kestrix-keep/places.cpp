// Folders by the host's own calls; remotes by rclone, whose exit status is all that is believed of it.
#include "kestrix-keep/places.h"

#include "kestrix-keep/audit.h"
#include "report/report.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>

using reader::Fault;
using reader::FaultKind;
using reader::Result;
using MaybeFault = std::optional<Fault>;

Fault FaultAt(const std::string &path, const std::string &text)
{
    return {FaultKind::Unavailable, path + ": " + text};
}

static MaybeFault FaultOf(const std::string &path, const host::Trouble &trouble)
{
    return trouble ? MaybeFault(FaultAt(path, *trouble)) : std::nullopt;
}

// ---- Folders ----

// To the disk, block by block.
static MaybeFault CopyFile(LocalFile *from, const std::string &to, const OnBytes &onBytes)
{
    constexpr size_t blockBytes = size_t{4} << 20;
    host::Source source;
    host::NewFile file;
    if (const host::Trouble trouble = host::OpenFileToRead(from->path, host::Caching::Cached, &source)) {
        from->isInDoubt = true;
        return FaultOf(from->path, trouble);
    }
    host::Trouble trouble = host::CreateNewFile(to, host::Existing::GivesWay, &file);
    const host::Pages block = host::MakePages(blockBytes);
    for (uint64_t offset = 0; !trouble && offset < source.sizeBytes; offset += blockBytes) {
        const size_t step = std::min<uint64_t>(blockBytes, source.sizeBytes - offset);
        if (const host::Trouble unread = host::ReadAt(source, offset, block.get(), step)) {
            from->isInDoubt = true;
            return FaultOf(from->path, unread);
        }
        trouble = host::WriteAt(file, offset, block.get(), step);
        if (onBytes) {
            onBytes(step);
        }
    }
    return FaultOf(to, trouble ? trouble : host::FinishInPlaceOf(&file));
}

static Result<std::vector<PlaceFile>> ListFolder(const std::string &folder)
{
    std::vector<std::string> names;
    if (const host::Trouble trouble = host::ListFiles(folder, &names)) {
        return FaultAt(folder, "it can't be listed: " + *trouble);
    }
    std::vector<PlaceFile> files;
    for (const std::string &name : names) {
        uint64_t bytes = 0;
        const bool isKnown = !host::LengthOfFile(folder + "/" + name, &bytes);
        files.push_back({name, isKnown ? std::optional<uint64_t>(bytes) : std::nullopt});
    }
    return files;
}

static MaybeFault CompareInFolder(const std::string &path, const std::string &sha256)
{
    Result<FileDigest> digest = DigestFile(path, host::Caching::Medium);
    if (!digest) {
        return digest.fault;
    }
    return digest->sha256 == sha256
               ? std::nullopt
               : MaybeFault(Fault{FaultKind::Damaged, path + ": its SHA-256 is " + digest->sha256 + ", not " + sha256});
}

static Place MakeFolderPlace(const std::string &folder)
{
    Place place;
    const auto path = [folder](const std::string &name) { return folder + "/" + name; };
    place.name = folder;
    place.list = [folder] { return ListFolder(folder); };
    place.put = [path](LocalFile *file, const std::string &name, const OnBytes &onBytes) {
        return CopyFile(file, path(name), onBytes);
    };
    place.compare = [path](const std::string &name, WantedDigests *wanted, const OnBytes &) {
        return CompareInFolder(path(name), wanted->sha256);
    };
    place.rename = [path](const std::string &from, const std::string &to) {
        return FaultOf(path(to), host::GiveFinalName(path(from), path(to)));
    };
    place.renameInPlaceOf = [path](const std::string &from, const std::string &to) {
        return FaultOf(path(to), host::GiveNameInPlaceOf(path(from), path(to)));
    };
    place.remove = [path](const std::string &name) { return FaultOf(path(name), host::RemoveName(path(name))); };
    place.read = [path](const std::string &name) -> Result<std::string> {
        std::string text;
        if (const host::Trouble trouble = host::ReadSmallFile(path(name), &text)) {
            return FaultAt(path(name), *trouble);
        }
        return text;
    };
    return place;
}

// ---- Remotes ----

using Kinds = std::vector<std::string>;

// What a remote can do by itself.
struct Features {
    Kinds digests;
    bool renames = false; // or copies within itself
};

struct Remote {
    std::string program;
    std::string path; // REMOTE:PATH
    // None: it was not asked yet. Shared by all that is done there.
    std::shared_ptr<std::optional<Features>> features = std::make_shared<std::optional<Features>>();

    std::string At(const std::string &name) const
    {
        return path + (path.back() == ':' || path.back() == '/' ? "" : "/") + name;
    }
};

namespace
{

// What rclone logs, line by line: errors are kept for the sentence that tells them, figures become progress.
struct RcloneLog {
    explicit RcloneLog(const OnBytes &listener) : onBytes(listener) {}

    void Add(const std::string &piece)
    {
        open += piece;
        for (size_t end = 0; (end = open.find('\n')) != std::string::npos; open.erase(0, end + 1)) {
            TakeLine(open.substr(0, end));
        }
    }

    void TakeLine(const std::string &line)
    {
        const Json json = Json::parse(line, nullptr, false);
        if (!json.is_object()) {
            static constexpr size_t stampBytes = 20; // "2026/11/22 02:00:05 " before what it says last of all
            const bool isStamped = line.size() > stampBytes && line[4] == '/' && line[stampBytes - 1] == ' ';
            Keep(isStamped ? line.substr(stampBytes) : line);
            return;
        }
        const Json stats = json.value("stats", Json());
        const Json level = json.value("level", Json());
        const Json message = json.value("msg", Json());
        if (stats.is_object() && stats.value("bytes", Json()).is_number_unsigned()) {
            TakeFigure(stats["bytes"].get<uint64_t>());
        } else if (level != "warning" && level != "info" && level != "debug" && message.is_string()) {
            Keep(message.get<std::string>());
        }
    }

    // What is sent again after a fault has been counted already.
    void TakeFigure(uint64_t bytes)
    {
        if (onBytes && bytes > told) {
            onBytes(bytes - told);
            told = bytes;
        }
    }

    void Keep(std::string sentence)
    {
        constexpr size_t most = 2000;
        std::replace(sentence.begin(), sentence.end(), '\n', ' ');
        if (!sentence.empty() && said.size() + sentence.size() < most && said.find(sentence) == std::string::npos) {
            said += (said.empty() ? "" : "; ") + sentence;
        }
    }

    const OnBytes &onBytes;
    uint64_t told = 0;
    std::string open = {}; // the line that has no end yet
    std::string said = {};
};

struct RcloneCall {
    std::vector<std::string> arguments;
    OnBytes onBytes = nullptr;
    std::function<void(const std::string &)> onOutput = nullptr; // none: what it prints is given back
};

} // namespace

// What the environment tells rclone counts, and an option of ours would count for more.
static void AddUnlessTold(std::vector<std::string> &arguments, const char *variable, const char *argument)
{
    if (std::getenv(variable) == nullptr) {
        arguments.emplace_back(argument);
    }
}

// Its tries multiply: with as many as it makes by itself a server that is gone in mid-file is tried for hours. The next
// run tries again anyway.
static std::vector<std::string> RcloneArguments(const Remote &remote, const RcloneCall &call)
{
    std::vector<std::string> all = {remote.program, "--ask-password=false", "--use-json-log"};
    AddUnlessTold(all, "RCLONE_RETRIES", "--retries=1");
    AddUnlessTold(all, "RCLONE_LOW_LEVEL_RETRIES", "--low-level-retries=3");
    AddUnlessTold(all, "RCLONE_CONTIMEOUT", "--contimeout=20s");
    const bool tells = call.onBytes != nullptr;
    all.emplace_back(tells ? "--log-level=NOTICE" : "--log-level=ERROR");
    all.emplace_back(tells ? "--stats=1s" : "--stats=0");
    all.emplace_back("--stats-log-level=NOTICE");
    all.insert(all.end(), call.arguments.begin(), call.arguments.end());
    return all;
}

// What it printed; whatever its exit status is but 0, it failed. It must not ask: nobody is there to answer.
static Result<std::string> RunRclone(const Remote &remote, const RcloneCall &call)
{
    std::string output;
    RcloneLog log(call.onBytes);
    host::ProgramToRun program;
    program.arguments = RcloneArguments(remote, call);
    program.onErrors = [&log](const std::string &piece) { log.Add(piece); };
    host::ProgramEnd end;
    const host::Trouble trouble = host::RunProgram(
        program,
        [&](const std::string &piece) { call.onOutput ? call.onOutput(piece) : static_cast<void>(output += piece); },
        &end);
    if (trouble) {
        return FaultAt(remote.program, "it can't be started: " + *trouble);
    }
    if (end.wasEnded || end.exitStatus != 0) {
        log.Add("\n");
        return FaultAt("rclone:" + remote.path,
                       "rclone " + call.arguments[0] +
                           (end.wasEnded ? " was ended by a signal"
                                         : " ended with exit status " + std::to_string(end.exitStatus)) +
                           (log.said.empty() ? "" : ": " + log.said));
    }
    return output;
}

static MaybeFault Do(const Remote &remote, const RcloneCall &call)
{
    Result<std::string> done = RunRclone(remote, call);
    return done ? std::nullopt : MaybeFault(done.fault);
}

// "123;NAME" a line, -1 where the remote does not tell a length.
static Result<std::vector<PlaceFile>> ListRemote(const Remote &remote)
{
    Result<std::string> listed =
        RunRclone(remote, {{"lsf", "--files-only", "--max-depth=1", "--format=sp", "--separator=;", remote.path}});
    if (!listed) {
        return listed.fault;
    }
    std::vector<PlaceFile> files;
    for (size_t begin = 0, end = 0; (end = listed->find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = listed->substr(begin, end - begin);
        const size_t middle = line.find(';');
        uint64_t bytes = 0;
        const auto [last, error] = std::from_chars(line.data(), line.data() + std::min(middle, line.size()), bytes);
        if (middle != std::string::npos) {
            const bool isKnown = error == std::errc() && last == line.data() + middle;
            files.push_back({line.substr(middle + 1), isKnown ? std::optional<uint64_t>(bytes) : std::nullopt});
        }
    }
    return files;
}

// The first word of what rclone prints of one file; empty where there is no such digest.
static std::string HashOf(const Remote &remote, const std::string &kind, const std::string &path)
{
    Result<std::string> said = RunRclone(remote, {{"hashsum", kind, path}});
    const std::string word = said ? said->substr(0, said->find(' ')) : std::string();
    const bool isHash = !word.empty() && word.find_first_not_of("0123456789abcdef") == std::string::npos;
    return isHash ? word : std::string();
}

static MaybeFault Differs(const Remote &remote, const std::string &name, const std::string &kind,
                          const std::string &there, const std::string &wanted)
{
    return there == wanted ? std::nullopt
                           : MaybeFault(Fault{FaultKind::Damaged, "rclone:" + remote.At(name) + ": its " + kind +
                                                                      " is " + there + ", not " + wanted});
}

// A digest of another kind stands for the SHA-256 only if it is that of a file which has the SHA-256.
static MaybeFault AddDigest(const Remote &remote, const std::string &kind, WantedDigests *wanted)
{
    Result<FileDigest> local = DigestFile(wanted->local.path, host::Caching::Cached);
    wanted->local.isInDoubt = !local || local->sha256 != wanted->sha256;
    if (!local) {
        return local.fault;
    }
    if (wanted->local.isInDoubt) {
        return FaultAt(wanted->local.path, "its SHA-256 is " + local->sha256 + ", not " + wanted->sha256);
    }
    const std::string made = HashOf(remote, kind, wanted->local.path);
    if (made.empty()) {
        return FaultAt(wanted->local.path, "rclone gives no " + kind + " of it");
    }
    wanted->others[kind] = made;
    return std::nullopt;
}

static MaybeFault CompareByReading(const Remote &remote, const std::string &name, const std::string &sha256,
                                   const OnBytes &onBytes)
{
    host::Digesting digesting;
    RcloneCall call = {{"cat", remote.At(name)}};
    call.onOutput = [&](const std::string &piece) {
        digesting.Add(piece.data(), piece.size());
        if (onBytes) {
            onBytes(piece.size());
        }
    };
    if (MaybeFault fault = Do(remote, call)) {
        return fault;
    }
    const host::Digest digest = digesting.Finish();
    return Differs(remote, name, "SHA-256", HexText(digest.data(), digest.size()), sha256);
}

// What can't be learnt of a remote it does not have: reading back is as good.
static const Features &FeaturesOf(const Remote &remote)
{
    if (!*remote.features) {
        Result<std::string> said = RunRclone(remote, {{"backend", "features", remote.path}});
        const Json told = Json::parse(said ? *said : std::string(), nullptr, false);
        const Json hashes = told.is_object() ? told.value("Hashes", Json()) : Json();
        const Json abilities = told.is_object() ? told.value("Features", Json()) : Json();
        Features features;
        for (const Json &kind : hashes.is_array() ? hashes : Json::array()) {
            features.digests.push_back(kind.is_string() ? kind.get<std::string>() : std::string());
        }
        for (const char *ability : {"Move", "Copy"}) {
            features.renames |= abilities.is_object() && abilities.value(ability, Json()) == true;
        }
        *remote.features = features;
    }
    return **remote.features;
}

// By a digest that the remote itself has, the best one first; and where it has none, all is read back.
static MaybeFault CompareAtRemote(const Remote &remote, const std::string &name, WantedDigests *wanted,
                                  const OnBytes &onBytes)
{
    if (wanted->sha256.empty()) {
        return FaultAt("rclone:" + remote.At(name), "no digest of it is known");
    }
    const Kinds &kinds = FeaturesOf(remote).digests;
    for (const char *kind : {"sha256", "sha1", "md5"}) {
        const bool isOwn = kind == std::string("sha256");
        const bool isKnown = isOwn || wanted->others.count(kind) != 0;
        const bool isThere = std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
        const bool isOfUse = isThere && (isKnown || !wanted->local.path.empty());
        const std::string there = isOfUse ? HashOf(remote, kind, remote.At(name)) : std::string();
        if (there.empty()) {
            continue;
        }
        const MaybeFault fault = isKnown ? std::nullopt : AddDigest(remote, kind, wanted);
        return fault ? fault : Differs(remote, name, kind, there, isOwn ? wanted->sha256 : wanted->others.at(kind));
    }
    return CompareByReading(remote, name, wanted->sha256, onBytes);
}

// One byte more than is taken tells what is too large.
static Result<std::string> ReadAtRemote(const Remote &remote, const std::string &name)
{
    const std::string most = std::to_string(host::mostSmallBytes + 1);
    Result<std::string> text = RunRclone(remote, {{"cat", "--count", most, remote.At(name)}});
    return text && text->size() > host::mostSmallBytes ? FaultAt("rclone:" + remote.At(name), host::tooLargeText)
                                                       : std::move(text);
}

static Place MakeRemotePlace(const Remote &remote)
{
    Place place;
    place.name = "rclone:" + remote.path;
    place.isRemote = true;
    place.list = [remote] { return ListRemote(remote); };
    place.prepare = [remote] { return Do(remote, {{"mkdir", remote.path}}); };
    // A remote that tells no times takes a file of the same length for the same one, if it is let. rclone names the
    // file here only where that is what it could not read.
    place.put = [remote](LocalFile *file, const std::string &name, const OnBytes &onBytes) {
        MaybeFault fault =
            Do(remote, {{"copyto", "--no-traverse", "--ignore-times", file->path, remote.At(name)}, onBytes});
        file->isInDoubt = fault && fault->text.find(file->path) != std::string::npos;
        return fault;
    };
    place.compare = [remote](const std::string &name, WantedDigests *wanted, const OnBytes &onBytes) {
        return CompareAtRemote(remote, name, wanted, onBytes);
    };
    place.rename = [remote](const std::string &from, const std::string &to) {
        return Do(remote, {{"moveto", "--no-traverse", "--ignore-times", remote.At(from), remote.At(to)}});
    };
    place.renameInPlaceOf = place.rename;
    place.copiesToRename = [remote] { return !FeaturesOf(remote).renames; };
    place.remove = [remote](const std::string &name) { return Do(remote, {{"deletefile", remote.At(name)}}); };
    place.read = [remote](const std::string &name) { return ReadAtRemote(remote, name); };
    place.fetch = [remote](const std::string &name, const std::string &localPath, const OnBytes &onBytes) {
        return Do(remote, {{"copyto", "--no-traverse", remote.At(name), localPath}, onBytes});
    };
    return place;
}

// ---- Texts ----

constexpr char remoteText[] = "rclone:";
constexpr size_t remoteTextBytes = sizeof(remoteText) - 1;

bool IsRemoteText(const std::string &text)
{
    return text.compare(0, remoteTextBytes, remoteText) == 0;
}

Result<CopyPlace> ParsePlace(const std::string &text)
{
    CopyPlace place;
    if (!IsRemoteText(text)) {
        place.folder = text;
        return place;
    }
    place.rclone = text.substr(remoteTextBytes);
    const std::string fault = RcloneFault(place.rclone, host::OwnPathRules());
    return fault.empty() ? Result<CopyPlace>(std::move(place)) : Fault{FaultKind::Unavailable, fault};
}

std::string NameOfPlace(const CopyPlace &place)
{
    return place.rclone.empty() ? place.folder : remoteText + place.rclone;
}

Result<Place> MakePlace(const CopyPlace &place)
{
    if (place.rclone.empty()) {
        return MakeFolderPlace(place.folder);
    }
    const std::string program = host::ProgramOfSystem("rclone");
    if (program.empty()) {
        return FaultAt("rclone:" + place.rclone, "rclone is not there: install it");
    }
    if (const host::Trouble trouble = host::CheckTrusted(program)) {
        return FaultAt("rclone:" + place.rclone, program + " is not run: " + *trouble);
    }
    Remote remote;
    remote.program = program;
    remote.path = place.rclone;
    return MakeRemotePlace(remote);
}
