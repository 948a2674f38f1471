// One function per operation over bcrypt.
//
// Providers are opened and closed within each call; only a GcmKey keeps one. The fatal messages name the call and what
// it was for: a SHA256 provider opened for PBKDF2 is named HMAC-SHA256. Results of the calls that give handles back,
// feed a running hash or ask for a size are not looked at. PBKDF2 and the seals use 32-, 16- and 12-byte values
// throughout.
#include "crypto/primitives.h"

#include "cli/console.h"

#include <cstddef>
#include <utility>

static BCRYPT_ALG_HANDLE OpenProvider(LPCWSTR id, ULONG flags, const char *message)
{
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    const NTSTATUS status = BCryptOpenAlgorithmProvider(&algorithm, id, nullptr, flags);
    if (!BCRYPT_SUCCESS(status)) {
        Fatal(message, status);
    }
    return algorithm;
}

// Zeroed working memory of the size that the provider's hashes or keys want.
static std::vector<uint8_t> MakeObject(BCRYPT_ALG_HANDLE algorithm)
{
    ULONG objectLength = 0;
    ULONG resultLength = 0;
    BCryptGetProperty(algorithm, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&objectLength), sizeof(objectLength),
                      &resultLength, 0);
    return std::vector<uint8_t>(objectLength);
}

void Sha256Buffer(const void *data, uint64_t length, uint8_t *digest)
{
    const BCRYPT_ALG_HANDLE algorithm = OpenProvider(BCRYPT_SHA256_ALGORITHM, 0, "BCryptOpenAlgorithmProvider(SHA256)");
    std::vector<uint8_t> hashObject = MakeObject(algorithm);
    BCRYPT_HASH_HANDLE hash = nullptr;
    const NTSTATUS status =
        BCryptCreateHash(algorithm, &hash, hashObject.data(), static_cast<ULONG>(hashObject.size()), nullptr, 0, 0);
    if (!BCRYPT_SUCCESS(status)) {
        Fatal("BCryptCreateHash", status);
    }
    BCryptHashData(hash, static_cast<PUCHAR>(const_cast<void *>(data)), static_cast<ULONG>(length), 0);
    BCryptFinishHash(hash, digest, digestBytes, 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(algorithm, 0);
}

void DeriveKey(const std::string &password, const uint8_t *salt, uint32_t iterations, uint8_t *key)
{
    const BCRYPT_ALG_HANDLE algorithm =
        OpenProvider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG, "BCryptOpenAlgorithmProvider(HMAC-SHA256)");
    const auto *passwordBytes = reinterpret_cast<const UCHAR *>(password.data());
    const NTSTATUS status =
        BCryptDeriveKeyPBKDF2(algorithm, const_cast<PUCHAR>(passwordBytes), static_cast<ULONG>(password.size()),
                              const_cast<PUCHAR>(salt), saltBytes, iterations, key, keyBytes, 0);
    if (!BCRYPT_SUCCESS(status)) {
        Fatal("BCryptDeriveKeyPBKDF2", status);
    }
    BCryptCloseAlgorithmProvider(algorithm, 0);
}

static void EndKey(GcmKey &key)
{
    if (key.keyHandle != nullptr) {
        BCryptDestroyKey(key.keyHandle);
    }
    if (key.algorithm != nullptr) {
        BCryptCloseAlgorithmProvider(key.algorithm, 0);
    }
}

GcmKey::GcmKey(const uint8_t *rawKey)
{
    algorithm = OpenProvider(BCRYPT_AES_ALGORITHM, 0, "BCryptOpenAlgorithmProvider(AES)");
    auto *mode = reinterpret_cast<const UCHAR *>(BCRYPT_CHAIN_MODE_GCM);
    NTSTATUS status =
        BCryptSetProperty(algorithm, BCRYPT_CHAINING_MODE, const_cast<PUCHAR>(mode), sizeof(BCRYPT_CHAIN_MODE_GCM), 0);
    if (!BCRYPT_SUCCESS(status)) {
        Fatal("BCryptSetProperty(GCM)", status);
    }
    keyObject = MakeObject(algorithm);
    status = BCryptGenerateSymmetricKey(algorithm, &keyHandle, keyObject.data(), static_cast<ULONG>(keyObject.size()),
                                        const_cast<PUCHAR>(rawKey), keyBytes, 0);
    if (!BCRYPT_SUCCESS(status)) {
        Fatal("BCryptGenerateSymmetricKey", status);
    }
}

