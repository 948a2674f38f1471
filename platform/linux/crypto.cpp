// Cryptography from libcrypto, through its EVP interface.
//
// Calls held here: BCryptOpenAlgorithmProvider, BCryptCloseAlgorithmProvider, BCryptSetProperty, BCryptGetProperty,
// BCryptCreateHash, BCryptHashData, BCryptFinishHash, BCryptDestroyHash, BCryptDeriveKeyPBKDF2,
// BCryptGenerateSymmetricKey, BCryptDestroyKey, BCryptEncrypt, BCryptDecrypt, BCryptGenRandom.
//
// A running hash and a key live in the caller's object memory, as the published API has it; what libcrypto needs
// besides hangs there and goes with the destroying call. Statuses are the published NTSTATUS values for the same
// faults.
#include <bcrypt.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <new>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

static constexpr NTSTATUS Status(uint32_t value)
{
    return static_cast<NTSTATUS>(value);
}

static constexpr NTSTATUS statusSuccess = 0;
static constexpr NTSTATUS statusUnsuccessful = Status(0xC0000001U);
static constexpr NTSTATUS statusInvalidHandle = Status(0xC0000008U);
static constexpr NTSTATUS statusInvalidParameter = Status(0xC000000DU);
static constexpr NTSTATUS statusNoMemory = Status(0xC0000017U);
static constexpr NTSTATUS statusBufferTooSmall = Status(0xC0000023U);
static constexpr NTSTATUS statusNotSupported = Status(0xC00000BBU);
static constexpr NTSTATUS statusNotFound = Status(0xC0000225U);
static constexpr NTSTATUS statusTagMismatch = Status(0xC000A002U);

static constexpr ULONG digestLength = 32;
static constexpr ULONG aesKeyLength = 32;
static constexpr ULONG gcmNonceLength = 12;
static constexpr ULONG gcmTagLength = 16;
static constexpr ULONG largestUpdate = 1U << 30; // libcrypto counts in int

enum class Algorithm { Sha256, HmacSha256, Aes, Random };

struct Provider {
    Algorithm algorithm;
    bool isGcm;
};

struct HashState {
    EVP_MD_CTX *context;
};

struct KeyState {
    EVP_CIPHER_CTX *context;
    UCHAR key[aesKeyLength];
};

// What a failed look-up in libcrypto amounts to: an algorithm that this libcrypto doesn't have, or no memory for it.
// The faults that led to it are taken off the queue.
static NTSTATUS StatusOfMissing()
{
    bool isUnsupported = false;
    for (unsigned long error = ERR_get_error(); error != 0; error = ERR_get_error()) {
        isUnsupported = isUnsupported || ERR_GET_REASON(error) == ERR_R_UNSUPPORTED;
    }
    return isUnsupported ? statusNotSupported : statusNoMemory;
}

static const EVP_MD *Sha256()
{
    static const EVP_MD *algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return algorithm;
}

static const EVP_CIPHER *Aes256Gcm()
{
    static const EVP_CIPHER *algorithm = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    return algorithm;
}

// ---- Providers ----

extern "C" NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE *algorithm, LPCWSTR id, LPCWSTR implementation,
                                                ULONG flags)
{
    Provider provider = {Algorithm::Sha256, false};
    ULONG knownFlags = 0;
    if (wcscmp(id, BCRYPT_SHA256_ALGORITHM) == 0) {
        knownFlags = BCRYPT_ALG_HANDLE_HMAC_FLAG;
        provider.algorithm = flags == 0 ? Algorithm::Sha256 : Algorithm::HmacSha256;
    } else if (wcscmp(id, BCRYPT_AES_ALGORITHM) == 0) {
        provider.algorithm = Algorithm::Aes;
    } else if (wcscmp(id, BCRYPT_RNG_ALGORITHM) == 0) {
        provider.algorithm = Algorithm::Random;
    } else {
        return statusNotFound;
    }
    if ((flags & ~knownFlags) != 0) {
        return statusInvalidParameter;
    }
    if (implementation != nullptr) {
        return statusNotFound;
    }
    *algorithm = new (std::nothrow) Provider(provider);
    return *algorithm == nullptr ? statusNoMemory : statusSuccess;
}

extern "C" NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags)
{
    if (algorithm == nullptr) {
        return statusInvalidHandle;
    }
    if (flags != 0) {
        return statusInvalidParameter;
    }
    delete static_cast<Provider *>(algorithm);
    return statusSuccess;
}

extern "C" NTSTATUS BCryptSetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR input, ULONG inputLength,
                                      ULONG flags)
{
    auto *provider = static_cast<Provider *>(object);
    if (provider == nullptr) {
        return statusInvalidHandle;
    }
    if (provider->algorithm != Algorithm::Aes || wcscmp(property, BCRYPT_CHAINING_MODE) != 0 ||
        inputLength != sizeof(BCRYPT_CHAIN_MODE_GCM) || memcmp(input, BCRYPT_CHAIN_MODE_GCM, inputLength) != 0) {
        return statusNotSupported;
    }
    if (flags != 0) {
        return statusInvalidParameter;
    }
    provider->isGcm = true;
    return statusSuccess;
}

