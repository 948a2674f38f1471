// Digest, cipher and key derivation from the system's own API.
#include "host/host.h"

#include <windows.h>

#include <bcrypt.h>

#include <cstring>
#include <new>

namespace host
{

static constexpr ULONG tagBytesOfGcm = 16;

// Opened at the first use, by one thread, and kept until the process ends.
static BCRYPT_ALG_HANDLE OpenProvider(LPCWSTR id, ULONG flags)
{
    BCRYPT_ALG_HANDLE provider = nullptr;
    if (!BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&provider, id, nullptr, flags))) {
        throw std::bad_alloc();
    }
    return provider;
}

static BCRYPT_ALG_HANDLE Sha256Provider()
{
    static const BCRYPT_ALG_HANDLE provider = OpenProvider(BCRYPT_SHA256_ALGORITHM, 0);
    return provider;
}

static BCRYPT_ALG_HANDLE HmacProvider()
{
    static const BCRYPT_ALG_HANDLE provider = OpenProvider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    return provider;
}

static BCRYPT_ALG_HANDLE OpenGcmProvider()
{
    const BCRYPT_ALG_HANDLE provider = OpenProvider(BCRYPT_AES_ALGORITHM, 0);
    auto *mode = reinterpret_cast<const UCHAR *>(BCRYPT_CHAIN_MODE_GCM);
    if (!BCRYPT_SUCCESS(BCryptSetProperty(provider, BCRYPT_CHAINING_MODE, const_cast<PUCHAR>(mode),
                                          sizeof(BCRYPT_CHAIN_MODE_GCM), 0))) {
        throw std::bad_alloc();
    }
    return provider;
}

static BCRYPT_ALG_HANDLE GcmProvider()
{
    static const BCRYPT_ALG_HANDLE provider = OpenGcmProvider();
    return provider;
}

// ---- SHA-256 ----

struct DigestState {
    BCRYPT_HASH_HANDLE hash = nullptr;
};

void EndDigestState::operator()(DigestState *state) const
{
    if (state->hash != nullptr) {
        BCryptDestroyHash(state->hash);
    }
    delete state;
}

Digesting::Digesting() : state(new DigestState)
{
    if (!BCRYPT_SUCCESS(BCryptCreateHash(Sha256Provider(), &state->hash, nullptr, 0, nullptr, 0, 0))) {
        throw std::bad_alloc();
    }
}

void Digesting::Add(const void *data, size_t byteCount)
{
    constexpr size_t largestStep = size_t{1} << 30;
    auto *bytes = const_cast<UCHAR *>(static_cast<const UCHAR *>(data));
    for (size_t done = 0; done < byteCount;) {
        const size_t step = byteCount - done < largestStep ? byteCount - done : largestStep;
        if (!BCRYPT_SUCCESS(BCryptHashData(state->hash, bytes + done, static_cast<ULONG>(step), 0))) {
            throw std::bad_alloc();
        }
        done += step;
    }
}

Digest Digesting::Finish()
{
    Digest digest = {};
    if (!BCRYPT_SUCCESS(BCryptFinishHash(state->hash, digest.data(), static_cast<ULONG>(digest.size()), 0))) {
        throw std::bad_alloc();
    }
    return digest;
}

Digest DigestOf(const void *data, size_t byteCount)
{
    Digesting digesting;
    digesting.Add(data, byteCount);
    return digesting.Finish();
}

// ---- PBKDF2 ----

Key::~Key()
{
    SecureZeroMemory(bytes.data(), bytes.size());
}

Trouble DeriveKey(const std::string &password, const uint8_t (&salt)[16], uint32_t iterations, Key *key)
{
    if (iterations == 0) {
        return "an iteration count of 0 is none";
    }
    auto *passwordBytes = reinterpret_cast<const UCHAR *>(password.data());
    const NTSTATUS status =
        BCryptDeriveKeyPBKDF2(HmacProvider(), const_cast<PUCHAR>(passwordBytes), static_cast<ULONG>(password.size()),
                              const_cast<PUCHAR>(salt), sizeof(salt), iterations, key->bytes.data(),
                              static_cast<ULONG>(key->bytes.size()), 0);
    return BCRYPT_SUCCESS(status) ? Trouble() : "the key can't be derived";
}

