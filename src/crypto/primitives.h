// The cryptography of Kestrix over the platform's Cryptography API: SHA-256 (FIPS 180-4), PBKDF2 with HMAC-SHA-256
// (RFC 8018), AES-256-GCM (SP 800-38D) with 12-byte nonces, 16-byte tags and no additional data, and random bytes.
// Where a failure is called fatal, the line carries the name of the failed call and its NTSTATUS.
#pragma once

#include <windows.h>

#include <bcrypt.h>

#include <cstdint>
#include <string>
#include <vector>

constexpr uint32_t digestBytes = 32;
constexpr uint32_t keyBytes = 32;
constexpr uint32_t saltBytes = 16;
constexpr uint32_t nonceBytes = 12;
constexpr uint32_t tagBytes = 16;

// Owns one AES-256-GCM key and the provider opened for it. Move-only: a moved-from key is empty and its end makes no
// call. The raw key bytes stay the caller's, who wipes them. Construction from keyBytes bytes is fatal on failure.
struct GcmKey {
    explicit GcmKey(const uint8_t *rawKey);
    GcmKey(GcmKey &&other) noexcept;
    GcmKey &operator=(GcmKey &&other) noexcept;
    ~GcmKey();

    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_KEY_HANDLE keyHandle = nullptr;
    std::vector<uint8_t> keyObject; // the key's working memory; must not move while keyHandle lives
};

// Digest of length bytes into the 32 bytes at digest. The platform takes the length in 32 bits. Fatal on failure.
void Sha256Buffer(const void *data, uint64_t length, uint8_t *digest);

// 32 key bytes from a password and a 16-byte salt. Fatal on failure, which is also the platform's answer to a count it
// does not take.
void DeriveKey(const std::string &password, const uint8_t *salt, uint32_t iterations, uint8_t *key);

// Seals length bytes of plain into length bytes of cipher, another buffer, and writes the 16-byte tag. Fatal on
// failure.
void SealChunk(const GcmKey &key, const uint8_t *plain, uint32_t length, const uint8_t *nonce, uint8_t *cipher,
               uint8_t *tag);

// Opens length bytes of cipher into length bytes of plain, another buffer. False on any failure, a tag that doesn't
// match above all: what stands in plain is then not to be used.
bool OpenChunk(const GcmKey &key, const uint8_t *cipher, uint32_t length, const uint8_t *nonce, const uint8_t *tag,
               uint8_t *plain);

// Fills buffer with length random bytes. Fatal on failure.
void RandomBytes(uint8_t *buffer, uint32_t length);