extern "C" NTSTATUS BCryptGetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR output, ULONG outputLength,
                                      ULONG *resultLength, ULONG flags)
{
    const auto *provider = static_cast<const Provider *>(object);
    if (provider == nullptr) {
        return statusInvalidHandle;
    }
    const bool hasObjects = provider->algorithm == Algorithm::Sha256 || provider->algorithm == Algorithm::Aes;
    if (!hasObjects || wcscmp(property, BCRYPT_OBJECT_LENGTH) != 0) {
        return statusNotSupported;
    }
    if (flags != 0) {
        return statusInvalidParameter;
    }
    const ULONG objectLength = provider->algorithm == Algorithm::Aes ? sizeof(KeyState) : sizeof(HashState);
    *resultLength = sizeof(objectLength);
    if (outputLength < sizeof(objectLength)) {
        return statusBufferTooSmall;
    }
    memcpy(output, &objectLength, sizeof(objectLength));
    return statusSuccess;
}

// ---- SHA-256 ----

extern "C" NTSTATUS BCryptCreateHash(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE *hash, PUCHAR hashObject,
                                     ULONG hashObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags)
{
    const auto *provider = static_cast<const Provider *>(algorithm);
    if (provider == nullptr) {
        return statusInvalidHandle;
    }
    if (provider->algorithm != Algorithm::Sha256 || secret != nullptr || secretLength != 0 || flags != 0) {
        return statusInvalidParameter;
    }
    if (hashObject == nullptr || hashObjectLength < sizeof(HashState)) {
        return statusBufferTooSmall;
    }
    if (Sha256() == nullptr) {
        return StatusOfMissing();
    }
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    if (context == nullptr || EVP_DigestInit_ex2(context, Sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context);
        return statusNoMemory;
    }
    *hash = new (hashObject) HashState{context};
    return statusSuccess;
}

extern "C" NTSTATUS BCryptHashData(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG inputLength, ULONG flags)
{
    const auto *state = static_cast<const HashState *>(hash);
    if (state == nullptr) {
        return statusInvalidHandle;
    }
    if (flags != 0) {
        return statusInvalidParameter;
    }
    return EVP_DigestUpdate(state->context, input, inputLength) == 1 ? statusSuccess : statusUnsuccessful;
}

extern "C" NTSTATUS BCryptFinishHash(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG outputLength, ULONG flags)
{
    const auto *state = static_cast<const HashState *>(hash);
    if (state == nullptr) {
        return statusInvalidHandle;
    }
    if (outputLength != digestLength || flags != 0) {
        return statusInvalidParameter;
    }
    return EVP_DigestFinal_ex(state->context, output, nullptr) == 1 ? statusSuccess : statusUnsuccessful;
}

extern "C" NTSTATUS BCryptDestroyHash(BCRYPT_HASH_HANDLE hash)
{
    const auto *state = static_cast<const HashState *>(hash);
    if (state == nullptr) {
        return statusInvalidHandle;
    }
    EVP_MD_CTX_free(state->context);
    return statusSuccess;
}

// ---- PBKDF2 ----

static NTSTATUS DerivePbkdf2(const UCHAR *password, ULONG passwordLength, const UCHAR *salt, ULONG saltLength,
                             ULONGLONG iterations, UCHAR *derivedKey, ULONG derivedKeyLength)
{
    char digestName[] = "SHA256";
    int skipsPolicy = 1; // short salts and low counts are the caller's to judge
    uint64_t count = iterations;
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, const_cast<UCHAR *>(password), passwordLength),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<UCHAR *>(salt), saltLength),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_ITER, &count),
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digestName, 0),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &skipsPolicy),
        OSSL_PARAM_construct_end(),
    };
    EVP_KDF *kdf = EVP_KDF_fetch(nullptr, "PBKDF2", nullptr);
    if (kdf == nullptr) {
        return StatusOfMissing();
    }
    EVP_KDF_CTX *context = EVP_KDF_CTX_new(kdf);
    const bool derived = context != nullptr && EVP_KDF_derive(context, derivedKey, derivedKeyLength, params) == 1;
    EVP_KDF_CTX_free(context);
    EVP_KDF_free(kdf);
    return derived ? statusSuccess : statusUnsuccessful;
}

extern "C" NTSTATUS BCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                                          ULONG saltLength, ULONGLONG iterations, PUCHAR derivedKey,
                                          ULONG derivedKeyLength, ULONG flags)
{
    const auto *provider = static_cast<const Provider *>(prf);
    if (provider == nullptr) {
        return statusInvalidHandle;
    }
    if (provider->algorithm != Algorithm::HmacSha256 || iterations == 0 || derivedKeyLength == 0 || flags != 0) {
        return statusInvalidParameter;
    }
    return DerivePbkdf2(password, passwordLength, salt, saltLength, iterations, derivedKey, derivedKeyLength);
}

// ---- AES-256-GCM ----