// ---- AES-256-GCM ----

// What comes in one piece is one call. More pieces are calls that are chained through the context, the last one without
// the flag for it.
struct CipherState {
    BCRYPT_KEY_HANDLE key = nullptr;
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = {};
    UCHAR nonce[12] = {};
    UCHAR tag[tagBytesOfGcm] = {};
    UCHAR context[tagBytesOfGcm] = {};
    UCHAR chainedIv[tagBytesOfGcm] = {};
    uint64_t bytesLeft = 0;
    bool seals = false;
    bool isChained = false;
    bool isEnded = false;
};

void EndCipherState::operator()(CipherState *state) const
{
    if (state->key != nullptr) {
        BCryptDestroyKey(state->key);
    }
    delete state;
}

static std::unique_ptr<CipherState, EndCipherState> Begin(const Key &key, const uint8_t *nonce, const uint8_t *tag,
                                                          uint64_t totalBytes)
{
    std::unique_ptr<CipherState, EndCipherState> state(new CipherState);
    if (!BCRYPT_SUCCESS(BCryptGenerateSymmetricKey(GcmProvider(), &state->key, nullptr, 0,
                                                   const_cast<PUCHAR>(key.bytes.data()),
                                                   static_cast<ULONG>(key.bytes.size()), 0))) {
        throw std::bad_alloc();
    }
    memcpy(state->nonce, nonce, sizeof(state->nonce));
    if (tag != nullptr) {
        memcpy(state->tag, tag, sizeof(state->tag));
    }
    state->seals = tag == nullptr;
    state->bytesLeft = totalBytes;
    BCRYPT_INIT_AUTH_MODE_INFO(state->info);
    state->info.pbNonce = state->nonce;
    state->info.cbNonce = sizeof(state->nonce);
    state->info.pbTag = state->tag;
    state->info.cbTag = sizeof(state->tag);
    return state;
}

static bool Run(CipherState &state, uint8_t *piece, size_t byteCount)
{
    const bool isLast = byteCount == state.bytesLeft;
    if (byteCount > state.bytesLeft || byteCount > ULONG_MAX) {
        return false;
    }
    if (!isLast) {
        state.isChained = true;
        state.info.dwFlags |= BCRYPT_AUTH_MODE_CHAIN_CALLS_FLAG;
    } else {
        state.info.dwFlags &= ~static_cast<ULONG>(BCRYPT_AUTH_MODE_CHAIN_CALLS_FLAG);
    }
    if (state.isChained) {
        state.info.pbMacContext = state.context;
        state.info.cbMacContext = sizeof(state.context);
    }
    ULONG moved = 0;
    const auto count = static_cast<ULONG>(byteCount);
    const NTSTATUS status = (state.seals ? BCryptEncrypt : BCryptDecrypt)(
        state.key, piece, count, &state.info, state.isChained ? state.chainedIv : nullptr,
        state.isChained ? sizeof(state.chainedIv) : 0, piece, count, &moved, 0);
    state.bytesLeft -= byteCount;
    state.isEnded = isLast;
    return BCRYPT_SUCCESS(status);
}

static bool End(CipherState &state)
{
    uint8_t nothing = 0;
    return state.isEnded || (state.bytesLeft == 0 && Run(state, &nothing, 0));
}

Opening::Opening(const Key &key, const uint8_t (&nonce)[12], const uint8_t (&tag)[16], uint64_t totalBytes)
    : state(Begin(key, nonce, tag, totalBytes))
{
}

bool Opening::Add(uint8_t *piece, size_t byteCount)
{
    return Run(*state, piece, byteCount);
}

bool Opening::Finish()
{
    return End(*state);
}

Sealing::Sealing(const Key &key, const uint8_t (&nonce)[12], uint64_t totalBytes)
    : state(Begin(key, nonce, nullptr, totalBytes))
{
}

bool Sealing::Add(uint8_t *piece, size_t byteCount)
{
    return Run(*state, piece, byteCount);
}

bool Sealing::Finish(uint8_t (&tag)[16])
{
    const bool ended = End(*state);
    memcpy(tag, state->tag, sizeof(tag));
    return ended;
}

} // namespace host
