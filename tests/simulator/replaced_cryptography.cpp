// Cryptography: the replacements.
#include "simulator/replacing.h"

#include <algorithm>
#include <cctype>

namespace
{
constexpr uint32_t bufferTooSmall = 0xC0000023U; // STATUS_BUFFER_TOO_SMALL

Outcome FromStatus(NTSTATUS status)
{
    return BCRYPT_SUCCESS(status) ? Outcome() : Outcome{false, static_cast<uint32_t>(status), ""};
}

NTSTATUS StatusOf(const Outcome &outcome)
{
    return outcome.succeeded ? 0 : static_cast<NTSTATUS>(outcome.error);
}

// Whether the caller gets the handle that the call made: as on the real platform, any status from 0 up says that it
// does.
bool GivesHandle(const Outcome &outcome)
{
    return BCRYPT_SUCCESS(StatusOf(outcome));
}

// Whether memory of that length can hold what is made from the provider. Not every platform beneath looks.
bool HasRoomForObject(BCRYPT_ALG_HANDLE provider, ULONG objectLength)
{
    ULONG neededLength = 0;
    ULONG count = 0;
    REAL(BCryptGetProperty)
    (provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&neededLength), sizeof(neededLength), &count, 0);
    return objectLength >= neededLength;
}
// A hash or a key in memory that the caller lends. make is the real call, of the provider and the memory.
NTSTATUS MakeInLentMemory(const Call &call, const Object *provider, Kind kind, const char *name, ULONG length,
                          void **handle,
                          const std::function<NTSTATUS(void *provider, void **made, PUCHAR memory)> &make)
{
    void *token = nullptr;
    const Outcome outcome = Perform(call, [&](uint64_t) {
        if (provider == nullptr) {
            return BadHandle(call);
        }
        if (!HasRoomForObject(provider->real, length)) {
            return Outcome{false, bufferTooSmall, ""};
        }
        Object made = {};
        made.kind = kind;
        made.name = name;
        made.memory.resize(length);
        PUCHAR memory = made.memory.empty() ? nullptr : made.memory.data();
        Outcome real = FromStatus(make(provider->real, &made.real, memory));
        if (real.succeeded) {
            token = AddObject(std::move(made));
            real.result = FindObject(token)->name;
        }
        return real;
    });
    if (GivesHandle(outcome)) {
        *handle = token;
    } else {
        ReleaseObject(token);
    }
    return StatusOf(outcome);
}

using CipherCall = decltype(BCryptEncrypt);

// BCryptEncrypt and BCryptDecrypt differ in nothing but their names.
NTSTATUS Cipher(const char *callName, CipherCall *real, BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength,
                void *paddingInfo, PUCHAR iv, ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength,
                ULONG flags)
{
    const InSimulator inside;
    std::string name;
    Object *held = Held(key, Kind::Key, &name);
    Call call = MakeCall(callName, name, std::to_string(inputLength));
    NoteBuffer(call, input, inputLength);
    call.fields["outputLength"] = outputLength;
    call.fields["ivLength"] = ivLength;
    call.fields["flags"] = flags;
    if (paddingInfo != nullptr) {
        const auto *info = static_cast<const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO *>(paddingInfo);
        call.input = BytesAt(info->pbNonce, info->cbNonce);
        call.fields["infoSize"] = info->cbSize;
        call.fields["infoVersion"] = info->dwInfoVersion;
        call.fields["nonceLength"] = info->cbNonce;
        call.fields["authData"] = info->pbAuthData != nullptr;
        call.fields["authDataLength"] = info->cbAuthData;
        call.fields["tagLength"] = info->cbTag;
        call.fields["macContext"] = info->pbMacContext != nullptr;
        call.fields["macContextLength"] = info->cbMacContext;
        call.fields["aadLength"] = info->cbAAD;
        call.fields["dataLength"] = info->cbData;
        call.fields["infoFlags"] = info->dwFlags;
    }
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(real(held->real, input, inputLength, paddingInfo, iv, ivLength, output,
                                                 outputLength, resultLength, flags));
    }));
}
} // namespace

