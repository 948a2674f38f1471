// Digest, cipher and key derivation from libcrypto, in a library context of its own: what openssl.cnf or the
// environment says about algorithms and providers is for others.
#include "host/host.h"

#include <climits>
#include <new>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

namespace host
{

static constexpr size_t largestUpdate = size_t{1} << 30; // libcrypto counts in int

// Made at the first use, by one thread, and kept until the process ends.
struct Library {
    Library()
    {
        OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT, nullptr);
        context = OSSL_LIB_CTX_new();
        if (context != nullptr) {
            sha256 = EVP_MD_fetch(context, "SHA256", nullptr);
            aes = EVP_CIPHER_fetch(context, "AES-256-GCM", nullptr);
            pbkdf2 = EVP_KDF_fetch(context, "PBKDF2", nullptr);
        }
        if (sha256 == nullptr || aes == nullptr || pbkdf2 == nullptr) {
            throw std::bad_alloc();
        }
    }

    OSSL_LIB_CTX *context = nullptr;
    EVP_MD *sha256 = nullptr;
    EVP_CIPHER *aes = nullptr;
    EVP_KDF *pbkdf2 = nullptr;
};

static const Library &TheLibrary()
{
    static const Library library;
    return library;
}

// ---- SHA-256 ----

struct DigestState {
    EVP_MD_CTX *context = nullptr;
};

void EndDigestState::operator()(DigestState *state) const
{
    EVP_MD_CTX_free(state->context);
    delete state;
}

Digesting::Digesting() : state(new DigestState)
{
    state->context = EVP_MD_CTX_new();
    if (state->context == nullptr || EVP_DigestInit_ex2(state->context, TheLibrary().sha256, nullptr) != 1) {
        throw std::bad_alloc();
    }
}

void Digesting::Add(const void *data, size_t byteCount)
{
    if (EVP_DigestUpdate(state->context, data, byteCount) != 1) {
        throw std::bad_alloc();
    }
}

Digest Digesting::Finish()
{
    Digest digest = {};
    if (EVP_DigestFinal_ex(state->context, digest.data(), nullptr) != 1) {
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
    OPENSSL_cleanse(bytes.data(), bytes.size());
}

Trouble DeriveKey(const std::string &password, const uint8_t (&salt)[16], uint32_t iterations, Key *key)
{
    if (iterations == 0) {
        return "an iteration count of 0 is none";
    }
    char digestName[] = "SHA256";
    int skipsPolicy = 1; // low counts are the image's to have
    uint64_t count = iterations;
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PASSWORD, const_cast<char *>(password.data()),
                                          password.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<uint8_t *>(salt), sizeof(salt)),
        OSSL_PARAM_construct_uint64(OSSL_KDF_PARAM_ITER, &count),
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digestName, 0),
        OSSL_PARAM_construct_int(OSSL_KDF_PARAM_PKCS5, &skipsPolicy),
        OSSL_PARAM_construct_end(),
    };
    EVP_KDF_CTX *context = EVP_KDF_CTX_new(TheLibrary().pbkdf2);
    const bool derived =
        context != nullptr && EVP_KDF_derive(context, key->bytes.data(), key->bytes.size(), params) == 1;
    EVP_KDF_CTX_free(context);
    return derived ? Trouble() : "the key can't be derived";
}

// ---- AES-256-GCM ----

struct CipherState {
    EVP_CIPHER_CTX *context = nullptr;
};

void EndCipherState::operator()(CipherState *state) const
{
    EVP_CIPHER_CTX_free(state->context);
    delete state;
}

static std::unique_ptr<CipherState, EndCipherState> Begin(const Key &key, const uint8_t *nonce, bool seals)
{
    std::unique_ptr<CipherState, EndCipherState> state(new CipherState);
    state->context = EVP_CIPHER_CTX_new();
    if (state->context == nullptr ||
        EVP_CipherInit_ex2(state->context, TheLibrary().aes, key.bytes.data(), nonce, seals ? 1 : 0, nullptr) != 1) {
        throw std::bad_alloc();
    }
    return state;
}

static bool Update(const CipherState &state, uint8_t *piece, size_t byteCount)
{
    for (size_t done = 0; done < byteCount;) {
        const size_t step = byteCount - done < largestUpdate ? byteCount - done : largestUpdate;
        int written = 0;
        if (EVP_CipherUpdate(state.context, piece + done, &written, piece + done, static_cast<int>(step)) != 1) {
            return false;
        }
        done += step;
    }
    return true;
}

static bool Final(const CipherState &state)
{
    uint8_t nothing[16];
    int nothingLength = 0;
    return EVP_CipherFinal_ex(state.context, nothing, &nothingLength) == 1;
}

Opening::Opening(const Key &key, const uint8_t (&nonce)[12], const uint8_t (&tag)[16], uint64_t)
    : state(Begin(key, nonce, false))
{
    if (EVP_CIPHER_CTX_ctrl(state->context, EVP_CTRL_AEAD_SET_TAG, sizeof(tag), const_cast<uint8_t *>(tag)) != 1) {
        throw std::bad_alloc();
    }
}

bool Opening::Add(uint8_t *piece, size_t byteCount)
{
    return Update(*state, piece, byteCount);
}

bool Opening::Finish()
{
    return Final(*state);
}

Sealing::Sealing(const Key &key, const uint8_t (&nonce)[12], uint64_t) : state(Begin(key, nonce, true)) {}

bool Sealing::Add(uint8_t *piece, size_t byteCount)
{
    return Update(*state, piece, byteCount);
}

bool Sealing::Finish(uint8_t (&tag)[16])
{
    return Final(*state) && EVP_CIPHER_CTX_ctrl(state->context, EVP_CTRL_AEAD_GET_TAG, sizeof(tag), tag) == 1;
}

} // namespace host
