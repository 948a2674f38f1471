#include "simulator/replacing.h"

Object *Held(void *key, Kind kind, std::string *name)
{
    Object *object = FindObject(key);
    const bool isFromOutside = key != nullptr && key != INVALID_HANDLE_VALUE && !IsToken(key);
    if (object == nullptr && isFromOutside) {
        Object outside = {};
        outside.kind = kind;
        outside.name = "outside";
        outside.real = key;
        outside.isOutside = true;
        object = FindObject(AddObject(outside, key));
    }
    *name = object != nullptr ? object->name : "nothing";
    return object != nullptr && object->open ? object : nullptr;
}

Outcome FromReal(BOOL succeeded)
{
    return succeeded != FALSE ? Outcome() : Outcome{false, REAL(GetLastError)(), ""};
}

Outcome BadHandle(const Call &call)
{
    AddMisuse(call, "no open handle");
    return {false, IsCryptography(call.name) ? 0xC0000008U : ERROR_INVALID_HANDLE, ""};
}

std::vector<uint8_t> BytesAt(const void *start, size_t count)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(start);
    return start == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(bytes, bytes + count);
}

void NoteBuffer(Call &call, const void *buffer, uint64_t length)
{
    call.buffer = buffer;
    call.fields["length"] = length;
    call.fields["aligned"] = AlignmentOf(buffer);
}

Outcome Close(const char *name, void *key, Kind kind, ULONG flags)
{
    const InSimulator inside;
    std::string objectName;
    Object *object = Held(key, kind, &objectName);
    const Call call = MakeCall(name, objectName);
    if (flags != 0) {
        AddMisuse(call, "there are no flags for it");
    }
    return Perform(call, [&](uint64_t) {
        if (object == nullptr) {
            return BadHandle(call);
        }
        const bool isCryptography = kind != Kind::File && kind != Kind::Stream;
        const bool closed = ReleaseObject(key);
        return closed ? Outcome() : Outcome{false, isCryptography ? failedStatus : REAL(GetLastError)(), ""};
    });
}

bool GivesBackToRun(void *key)
{
    const InSimulator inside;
    if (running != nullptr && FindObject(key) != nullptr) {
        ReleaseObject(key);
        return true;
    }
    return IsToken(key);
}