GcmKey::GcmKey(GcmKey &&other) noexcept
    : algorithm(std::exchange(other.algorithm, nullptr)), keyHandle(std::exchange(other.keyHandle, nullptr)),
      keyObject(std::exchange(other.keyObject, {}))
{
}

GcmKey &GcmKey::operator=(GcmKey &&other) noexcept
{
    if (this != &other) {
        EndKey(*this);
        algorithm = std::exchange(other.algorithm, nullptr);
        keyHandle = std::exchange(other.keyHandle, nullptr);
        keyObject = std::exchange(other.keyObject, {});
    }
    return *this;
}

GcmKey::~GcmKey()
{
    EndKey(*this);
}

using SealInfo = BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO;
static_assert(sizeof(SealInfo) == 88 && offsetof(SealInfo, cbSize) == 0 && offsetof(SealInfo, dwInfoVersion) == 4);
static_assert(offsetof(SealInfo, pbNonce) == 8 && offsetof(SealInfo, cbNonce) == 16);
static_assert(offsetof(SealInfo, pbAuthData) == 24 && offsetof(SealInfo, cbAuthData) == 32);
static_assert(offsetof(SealInfo, pbTag) == 40 && offsetof(SealInfo, cbTag) == 48);
static_assert(offsetof(SealInfo, pbMacContext) == 56 && offsetof(SealInfo, cbMacContext) == 64);
static_assert(offsetof(SealInfo, cbAAD) == 68 && offsetof(SealInfo, cbData) == 72 && offsetof(SealInfo, dwFlags) == 80);

static SealInfo ModeInfo(const uint8_t *nonce, uint8_t *tag)
{
    SealInfo info = {};
    info.cbSize = sizeof(info);
    info.dwInfoVersion = BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION;
    info.pbNonce = const_cast<PUCHAR>(nonce);
    info.cbNonce = nonceBytes;
    info.pbTag = tag;
    info.cbTag = tagBytes;
    return info;
}

void SealChunk(const GcmKey &key, const uint8_t *plain, uint32_t length, const uint8_t *nonce, uint8_t *cipher,
               uint8_t *tag)
{
    SealInfo info = ModeInfo(nonce, tag);
    ULONG resultLength = 0;
    const NTSTATUS status = BCryptEncrypt(key.keyHandle, const_cast<PUCHAR>(plain), length, &info, nullptr, 0, cipher,
                                          length, &resultLength, 0);
    if (!BCRYPT_SUCCESS(status)) {
        Fatal("BCryptEncrypt", status);
    }
}

bool OpenChunk(const GcmKey &key, const uint8_t *cipher, uint32_t length, const uint8_t *nonce, const uint8_t *tag,
               uint8_t *plain)
{
    SealInfo info = ModeInfo(nonce, const_cast<uint8_t *>(tag));
    ULONG resultLength = 0;
    return BCRYPT_SUCCESS(BCryptDecrypt(key.keyHandle, const_cast<PUCHAR>(cipher), length, &info, nullptr, 0, plain,
                                        length, &resultLength, 0));
}

void RandomBytes(uint8_t *buffer, uint32_t length)
{
    const BCRYPT_ALG_HANDLE algorithm = OpenProvider(BCRYPT_RNG_ALGORITHM, 0, "BCryptOpenAlgorithmProvider(RNG)");
    const NTSTATUS status = BCryptGenRandom(algorithm, buffer, length, 0);
    if (!BCRYPT_SUCCESS(status)) {
        Fatal("BCryptGenRandom", status);
    }
    BCryptCloseAlgorithmProvider(algorithm, 0);
}
