// JSON of a known form; whatever has another is refused as a whole.
#include "kestrix-keep/sidecar.h"

#include <map>
#include <stdexcept>

static constexpr int form = 1;

std::string SidecarPath(const std::string &imagePath)
{
    return imagePath + ".json";
}

std::string MemoryPath(const std::string &folder, const std::string &job)
{
    return folder + "/" + job + ".keep.json";
}

bool IsOfThisMachine(const Sidecar &sidecar)
{
    const std::string own = host::MachineName();
    return sidecar.machine.empty() || own.empty() || sidecar.machine == own;
}

std::string DifferenceOf(const DiskIdentity &left, const DiskIdentity &right)
{
    const auto named = [](const std::string &text) { return text.empty() ? std::string("none") : text; };
    if (left.serial != right.serial) {
        return "its serial is " + named(right.serial) + ", not " + named(left.serial);
    }
    if (left.wwn != right.wwn) {
        return "its WWN is " + named(right.wwn) + ", not " + named(left.wwn);
    }
    if (left.sizeBytes != right.sizeBytes) {
        return "it has " + Counted(right.sizeBytes, "byte") + ", not " + std::to_string(left.sizeBytes);
    }
    if (left.sectorBytes != right.sectorBytes) {
        return "its sectors have " + Counted(right.sectorBytes, "byte") + ", not " + std::to_string(left.sectorBytes);
    }
    const bool hasName = !left.serial.empty() || !left.wwn.empty();
    if (!hasName && left.model != right.model) { // a model that the system words anew is no other disk
        return "its model is " + named(right.model) + ", not " + named(left.model) + ", and it has no serial";
    }
    return {};
}

Json JsonOf(const DiskIdentity &disk)
{
    return {{"model", disk.model},
            {"serial", disk.serial},
            {"wwn", disk.wwn},
            {"sizeBytes", disk.sizeBytes},
            {"sectorBytes", disk.sectorBytes}};
}

Json JsonOf(const Sidecar &sidecar)
{
    return {{"form", form},
            {"job", sidecar.job},
            {"machine", sidecar.machine},
            {"number", sidecar.number},
            {"disk", JsonOf(sidecar.disk)},
            {"startedAt", sidecar.startedAt},
            {"endedAt", sidecar.endedAt},
            {"startedLocal", sidecar.startedLocal},
            {"base", sidecar.base},
            {"baseIdentity", sidecar.baseIdentity},
            {"identity", sidecar.identity},
            {"fileBytes", sidecar.fileBytes},
            {"sha256", sidecar.sha256},
            {"otherDigests", sidecar.otherDigests},
            {"chunks", sidecar.chunks},
            {"storedChunks", sidecar.storedChunks},
            {"isSealed", sidecar.isSealed},
            {"captureLines", sidecar.captureLines},
            {"notes", sidecar.notes},
            {"isSound", sidecar.isSound},
            {"damage", sidecar.damage},
            {"unread", sidecar.unread},
            {"provedAt", sidecar.provedAt},
            {"mayNotBeBase", sidecar.mayNotBeBase}};
}

static DiskIdentity DiskOf(const Json &json)
{
    DiskIdentity disk;
    json.at("model").get_to(disk.model);
    json.at("serial").get_to(disk.serial);
    json.at("wwn").get_to(disk.wwn);
    json.at("sizeBytes").get_to(disk.sizeBytes);
    json.at("sectorBytes").get_to(disk.sectorBytes);
    return disk;
}

// As far as every reader of JSON counts without loss; the next number is one of them too. -1 reads as more than that.
static uint64_t NumberAt(const Json &json, const char *key)
{
    constexpr uint64_t most = (uint64_t{1} << 53) - 1;
    const auto number = json.at(key).get<uint64_t>();
    if (number > most) {
        throw std::out_of_range(std::string(key) + " is too large");
    }
    return number;
}

// Of what lies beyond the year 9999 no calendar tells, and no sum of two overflows.
static int64_t TimeAt(const Json &json, const char *key)
{
    constexpr int64_t endOfCalendar = 253402300800;
    const int64_t time = json.at(key).get<int64_t>();
    if (time < 0 || time >= endOfCalendar) {
        throw std::out_of_range(std::string(key) + " is no time");
    }
    return time;
}