extern "C" NTSTATUS BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE *key, PUCHAR keyObject,
                                               ULONG keyObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags)
{
    const auto *provider = static_cast<const Provider *>(algorithm);
    if (provider == nullptr) {
        return statusInvalidHandle;
    }
    if (provider->algorithm != Algorithm::Aes || !provider->isGcm || secretLength != aesKeyLength || flags != 0) {
        return statusInvalidParameter;
    }
    if (keyObject == nullptr || keyObjectLength < sizeof(KeyState)) {
        return statusBufferTooSmall;
    }
    if (Aes256Gcm() == nullptr) {
        return StatusOfMissing();
    }
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    if (context == nullptr) {
        return statusNoMemory;
    }
    auto *state = new (keyObject) KeyState{context, {}};
    memcpy(state->key, secret, aesKeyLength);
    *key = state;
    return statusSuccess;
}

extern "C" NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE key)
{
    auto *state = static_cast<KeyState *>(key);
    if (state == nullptr) {
        return statusInvalidHandle;
    }
    EVP_CIPHER_CTX_free(state->context);
    OPENSSL_cleanse(state->key, sizeof(state->key));
    return statusSuccess;
}

// Both directions take the same arguments in the same way.
static NTSTATUS CheckCipherCall(const KeyState *state, const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO *info,
                                const UCHAR *iv, ULONG inputLength, ULONG outputLength, ULONG flags)
{
    if (state == nullptr) {
        return statusInvalidHandle;
    }
    if (info == nullptr || info->cbSize != sizeof(*info) ||
        info->dwInfoVersion != BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION || info->pbNonce == nullptr ||
        info->cbNonce != gcmNonceLength || info->pbTag == nullptr || info->cbTag != gcmTagLength ||
        info->cbAuthData != 0 || info->dwFlags != 0 || iv != nullptr || flags != 0) {
        return statusInvalidParameter;
    }
    return outputLength < inputLength ? statusBufferTooSmall : statusSuccess;
}

static bool RunCipher(const KeyState &state, const UCHAR *nonce, bool seals, const UCHAR *input, ULONG inputLength,
                      UCHAR *output)
{
    EVP_CIPHER_CTX *context = state.context;
    if (EVP_CipherInit_ex2(context, Aes256Gcm(), state.key, nonce, seals ? 1 : 0, nullptr) != 1) {
        return false;
    }
    for (ULONG done = 0; done < inputLength;) {
        const ULONG piece = std::min(inputLength - done, largestUpdate);
        int written = 0;
        if (EVP_CipherUpdate(context, output + done, &written, input + done, static_cast<int>(piece)) != 1) {
            return false;
        }
        done += piece;
    }
    return true;
}

extern "C" NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo, PUCHAR iv,
                                  ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength, ULONG flags)
{
    const auto *state = static_cast<const KeyState *>(key);
    auto *info = static_cast<BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO *>(paddingInfo);
    const NTSTATUS status = CheckCipherCall(state, info, iv, inputLength, outputLength, flags | ivLength);
    if (status != statusSuccess) {
        return status;
    }
    UCHAR nothing[gcmTagLength];
    int nothingLength = 0;
    if (!RunCipher(*state, info->pbNonce, true, input, inputLength, output) ||
        EVP_CipherFinal_ex(state->context, nothing, &nothingLength) != 1 ||
        EVP_CIPHER_CTX_ctrl(state->context, EVP_CTRL_AEAD_GET_TAG, gcmTagLength, info->pbTag) != 1) {
        return statusUnsuccessful;
    }
    *resultLength = inputLength;
    return statusSuccess;
}

extern "C" NTSTATUS BCryptDecrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo, PUCHAR iv,
                                  ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength, ULONG flags)
{
    const auto *state = static_cast<const KeyState *>(key);
    auto *info = static_cast<BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO *>(paddingInfo);
    const NTSTATUS status = CheckCipherCall(state, info, iv, inputLength, outputLength, flags | ivLength);
    if (status != statusSuccess) {
        return status;
    }
    UCHAR nothing[gcmTagLength];
    int nothingLength = 0;
    if (!RunCipher(*state, info->pbNonce, false, input, inputLength, output) ||
        EVP_CIPHER_CTX_ctrl(state->context, EVP_CTRL_AEAD_SET_TAG, gcmTagLength, info->pbTag) != 1) {
        return statusUnsuccessful;
    }
    if (EVP_CipherFinal_ex(state->context, nothing, &nothingLength) != 1) {
        return statusTagMismatch;
    }
    *resultLength = inputLength;
    return statusSuccess;
}

// ---- Random bytes ----

extern "C" NTSTATUS BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG bufferLength, ULONG flags)
{
    const auto *provider = static_cast<const Provider *>(algorithm);
    if (provider == nullptr) {
        return statusInvalidHandle;
    }
    if (provider->algorithm != Algorithm::Random || flags != 0 || bufferLength > largestUpdate) {
        return statusInvalidParameter;
    }
    if (RAND_get0_primary(nullptr) == nullptr) {
        return StatusOfMissing();
    }
    return RAND_bytes(buffer, static_cast<int>(bufferLength)) == 1 ? statusSuccess : statusUnsuccessful;
}
