// The card file of a disk in a folder of disks: devices/PhysicalDriveN.json, one JSON object.
//
//     {"model": "...", "serial": "...", "wwn": "...", "bus": "...", "removable": false}
//
// Every member may be left out. A card that says anything else would name a disk by guess, so that it is refused.
#include "host/disk_facts_linux.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <set>

namespace host
{

static constexpr size_t largestCard = 65536; // bytes

// Discarded where the text is no JSON, or names a member twice.
static nlohmann::json ParseCard(const std::string &text)
{
    std::set<std::string> names;
    bool isRepeated = false;
    const auto note = [&](int depth, nlohmann::json::parse_event_t event, const nlohmann::json &parsed) {
        if (depth == 1 && event == nlohmann::json::parse_event_t::key) {
            isRepeated = !names.insert(parsed.get<std::string>()).second || isRepeated;
        }
        return true;
    };
    nlohmann::json card = nlohmann::json::parse(text, note, false);
    return isRepeated ? nlohmann::json(nlohmann::json::value_t::discarded) : card;
}

static Trouble TakeMember(const std::string &name, const nlohmann::json &value, DiskFacts *disk)
{
    const bool isText = name == "model" || name == "serial" || name == "wwn" || name == "bus";
    if (!isText && name != "removable") {
        return name + " is no member of a disk's card, which are model, serial, wwn, bus and removable";
    }
    if (isText != value.is_string() || (!isText && !value.is_boolean())) {
        return name + (isText ? " is no string" : " is neither true nor false");
    }
    if (!isText) {
        disk->isRemovable = value.get<bool>();
        return {};
    }
    std::string &field = name == "model"    ? disk->model
                         : name == "serial" ? disk->serial
                         : name == "wwn"    ? disk->wwn
                                            : disk->bus;
    field = FieldText(value.get<std::string>());
    return {};
}

Trouble ReadDiskCard(const std::string &path, DiskFacts *disk)
{
    std::string text;
    struct stat found = {};
    if (lstat(path.c_str(), &found) != 0 && errno == ENOENT) {
        return {};
    }
    if (const Trouble trouble = ReadStart(path, largestCard + 1, &text)) {
        return path + ": it can't be read: " + *trouble;
    }
    if (text.size() > largestCard) {
        return path + ": it is too long for a disk's card";
    }
    const nlohmann::json card = ParseCard(text);
    if (!card.is_object()) {
        return path + ": it is not one JSON object that has each member once";
    }
    for (const auto &member : card.items()) {
        if (const Trouble trouble = TakeMember(member.key(), member.value(), disk)) {
            return path + ": " + *trouble;
        }
    }
    return {};
}

} // namespace host
