// What the tests of the cryptographic calls share: statuses by their names, bytes in their spellings, and the objects
// behind the calls, each of which must come about and is given back when it goes.
#pragma once

#include <windows.h>

#include <bcrypt.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<UCHAR>;

constexpr uint32_t success = 0;
constexpr uint32_t invalidHandle = 0xC0000008;
constexpr uint32_t invalidParameter = 0xC000000D;
constexpr uint32_t bufferTooSmall = 0xC0000023;
constexpr uint32_t notSupported = 0xC00000BB;
constexpr uint32_t notFound = 0xC0000225;
constexpr uint32_t tagMismatch = 0xC000A002;

inline uint32_t Number(NTSTATUS status)
{
    return static_cast<uint32_t>(status);
}

inline Bytes FromHex(const std::string &hex)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<UCHAR>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

inline std::string ToHex(const Bytes &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (const UCHAR byte : bytes) {
        hex.push_back(digits[byte >> 4]);
        hex.push_back(digits[byte & 15]);
    }
    return hex;
}

inline Bytes FromText(const std::string &text)
{
    return Bytes(text.begin(), text.end());
}

inline ULONG Length(const Bytes &bytes)
{
    return static_cast<ULONG>(bytes.size());
}

struct Provider {
    explicit Provider(LPCWSTR id, ULONG flags = 0)
    {
        EXPECT_EQ(Number(BCryptOpenAlgorithmProvider(&handle, id, nullptr, flags)), success);
    }

    Provider(const Provider &) = delete;
    Provider &operator=(const Provider &) = delete;

    ~Provider()
    {
        EXPECT_EQ(Number(BCryptCloseAlgorithmProvider(handle, 0)), success);
    }

    Bytes MakeObject() const
    {
        ULONG objectLength = 0;
        ULONG resultLength = 0;
        EXPECT_EQ(Number(BCryptGetProperty(handle, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&objectLength),
                                           sizeof(objectLength), &resultLength, 0)),
                  success);
        EXPECT_EQ(resultLength, sizeof(objectLength));
        EXPECT_GT(objectLength, 0U);
        return Bytes(objectLength);
    }

    NTSTATUS SetMode(const void *mode, ULONG modeLength) const
    {
        return BCryptSetProperty(handle, BCRYPT_CHAINING_MODE, static_cast<PUCHAR>(const_cast<void *>(mode)),
                                 modeLength, 0);
    }

    BCRYPT_ALG_HANDLE handle = nullptr;
};

struct Hash {
    Hash() : provider(BCRYPT_SHA256_ALGORITHM), object(provider.MakeObject())
    {
        EXPECT_EQ(Number(BCryptCreateHash(provider.handle, &handle, object.data(), Length(object), nullptr, 0, 0)),
                  success);
    }

    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;

    ~Hash()
    {
        EXPECT_EQ(Number(BCryptDestroyHash(handle)), success);
    }

    void Add(Bytes bytes) const
    {
        EXPECT_EQ(Number(BCryptHashData(handle, bytes.data(), Length(bytes), 0)), success);
    }

    std::string Finish() const
    {
        Bytes digest(32);
        EXPECT_EQ(Number(BCryptFinishHash(handle, digest.data(), 32, 0)), success);
        return ToHex(digest);
    }

    Provider provider;
    Bytes object;
    BCRYPT_HASH_HANDLE handle = nullptr;
};

// A key in a provider of its own.
struct Key {
    explicit Key(const Bytes &raw) : provider(BCRYPT_AES_ALGORITHM)
    {
        EXPECT_EQ(Number(provider.SetMode(BCRYPT_CHAIN_MODE_GCM, sizeof(BCRYPT_CHAIN_MODE_GCM))), success);
        object = provider.MakeObject();
        Bytes secret = raw;
        EXPECT_EQ(Number(BCryptGenerateSymmetricKey(provider.handle, &handle, object.data(), Length(object),
                                                    secret.data(), Length(secret), 0)),
                  success);
    }

    Key(const Key &) = delete;
    Key &operator=(const Key &) = delete;

    ~Key()
    {
        EXPECT_EQ(Number(BCryptDestroyKey(handle)), success);
    }

    Provider provider;
    Bytes object;
    BCRYPT_KEY_HANDLE handle = nullptr;
};

struct Sealed {
    Bytes nonce;
    Bytes cipher;
    Bytes tag;
};

inline BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO ModeInfo(Sealed &sealed)
{
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = {};
    info.cbSize = sizeof(info);
    info.dwInfoVersion = BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO_VERSION;
    info.pbNonce = sealed.nonce.data();
    info.cbNonce = Length(sealed.nonce);
    info.pbTag = sealed.tag.data();
    info.cbTag = Length(sealed.tag);
    return info;
}
