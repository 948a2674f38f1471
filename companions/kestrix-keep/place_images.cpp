// Names first, then sidecars, then who stands on whom, as in a job's own folder.
#include "kestrix-keep/place_images.h"

#include "report/report.h"

#include <algorithm>
#include <map>

using reader::Result;

static const char endingOfCopies[] = ".copying";
static constexpr size_t machineDigits = 8;

using FilesByName = std::map<std::string, std::optional<uint64_t>>;

// Names of machines may hold what names of files may not.
static std::string DigitsOfMachine()
{
    const std::string machine = host::MachineName();
    const host::Digest digest = host::DigestOf(machine.data(), machine.size());
    return HexText(digest.data(), machineDigits / 2);
}

std::string NameWhileCopied(const std::string &name)
{
    return name + "." + DigitsOfMachine() + endingOfCopies;
}

std::string NameOfCopy(const std::string &name)
{
    const std::string rest = WithoutEnding(name, endingOfCopies);
    const size_t dot = rest.size() > machineDigits ? rest.size() - machineDigits - 1 : 0;
    const bool hasDigits =
        dot != 0 && rest[dot] == '.' && rest.find_first_not_of("0123456789abcdef", dot + 1) == std::string::npos;
    return hasDigits ? rest.substr(0, dot) : rest;
}

// A name that leads out of a folder is no image's, wherever it comes from.
static std::string JobOfImageName(const std::string &name)
{
    const size_t end = name.rfind('-');
    std::string job = end == std::string::npos ? std::string() : name.substr(0, end);
    const bool isOne = job.find_first_of("/\\:") == std::string::npos && TimeOfImageName(job, name);
    return isOne ? std::move(job) : std::string();
}

// The job that has a copy, a sidecar or half a copy of this name; empty for other files.
static std::string JobOfFile(const std::string &listed)
{
    const std::string unfinished = NameOfUnfinished(listed);
    const std::string &finished = unfinished.empty() ? listed : unfinished;
    const std::string copied = NameOfCopy(finished);
    const std::string &name = copied.empty() ? finished : copied;
    const std::string image = WithoutEnding(name, SidecarPath(""));
    return JobOfImageName(image.empty() ? name : image);
}

// Between the two steps by which a remote gives a sidecar the name of the one before, there is none of that name.
static std::string SidecarNameOf(const FilesByName &files, const std::string &image)
{
    const std::string name = SidecarPath(image);
    auto file = files.lower_bound(name);
    while (file != files.end() && file->first.compare(0, name.size(), name) == 0) {
        if (file->first == name || NameOfCopy(file->first) == name) {
            return file->first;
        }
        ++file;
    }
    return {};
}

static std::optional<reader::Fault> ReadImage(const Place &place, const FilesByName &files, const JobFolder &folder,
                                              KeptImage &image)
{
    const std::string sidecarName = SidecarNameOf(files, image.name);
    if (sidecarName.empty()) {
        NoteSidecar(folder, image, std::nullopt);
        return std::nullopt;
    }
    Result<std::string> text = place.read(sidecarName);
    if (!text) {
        return text.fault;
    }
    NoteSidecar(folder, image, ParseSidecar(*text, place.name + ": " + sidecarName));
    if (const std::optional<uint64_t> bytes = files.at(image.name)) {
        JudgeLength(image, *bytes);
    }
    return std::nullopt;
}

static bool IsSidecarOfOne(const std::string &name, const FilesByName &files)
{
    const std::string image = WithoutEnding(name, SidecarPath(""));
    return !image.empty() && files.count(image) != 0;
}

static Result<JobFolder> ReadJob(const Place &place, const FilesByName &files, const std::string &job)
{
    JobFolder folder;
    folder.path = place.name;
    folder.job = job;
    for (const auto &[name, bytes] : files) {
        if (JobOfFile(name) != job) {
            continue;
        }
        if (JobOfImageName(name).empty()) {
            if (!IsSidecarOfOne(name, files)) {
                folder.leftovers.push_back(name);
            }
            continue;
        }
        KeptImage image;
        image.name = name;
        image.time = *TimeOfImageName(job, name);
        image.isThere = true;
        if (const std::optional<reader::Fault> fault = ReadImage(place, files, folder, image)) {
            return *fault;
        }
        folder.images.push_back(std::move(image));
    }
    ArrangeImages(folder);
    return folder;
}

Result<std::vector<JobFolder>> ReadPlace(const Place &place, const std::vector<std::string> &jobs)
{
    Result<std::vector<PlaceFile>> listed = place.list();
    if (!listed) {
        return listed.fault;
    }
    FilesByName files;
    std::vector<std::string> wanted = jobs;
    for (const PlaceFile &file : *listed) {
        const std::string job = JobOfFile(file.name);
        files.emplace(file.name, file.bytes);
        if (jobs.empty() && !job.empty() && std::find(wanted.begin(), wanted.end(), job) == wanted.end()) {
            wanted.push_back(job);
        }
    }
    std::vector<JobFolder> folders;
    for (const std::string &job : wanted) {
        Result<JobFolder> folder = ReadJob(place, files, job);
        if (!folder) {
            return folder.fault;
        }
        folders.push_back(std::move(*folder));
    }
    return folders;
}
