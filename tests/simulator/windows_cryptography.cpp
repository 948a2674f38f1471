// The cryptography behind hand-made images, from the system's own library.
//
// It is what the program calls too, in another way: one key, one record and one call for everything. That its answers
// are right, the published test cases in simulator_test.cpp and tests/platform show.
#include "simulator/images.h"

#include "simulator/real_calls.h"

#include <algorithm>
#include <stdexcept>

namespace
{
void Require(NTSTATUS status, const char *what)
{
    if (!BCRYPT_SUCCESS(status)) {
        throw std::runtime_error(what);
    }
}

ULONG Count(size_t count)
{
    return static_cast<ULONG>(count);
}

PUCHAR Pointer(const uint8_t *start)
{
    return const_cast<PUCHAR>(start);
}

// A provider for as long as it is needed.
struct Provider {
    explicit Provider(LPCWSTR id, ULONG flags = 0)
    {
        Require(REAL(BCryptOpenAlgorithmProvider)(&handle, id, nullptr, flags), "opening a provider");
    }
    ~Provider()
    {
        REAL(BCryptCloseAlgorithmProvider)(handle, 0);
    }
    Provider(const Provider &) = delete;
    Provider &operator=(const Provider &) = delete;

    BCRYPT_ALG_HANDLE handle = nullptr;
};

// A key of AES in Galois counter mode.
struct Key {
    explicit Key(const std::array<uint8_t, 32> &secret)
    {
        wchar_t mode[] = BCRYPT_CHAIN_MODE_GCM;
        Require(REAL(BCryptSetProperty)(provider.handle, BCRYPT_CHAINING_MODE, reinterpret_cast<PUCHAR>(mode),
                                        sizeof(mode), 0),
                "setting the mode");
        Require(REAL(BCryptGenerateSymmetricKey)(provider.handle, &handle, nullptr, 0, Pointer(secret.data()),
                                                 Count(secret.size()), 0),
                "making a key");
    }
    ~Key()
    {
        REAL(BCryptDestroyKey)(handle);
    }
    Key(const Key &) = delete;
    Key &operator=(const Key &) = delete;

    Provider provider{BCRYPT_AES_ALGORITHM};
    BCRYPT_KEY_HANDLE handle = nullptr;
};

BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO ModeInfo(const std::array<uint8_t, 12> &nonce, uint8_t *tag)
{
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = {};
    BCRYPT_INIT_AUTH_MODE_INFO(info);
    info.pbNonce = Pointer(nonce.data());
    info.cbNonce = Count(nonce.size());
    info.pbTag = tag;
    info.cbTag = 16;
    return info;
}
} // namespace

std::array<uint8_t, 32> Sha256Of(const Bytes &bytes)
{
    const Provider provider(BCRYPT_SHA256_ALGORITHM);
    std::array<uint8_t, 32> digest = {};
    BCRYPT_HASH_HANDLE hash = nullptr;
    Require(REAL(BCryptCreateHash)(provider.handle, &hash, nullptr, 0, nullptr, 0, 0), "making a hash");
    const NTSTATUS added = REAL(BCryptHashData)(hash, Pointer(bytes.data()), Count(bytes.size()), 0);
    const NTSTATUS finished = REAL(BCryptFinishHash)(hash, digest.data(), Count(digest.size()), 0);
    REAL(BCryptDestroyHash)(hash);
    Require(added, "hashing");
    Require(finished, "finishing a hash");
    return digest;
}

std::array<uint8_t, 32> Pbkdf2Of(const std::string &password, const std::array<uint8_t, 16> &salt, uint32_t iterations)
{
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    std::array<uint8_t, 32> key = {};
    Bytes secret(password.begin(), password.end());
    Require(REAL(BCryptDeriveKeyPBKDF2)(provider.handle, secret.data(), Count(secret.size()), Pointer(salt.data()),
                                        Count(salt.size()), iterations, key.data(), Count(key.size()), 0),
            "deriving a key");
    return key;
}

Bytes Seal(const std::array<uint8_t, 32> &key, const std::array<uint8_t, 12> &nonce, const Bytes &plain,
           std::array<uint8_t, 16> *tag)
{
    const Key sealing(key);
    Bytes cipher(plain.size());
    ULONG count = 0;
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = ModeInfo(nonce, tag->data());
    Require(REAL(BCryptEncrypt)(sealing.handle, Pointer(plain.data()), Count(plain.size()), &info, nullptr, 0,
                                cipher.data(), Count(cipher.size()), &count, 0),
            "sealing");
    return cipher;
}

bool Unseal(const std::array<uint8_t, 32> &key, const std::array<uint8_t, 12> &nonce, const Bytes &cipher,
            const std::array<uint8_t, 16> &tag, Bytes *plain)
{
    const Key opening(key);
    std::array<uint8_t, 16> expected = tag;
    plain->assign(cipher.size(), 0);
    ULONG count = 0;
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = ModeInfo(nonce, expected.data());
    return BCRYPT_SUCCESS(REAL(BCryptDecrypt)(opening.handle, Pointer(cipher.data()), Count(cipher.size()), &info,
                                              nullptr, 0, plain->data(), Count(plain->size()), &count, 0));
}
