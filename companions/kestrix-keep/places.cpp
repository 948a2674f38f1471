// Folders by the host's own calls; remotes by rclone, whose exit status is all that is believed of it.
#include "kestrix-keep/places.h"

#include "kestrix-keep/audit.h"

#include <algorithm>

using reader::Fault;
using reader::FaultKind;
using reader::Result;
using MaybeFault = std::optional<Fault>;

static Fault FaultAt(const std::string &place, const std::string &text)
{
    return {FaultKind::Unavailable, place + ": " + text};
}

static MaybeFault FaultOf(const std::string &path, const host::Trouble &trouble)
{
    return trouble ? MaybeFault(FaultAt(path, *trouble)) : std::nullopt;
}

// ---- Folders ----

// To the disk, block by block.
static MaybeFault CopyFile(const std::string &from, const std::string &to, host::Existing existing)
{
    constexpr size_t blockBytes = size_t{4} << 20;
    host::Source source;
    host::NewFile file;
    if (const host::Trouble trouble = host::OpenFileToRead(from, host::Caching::Cached, &source)) {
        return FaultOf(from, trouble);
    }
    host::Trouble trouble = host::CreateNewFile(to, existing, &file);
    const host::Pages block = host::MakePages(blockBytes);
    for (uint64_t offset = 0; !trouble && offset < source.sizeBytes; offset += blockBytes) {
        const size_t step = std::min<uint64_t>(blockBytes, source.sizeBytes - offset);
        if (const host::Trouble unread = host::ReadAt(source, offset, block.get(), step)) {
            return FaultOf(from, unread);
        }
        trouble = host::WriteAt(file, offset, block.get(), step);
    }
    if (!trouble) {
        trouble = existing == host::Existing::GivesWay ? host::FinishInPlaceOf(&file) : host::FinishNewFile(&file);
    }
    return FaultOf(to, trouble);
}

static Place MakeFolderPlace(const std::string &folder)
{
    Place place;
    const auto path = [folder](const std::string &name) { return folder + "/" + name; };
    place.name = folder;
    place.list = [folder]() -> Result<std::vector<std::string>> {
        std::vector<std::string> names;
        if (const host::Trouble trouble = host::ListFiles(folder, &names)) {
            return FaultAt(folder, "it can't be listed: " + *trouble);
        }
        return names;
    };
    place.put = [path](const std::string &localPath, const std::string &name) {
        return CopyFile(localPath, path(name), host::Existing::GivesWay);
    };
    place.digest = [path](const std::string &name, const std::string &) -> Result<std::string> {
        Result<FileDigest> digest = DigestFile(path(name), host::Caching::Medium);
        if (!digest) {
            return digest.fault;
        }
        return std::move(digest->sha256);
    };
    place.rename = [path](const std::string &from, const std::string &to) {
        return FaultOf(path(to), host::GiveFinalName(path(from), path(to)));
    };
    place.remove = [path](const std::string &name) { return FaultOf(path(name), host::RemoveName(path(name))); };
    place.read = [path](const std::string &name) -> Result<std::string> {
        std::string text;
        if (const host::Trouble trouble = host::ReadSmallFile(path(name), &text)) {
            return FaultAt(path(name), *trouble);
        }
        return text;
    };
    place.fetch = [path](const std::string &name, const std::string &localPath) {
        return CopyFile(path(name), localPath, host::Existing::IsTrouble);
    };
    return place;
}

// ---- Remotes ----

struct Remote {
    std::string program;
    std::string path; // REMOTE:PATH

    std::string At(const std::string &name) const
    {
        return path + (path.back() == ':' || path.back() == '/' ? "" : "/") + name;
    }
};

// What it printed; whatever its exit status is but 0, it failed. It must not ask: nobody is there to answer.
static Result<std::string> RunRclone(const Remote &remote, std::vector<std::string> arguments,
                                     const std::function<void(const std::string &)> &onOutput = nullptr)
{
    std::string output;
    std::string errors;
    host::ProgramToRun program;
    program.arguments = {remote.program, "--ask-password=false", "--log-level=ERROR"};
    program.arguments.insert(program.arguments.end(), arguments.begin(), arguments.end());
    program.onErrors = [&errors](const std::string &piece) { errors += errors.size() < 2000 ? piece : ""; };
    host::ProgramEnd end;
    const host::Trouble trouble = host::RunProgram(
        program, [&](const std::string &piece) { onOutput ? onOutput(piece) : static_cast<void>(output += piece); },
        &end);
    if (trouble) {
        return FaultAt(remote.program, "it can't be started: " + *trouble);
    }
    if (end.wasEnded || end.exitStatus != 0) {
        std::replace(errors.begin(), errors.end(), '\n', ' ');
        return FaultAt(remote.path, "rclone " + arguments[0] +
                                        (end.wasEnded ? " was ended by a signal"
                                                      : " ended with exit status " + std::to_string(end.exitStatus)) +
                                        (errors.empty() ? "" : ": " + errors));
    }
    return output;
}

