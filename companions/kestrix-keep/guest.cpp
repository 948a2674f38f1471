// What kestrix-vm tells is JSON; what it complains of are lines on its error stream.
#include "kestrix-keep/guest.h"

#include "report/report.h"

#include <filesystem>

using reader::Fault;
using reader::FaultKind;
using reader::Result;

std::string NameOfGuestDisk(const GuestDisk &guest)
{
    return guest.domain + "/" + guest.disk;
}

std::string DiskOfJob(const Job &job)
{
    return job.guest ? NameOfGuestDisk(*job.guest) : job.disk;
}

std::vector<std::string> WayToGuest(const GuestDisk &guest)
{
    return guest.socket.empty() ? std::vector<std::string>{"--connect", guest.connection}
                                : std::vector<std::string>{"--qmp", guest.socket};
}

std::string ModulesOf(const std::string &program)
{
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(std::filesystem::u8path(program), error);
    const std::filesystem::path beside = real.parent_path() / "kestrix_vm";
    if (std::filesystem::is_directory(beside, error)) {
        return beside.u8string();
    }
    return (real.parent_path().parent_path() / "share" / "kestrix-vm" / "kestrix_vm").u8string();
}

static Result<Json> AskForDisks(const std::string &program, const GuestDisk &guest)
{
    host::ProgramToRun run;
    run.arguments = {program, "disks", "--json"};
    const std::vector<std::string> way = WayToGuest(guest);
    run.arguments.insert(run.arguments.end(), way.begin(), way.end());
    std::string output;
    std::string errors;
    run.onErrors = [&errors](const std::string &piece) { errors += piece; };
    host::ProgramEnd end;
    const host::Trouble trouble = host::RunProgram(
        run, [&output](const std::string &piece) { output += piece; }, &end);
    if (trouble) {
        return Fault{FaultKind::Unavailable, program + ": it can't be started: " + *trouble};
    }
    Json disks = Json::parse(output, nullptr, false);
    if (end.wasEnded || end.exitStatus != 0 || !disks.is_array()) {
        const std::string why = errors.substr(0, errors.find('\n'));
        return Fault{FaultKind::Unavailable,
                     program + " does not tell the disks of " + guest.domain + (why.empty() ? "" : ": " + why)};
    }
    return disks;
}

static std::string TextIn(const Json &disk, const char *name)
{
    const Json value = disk.is_object() ? disk.value(name, Json()) : Json();
    return value.is_string() ? value.get<std::string>() : "";
}

static uint64_t NumberIn(const Json &disk, const char *name)
{
    const Json value = disk.is_object() ? disk.value(name, Json()) : Json();
    return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
}

// A storage daemon has disks and no guest.
static bool IsMeant(const Json &disk, const GuestDisk &guest)
{
    const std::string domain = TextIn(disk, "domain");
    return TextIn(disk, "disk") == guest.disk && (domain.empty() || domain == guest.domain);
}

Result<FoundGuestDisk> FindGuestDisk(const std::string &program, const GuestDisk &guest)
{
    Result<Json> disks = AskForDisks(program, guest);
    if (!disks) {
        return disks.fault;
    }
    std::string names;
    for (const Json &disk : *disks) {
        if (!IsMeant(disk, guest)) {
            names += (names.empty() ? "" : ", ") + TextIn(disk, "domain") + "/" + TextIn(disk, "disk");
            continue;
        }
        if (const std::string refused = TextIn(disk, "refused"); !refused.empty()) {
            return Fault{FaultKind::Unavailable, NameOfGuestDisk(guest) + ": " + refused};
        }
        FoundGuestDisk found;
        found.identity = {"disk of a virtual machine", NameOfGuestDisk(guest), "", NumberIn(disk, "size"),
                          static_cast<uint32_t>(NumberIn(disk, "sectorSize"))};
        found.file = TextIn(disk, "file");
        found.format = TextIn(disk, "format");
        return found;
    }
    return Fault{FaultKind::Unavailable, "there is no disk " + NameOfGuestDisk(guest) + "; there " +
                                             (names.empty() ? "is none" : "are: " + names)};
}
