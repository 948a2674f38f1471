// The cryptography behind hand-made images, from libcrypto.
#include "simulator/images.h"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

namespace
{
void Require(bool condition, const char *what)
{
    if (!condition) {
        throw std::runtime_error(what);
    }
}

int Int(size_t count)
{
    return static_cast<int>(count);
}

struct FreeCipher {
    void operator()(EVP_CIPHER_CTX *context) const
    {
        EVP_CIPHER_CTX_free(context);
    }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipher>;
} // namespace

std::array<uint8_t, 32> Sha256Of(const Bytes &bytes)
{
    std::array<uint8_t, 32> digest = {};
    Require(EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1, "EVP_Digest");
    return digest;
}

std::array<uint8_t, 32> Pbkdf2Of(const std::string &password, const std::array<uint8_t, 16> &salt, uint32_t iterations)
{
    std::array<uint8_t, 32> key = {};
    Require(PKCS5_PBKDF2_HMAC(password.data(), Int(password.size()), salt.data(), Int(salt.size()),
                              static_cast<int>(iterations), EVP_sha256(), Int(key.size()), key.data()) == 1,
            "PKCS5_PBKDF2_HMAC");
    return key;
}

Bytes Seal(const std::array<uint8_t, 32> &key, const std::array<uint8_t, 12> &nonce, const Bytes &plain,
           std::array<uint8_t, 16> *tag)
{
    const CipherContext context(EVP_CIPHER_CTX_new());
    Bytes cipher(plain.size());
    int count = 0;
    const bool sealed = EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce.data()) == 1 &&
                        EVP_EncryptUpdate(context.get(), cipher.data(), &count, plain.data(), Int(plain.size())) == 1 &&
                        EVP_EncryptFinal_ex(context.get(), cipher.data() + count, &count) == 1 &&
                        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, Int(tag->size()), tag->data()) == 1;
    Require(sealed, "sealing");
    return cipher;
}

bool Unseal(const std::array<uint8_t, 32> &key, const std::array<uint8_t, 12> &nonce, const Bytes &cipher,
            const std::array<uint8_t, 16> &tag, Bytes *plain)
{
    const CipherContext context(EVP_CIPHER_CTX_new());
    std::array<uint8_t, 16> expected = tag;
    plain->assign(cipher.size(), 0);
    int count = 0;
    const bool begun =
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce.data()) == 1 &&
        EVP_DecryptUpdate(context.get(), plain->data(), &count, cipher.data(), Int(cipher.size())) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, Int(expected.size()), expected.data()) == 1;
    Require(begun, "opening");
    return EVP_DecryptFinal_ex(context.get(), plain->data() + count, &count) == 1;
}