// Throws what the library throws, and std::out_of_range.
static Sidecar SidecarOf(const Json &json)
{
    Sidecar sidecar;
    json.at("job").get_to(sidecar.job);
    json.at("machine").get_to(sidecar.machine);
    sidecar.number = NumberAt(json, "number");
    sidecar.disk = DiskOf(json.at("disk"));
    sidecar.startedAt = TimeAt(json, "startedAt");
    sidecar.endedAt = TimeAt(json, "endedAt");
    json.at("startedLocal").get_to(sidecar.startedLocal);
    json.at("base").get_to(sidecar.base);
    json.at("baseIdentity").get_to(sidecar.baseIdentity);
    json.at("identity").get_to(sidecar.identity);
    json.at("fileBytes").get_to(sidecar.fileBytes);
    json.at("sha256").get_to(sidecar.sha256);
    sidecar.otherDigests = json.value("otherDigests", OtherDigests());
    json.at("chunks").get_to(sidecar.chunks);
    json.at("storedChunks").get_to(sidecar.storedChunks);
    json.at("isSealed").get_to(sidecar.isSealed);
    json.at("captureLines").get_to(sidecar.captureLines);
    json.at("notes").get_to(sidecar.notes);
    json.at("isSound").get_to(sidecar.isSound);
    json.at("damage").get_to(sidecar.damage);
    sidecar.unread = json.value("unread", std::string());
    sidecar.provedAt = TimeAt(json, "provedAt");
    json.at("mayNotBeBase").get_to(sidecar.mayNotBeBase);
    return sidecar;
}

static JobMemory MemoryOf(const Json &json)
{
    JobMemory memory;
    memory.lastNumber = NumberAt(json, "lastNumber");
    json.at("stamps").get_to(memory.stamps);
    if (!json.at("lastReport").is_null()) {
        json.at("lastReport").at("startedLocal").get_ref<const std::string &>();
    }
    memory.lastReport = json.at("lastReport");
    memory.places = json.at("places").get<std::map<std::string, Json>>();
    for (const Json &place : memory.places) {
        if (place.get_ref<const Json::object_t &>().count("completeAt") != 0) {
            TimeAt(place, "completeAt");
        }
    }
    if (json.contains("passedChain")) { // earlier versions did not remember it
        json.at("passedChain").at("full").get_to(memory.passedChain.full);
        memory.passedChain.at = TimeAt(json.at("passedChain"), "at");
    }
    return memory;
}

template <typename Value>
static reader::Result<Value> ParseForm(const std::string &text, const std::string &name, Value (*valueOf)(const Json &))
{
    try {
        const Json json = Json::parse(text);
        if (json.at("form") != form) {
            return reader::Fault{reader::FaultKind::Unavailable, name + ": a newer kestrix-keep wrote it"};
        }
        return valueOf(json);
    } catch (const std::exception &error) {
        return reader::Fault{reader::FaultKind::Damaged, name + ": it is not what kestrix-keep wrote: " + error.what()};
    }
}

template <typename Value>
static reader::Result<Value> ReadForm(const std::string &path, Value (*valueOf)(const Json &))
{
    std::string text;
    if (const host::Trouble trouble = host::ReadSmallFile(path, &text)) {
        return reader::Fault{reader::FaultKind::Unavailable, path + ": it can't be read: " + *trouble};
    }
    return ParseForm(text, path, valueOf);
}

static host::Trouble WriteJson(const std::string &path, const Json &json)
{
    const std::string text = json.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
    host::NewFile file;
    host::Trouble trouble = host::CreateNewFile(path, host::Existing::GivesWay, &file);
    trouble = trouble ? trouble : host::WriteAt(file, 0, text.data(), text.size());
    return trouble ? trouble : host::FinishInPlaceOf(&file);
}

reader::Result<Sidecar> ParseSidecar(const std::string &text, const std::string &name)
{
    return ParseForm(text, name, SidecarOf);
}

reader::Result<Sidecar> ReadSidecar(const std::string &path)
{
    return ReadForm(path, SidecarOf);
}

host::Trouble WriteSidecar(const std::string &path, const Sidecar &sidecar)
{
    return WriteJson(path, JsonOf(sidecar));
}

reader::Result<JobMemory> ReadMemory(const std::string &path)
{
    if (host::NameIsFree(path)) {
        return JobMemory();
    }
    return ReadForm(path, MemoryOf);
}

host::Trouble WriteMemory(const std::string &path, const JobMemory &memory)
{
    return WriteJson(path, {{"form", form},
                            {"lastNumber", memory.lastNumber},
                            {"stamps", memory.stamps},
                            {"lastReport", memory.lastReport},
                            {"places", memory.places},
                            {"passedChain", {{"full", memory.passedChain.full}, {"at", memory.passedChain.at}}}});
}