extern "C" {

NTSTATUS REPLACEMENT(BCryptOpenAlgorithmProvider)(BCRYPT_ALG_HANDLE *algorithm, LPCWSTR id, LPCWSTR implementation,
                                                  ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptOpenAlgorithmProvider)(algorithm, id, implementation, flags);
    }
    const InSimulator inside;
    std::string name = Narrow(id);
    Call call = MakeCall("BCryptOpenAlgorithmProvider", "", name + Text(" flags=0x%X", Unsigned(flags)));
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return static_cast<char>(tolower(c)); });
    call.object = (flags & BCRYPT_ALG_HANDLE_HMAC_FLAG) != 0 ? "hmac-" + name : name;
    call.fields = {{"flags", flags}, {"implementation", implementation != nullptr}};
    void *token = nullptr;
    const Outcome outcome = Perform(call, [&](uint64_t) {
        Object provider = {};
        provider.kind = Kind::Provider;
        provider.name = call.object;
        Outcome real = FromStatus(REAL(BCryptOpenAlgorithmProvider)(&provider.real, id, implementation, flags));
        if (real.succeeded) {
            token = AddObject(provider);
            real.result = FindObject(token)->name;
        }
        return real;
    });
    if (GivesHandle(outcome)) {
        *algorithm = token;
    } else {
        ReleaseObject(token);
    }
    return StatusOf(outcome);
}

NTSTATUS REPLACEMENT(BCryptCloseAlgorithmProvider)(BCRYPT_ALG_HANDLE algorithm, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(algorithm) ? 0 : REAL(BCryptCloseAlgorithmProvider)(algorithm, flags);
    }
    return StatusOf(Close("BCryptCloseAlgorithmProvider", algorithm, Kind::Provider, flags));
}

NTSTATUS REPLACEMENT(BCryptSetProperty)(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR input, ULONG inputLength,
                                        ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptSetProperty)(object, property, input, inputLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(object, Kind::Provider, &name);
    Call call = MakeCall("BCryptSetProperty", name, Narrow(property) + Text(" %u", Unsigned(inputLength)));
    call.input = BytesAt(input, inputLength);
    call.fields = {{"length", inputLength}, {"flags", flags}};
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptSetProperty)(held->real, property, input, inputLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptGetProperty)(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR output, ULONG outputLength,
                                        ULONG *resultLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptGetProperty)(object, property, output, outputLength, resultLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(object, Kind::Provider, &name);
    Call call = MakeCall("BCryptGetProperty", name, Narrow(property) + Text(" %u", Unsigned(outputLength)));
    NoteBuffer(call, output, outputLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptGetProperty)(held->real, property, output, outputLength,
                                                                    resultLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptCreateHash)(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE *hash, PUCHAR hashObject,
                                       ULONG hashObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptCreateHash)(algorithm, hash, hashObject, hashObjectLength, secret, secretLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *provider = Held(algorithm, Kind::Provider, &name);
    Call call = MakeCall("BCryptCreateHash", name);
    NoteBuffer(call, hashObject, hashObjectLength);
    call.fields["secretLength"] = secretLength;
    call.fields["flags"] = flags;
    return MakeInLentMemory(
        call, provider, Kind::Hash, "hash", hashObjectLength, hash, [&](void *parent, void **made, PUCHAR memory) {
            return REAL(BCryptCreateHash)(parent, made, memory, hashObjectLength, secret, secretLength, flags);
        });
}

NTSTATUS REPLACEMENT(BCryptHashData)(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG inputLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptHashData)(hash, input, inputLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(hash, Kind::Hash, &name);
    Call call = MakeCall("BCryptHashData", name, std::to_string(inputLength));
    NoteBuffer(call, input, inputLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptHashData)(held->real, input, inputLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptFinishHash)(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG outputLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptFinishHash)(hash, output, outputLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(hash, Kind::Hash, &name);
    Call call = MakeCall("BCryptFinishHash", name, std::to_string(outputLength));
    NoteBuffer(call, output, outputLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptFinishHash)(held->real, output, outputLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptDestroyHash)(BCRYPT_HASH_HANDLE hash)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(hash) ? 0 : REAL(BCryptDestroyHash)(hash);
    }
    return StatusOf(Close("BCryptDestroyHash", hash, Kind::Hash));
}

NTSTATUS REPLACEMENT(BCryptDeriveKeyPBKDF2)(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                            ULONG saltLength, ULONGLONG iterations, PUCHAR derivedKey,
                                            ULONG derivedKeyLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptDeriveKeyPBKDF2)(prf, password, passwordLength, salt, saltLength, iterations, derivedKey,
                                           derivedKeyLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(prf, Kind::Provider, &name);
    Call call = MakeCall("BCryptDeriveKeyPBKDF2", name,
                         Text("password=%u salt=%u iterations=%llu length=%u", Unsigned(passwordLength),
                              Unsigned(saltLength), iterations, Unsigned(derivedKeyLength)));
    NoteBuffer(call, derivedKey, derivedKeyLength);
    call.fields["passwordLength"] = passwordLength;
    call.fields["saltLength"] = saltLength;
    call.fields["iterations"] = iterations;
    call.fields["flags"] = flags;
    call.input = BytesAt(salt, saltLength);
    const ULONGLONG rounds = std::min<ULONGLONG>(iterations, running->machine->mostIterations);
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr
                   ? BadHandle(call)
                   : FromStatus(REAL(BCryptDeriveKeyPBKDF2)(held->real, password, passwordLength, salt, saltLength,
                                                            rounds, derivedKey, derivedKeyLength, flags));
    }));
}