static MaybeFault Do(const Remote &remote, const std::vector<std::string> &arguments)
{
    Result<std::string> done = RunRclone(remote, arguments);
    return done ? std::nullopt : MaybeFault(done.fault);
}

static Result<std::vector<std::string>> ListRemote(const Remote &remote)
{
    if (const MaybeFault fault = Do(remote, {"mkdir", remote.path})) {
        return *fault;
    }
    Result<std::string> listed = RunRclone(remote, {"lsf", "--files-only", "--max-depth=1", remote.path});
    if (!listed) {
        return listed.fault;
    }
    std::vector<std::string> names;
    for (size_t begin = 0, end = 0; (end = listed->find('\n', begin)) != std::string::npos; begin = end + 1) {
        names.push_back(listed->substr(begin, end - begin));
    }
    return names;
}

// The first word of what rclone prints of one file; empty where the remote has no such digest.
static std::string HashOf(const Remote &remote, const std::string &kind, const std::string &path)
{
    Result<std::string> said = RunRclone(remote, {"hashsum", kind, path});
    const std::string word = said ? said->substr(0, said->find(' ')) : std::string();
    const bool isHash = !word.empty() && word.find_first_not_of("0123456789abcdef") == std::string::npos;
    return isHash ? word : std::string();
}

static Result<std::string> ReadBackDigest(const Remote &remote, const std::string &name)
{
    host::Digesting digesting;
    Result<std::string> read = RunRclone(remote, {"cat", remote.At(name)}, [&digesting](const std::string &piece) {
        digesting.Add(piece.data(), piece.size());
    });
    if (!read) {
        return read.fault;
    }
    const host::Digest digest = digesting.Finish();
    return HexText(digest.data(), digest.size());
}

// The remote's own SHA-256; where it has an older kind of digest, that is compared with the local file's, which stands
// for it then; and where it has none, all is read back.
static Result<std::string> DigestAtRemote(const Remote &remote, const std::string &name, const std::string &localPath)
{
    const std::string own = HashOf(remote, "sha256", remote.At(name));
    if (!own.empty()) {
        return std::string(own);
    }
    for (const char *kind : {"sha1", "md5"}) {
        const std::string there = HashOf(remote, kind, remote.At(name));
        if (!there.empty() && !localPath.empty() && there == HashOf(remote, kind, localPath)) {
            Result<FileDigest> local = DigestFile(localPath, host::Caching::Cached);
            return local ? Result<std::string>(std::move(local->sha256)) : Result<std::string>(local.fault);
        }
        if (!there.empty() && !localPath.empty()) {
            return FaultAt(remote.At(name), std::string("its ") + kind + " is not that of " + localPath);
        }
    }
    return ReadBackDigest(remote, name);
}

static Place MakeRemotePlace(const Remote &remote)
{
    Place place;
    place.name = "rclone:" + remote.path;
    place.isRemote = true;
    place.list = [remote] { return ListRemote(remote); };
    place.put = [remote](const std::string &localPath, const std::string &name) {
        return Do(remote, {"copyto", "--no-traverse", localPath, remote.At(name)});
    };
    place.digest = [remote](const std::string &name, const std::string &localPath) {
        return DigestAtRemote(remote, name, localPath);
    };
    place.rename = [remote](const std::string &from, const std::string &to) {
        return Do(remote, {"moveto", "--no-traverse", remote.At(from), remote.At(to)});
    };
    place.remove = [remote](const std::string &name) { return Do(remote, {"deletefile", remote.At(name)}); };
    place.read = [remote](const std::string &name) { return RunRclone(remote, {"cat", remote.At(name)}); };
    place.fetch = [remote](const std::string &name, const std::string &localPath) {
        return Do(remote, {"copyto", "--no-traverse", remote.At(name), localPath});
    };
    return place;
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
    return MakeRemotePlace({program, place.rclone});
}
