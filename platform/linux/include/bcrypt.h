// The part of the published <bcrypt.h> that Kestrix uses: SHA-256, PBKDF2-HMAC-SHA256, AES-256-GCM and random bytes.
// A status below zero is a failure. Handles are the caller's, to be given back with the call that ends their kind.
#pragma once

#include "windows.h"

typedef LONG NTSTATUS;
typedef void *BCRYPT_HANDLE;
typedef void *BCRYPT_ALG_HANDLE;
typedef void *BCRYPT_KEY_HANDLE;
typedef void *BCRYPT_HASH_HANDLE;

#define BCRYPT_SUCCESS(status) ((status) >= 0)

#define BCRYPT_SHA256_ALGORITHM L"SHA256"
#define BCRYPT_AES_ALGORITHM L"AES"
#define BCRYPT_RNG_ALGORITHM L"RNG"
#define BCRYPT_OBJECT_LENGTH L"ObjectLength"
#define BCRYPT_CHAINING_MODE L"ChainingMode"
// A property's value is bytes, 16-bit units here as everywhere: 32 bytes with the terminator.
#define BCRYPT_CHAIN_MODE_GCM u"ChainingModeGCM"
#define BCRYPT_ALG_HANDLE_HMAC_FLAG 0x00000008U
#define BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION 1U

typedef struct _BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO {
    ULONG cbSize;
    ULONG dwInfoVersion;
    PUCHAR pbNonce;
    ULONG cbNonce;
    PUCHAR pbAuthData;
    ULONG cbAuthData;
    PUCHAR pbTag;
    ULONG cbTag;
    PUCHAR pbMacContext;
    ULONG cbMacContext;
    ULONG cbAAD;
    ULONGLONG cbData;
    ULONG dwFlags;
} BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO;

static_assert(sizeof(BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO) == 88, "the published size");

extern "C" {

// Opens a provider: SHA256 (flags 0, or the HMAC flag for PBKDF2), AES or RNG. implementation is null.
NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE *algorithm, LPCWSTR id, LPCWSTR implementation, ULONG flags);
NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags);

// Puts an AES provider into GCM mode, the one property that is ever set.
NTSTATUS BCryptSetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR input, ULONG inputLength, ULONG flags);

// Gives a provider's ObjectLength, the one property that is ever asked for.
NTSTATUS BCryptGetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR output, ULONG outputLength,
                           ULONG *resultLength, ULONG flags);

// FIPS 180-4. hashObject is the caller's memory of ObjectLength bytes and must stay until BCryptDestroyHash.
NTSTATUS BCryptCreateHash(BCRYPT_ALG_HANDLE algorithm, BCRYPT_HASH_HANDLE *hash, PUCHAR hashObject,
                          ULONG hashObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags);
NTSTATUS BCryptHashData(BCRYPT_HASH_HANDLE hash, PUCHAR input, ULONG inputLength, ULONG flags);
NTSTATUS BCryptFinishHash(BCRYPT_HASH_HANDLE hash, PUCHAR output, ULONG outputLength, ULONG flags);
NTSTATUS BCryptDestroyHash(BCRYPT_HASH_HANDLE hash);

// RFC 8018, with the HMAC of the provider's hash as pseudo-random function.
NTSTATUS BCryptDeriveKeyPBKDF2(BCRYPT_ALG_HANDLE prf, PUCHAR password, ULONG passwordLength, PUCHAR salt,
                               ULONG saltLength, ULONGLONG iterations, PUCHAR derivedKey, ULONG derivedKeyLength,
                               ULONG flags);

// Makes an AES key of secretLength bytes. keyObject is the caller's memory and must stay until BCryptDestroyKey.
NTSTATUS BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE *key, PUCHAR keyObject,
                                    ULONG keyObjectLength, PUCHAR secret, ULONG secretLength, ULONG flags);
NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE key);

// SP 800-38D in one call. paddingInfo is a BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO; a seal writes its tag, an open checks
// it and fails below zero when it does not match.
NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo, PUCHAR iv,
                       ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength, ULONG flags);
NTSTATUS BCryptDecrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputLength, void *paddingInfo, PUCHAR iv,
                       ULONG ivLength, PUCHAR output, ULONG outputLength, ULONG *resultLength, ULONG flags);

NTSTATUS BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG bufferLength, ULONG flags);

} // extern "C"