NTSTATUS REPLACEMENT(BCryptGenerateSymmetricKey)(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE *key, PUCHAR keyObject,
                                                 ULONG keyObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptGenerateSymmetricKey)(algorithm, key, keyObject, keyObjectLength, secret, secretLength,
                                                flags);
    }
    const InSimulator inside;
    std::string name;
    Object *provider = Held(algorithm, Kind::Provider, &name);
    Call call = MakeCall("BCryptGenerateSymmetricKey", name, Text("secret=%u", Unsigned(secretLength)));
    NoteBuffer(call, keyObject, keyObjectLength);
    call.fields["secretLength"] = secretLength;
    call.fields["flags"] = flags;
    return MakeInLentMemory(
        call, provider, Kind::Key, "key", keyObjectLength, key, [&](void *parent, void **made, PUCHAR memory) {
            return REAL(BCryptGenerateSymmetricKey)(parent, made, memory, keyObjectLength, secret, secretLength, flags);
        });
}

NTSTATUS REPLACEMENT(BCryptDestroyKey)(BCRYPT_KEY_HANDLE key)
{
    if (CurrentMode() != Mode::Live) {
        return GivesBackToRun(key) ? 0 : REAL(BCryptDestroyKey)(key);
    }
    return StatusOf(Close("BCryptDestroyKey", key, Kind::Key));
}
NTSTATUS REPLACEMENT(BCryptEncrypt)(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo,
                                    PUCHAR iv, ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength,
                                    ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptEncrypt)(key, input, inputLength, paddingInfo, iv, ivLength, output, outputLength,
                                   resultLength, flags);
    }
    return Cipher("BCryptEncrypt", REAL(BCryptEncrypt), key, input, inputLength, paddingInfo, iv, ivLength, output,
                  outputLength, resultLength, flags);
}

NTSTATUS REPLACEMENT(BCryptDecrypt)(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo,
                                    PUCHAR iv, ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength,
                                    ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptDecrypt)(key, input, inputLength, paddingInfo, iv, ivLength, output, outputLength,
                                   resultLength, flags);
    }
    return Cipher("BCryptDecrypt", REAL(BCryptDecrypt), key, input, inputLength, paddingInfo, iv, ivLength, output,
                  outputLength, resultLength, flags);
}

NTSTATUS REPLACEMENT(BCryptGenRandom)(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG bufferLength, ULONG flags)
{
    if (CurrentMode() != Mode::Live) {
        return REAL(BCryptGenRandom)(algorithm, buffer, bufferLength, flags);
    }
    const InSimulator inside;
    std::string name;
    Object *held = Held(algorithm, Kind::Provider, &name);
    Call call = MakeCall("BCryptGenRandom", name, std::to_string(bufferLength));
    NoteBuffer(call, buffer, bufferLength);
    call.fields["flags"] = flags;
    return StatusOf(Perform(call, [&](uint64_t) {
        return held == nullptr ? BadHandle(call)
                               : FromStatus(REAL(BCryptGenRandom)(held->real, buffer, bufferLength, flags));
    }));
}
} // extern "C"
