// What the cryptographic calls of the port refuse, and with which status, where implementations of the calls differ:
// lengths that another may overlook, and the number for what is unknown. The statuses are those of Windows.
#include "crypto_calls.h"

#include <cstdlib>
#include <openssl/provider.h>
#include <sys/resource.h>
#include <unistd.h>

TEST(Sha256OfThePort, RefusesAnObjectThatIsTooSmall)
{
    const Provider provider(BCRYPT_SHA256_ALGORITHM);
    Bytes object = provider.MakeObject();
    BCRYPT_HASH_HANDLE hash = nullptr;
    EXPECT_EQ(Number(BCryptCreateHash(provider.handle, &hash, object.data(), 1, nullptr, 0, 0)), bufferTooSmall);
    EXPECT_EQ(hash, nullptr);
    EXPECT_EQ(Number(BCryptDestroyHash(nullptr)), invalidHandle);
}

TEST(AesGcmOfThePort, RefusesARecordThatItDoesNotKnow)
{
    const Key key(Bytes(32));
    Bytes plain(20);
    Bytes cipher(20);
    ULONG resultLength = 0;
    Sealed sealed = {Bytes(12), {}, Bytes(16)};
    const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO good = ModeInfo(sealed);
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO bad[] = {good, good, good};
    bad[0].cbSize = sizeof(good) - 1;
    bad[1].dwInfoVersion = 2;
    bad[2].cbNonce = 11;
    for (BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO &info : bad) {
        EXPECT_EQ(
            Number(BCryptEncrypt(key.handle, plain.data(), 20, &info, nullptr, 0, cipher.data(), 20, &resultLength, 0)),
            invalidParameter);
        EXPECT_EQ(
            Number(BCryptDecrypt(key.handle, plain.data(), 20, &info, nullptr, 0, cipher.data(), 20, &resultLength, 0)),
            invalidParameter);
    }
    EXPECT_EQ(cipher, Bytes(20));
}

TEST(AesGcmOfThePort, RefusesAKeyThatIsTooLongOrHasNoRoom)
{
    const Provider provider(BCRYPT_AES_ALGORITHM);
    ASSERT_EQ(Number(provider.SetMode(BCRYPT_CHAIN_MODE_GCM, sizeof(BCRYPT_CHAIN_MODE_GCM))), success);
    Bytes object = provider.MakeObject();
    Bytes secret(33);
    BCRYPT_KEY_HANDLE key = nullptr;
    const auto make = [&](ULONG objectLength, ULONG secretLength) {
        return Number(BCryptGenerateSymmetricKey(provider.handle, &key, object.data(), objectLength, secret.data(),
                                                 secretLength, 0));
    };
    EXPECT_EQ(make(Length(object), 33), invalidParameter);
    EXPECT_EQ(make(1, 32), bufferTooSmall);
    EXPECT_EQ(key, nullptr);
}

TEST(ProvidersOfThePort, TellApartWhatTheyRefuse)
{
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    for (const LPCWSTR id : {L"", L"SHA2", L"SHA2567", L"aesx", L"ROT13"}) {
        EXPECT_EQ(Number(BCryptOpenAlgorithmProvider(&algorithm, id, nullptr, 0)), notFound);
    }
    EXPECT_EQ(Number(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, L"No Such Provider", 0)), notFound);
    for (const LPCWSTR id : {BCRYPT_SHA256_ALGORITHM, BCRYPT_AES_ALGORITHM, BCRYPT_RNG_ALGORITHM}) {
        EXPECT_EQ(Number(BCryptOpenAlgorithmProvider(&algorithm, id, nullptr, 0x40000000)), invalidParameter);
    }
    const Provider provider(BCRYPT_AES_ALGORITHM);
    UCHAR value[64] = {};
    ULONG resultLength = 0;
    EXPECT_EQ(Number(BCryptGetProperty(provider.handle, L"NoSuchProperty", value, sizeof(value), &resultLength, 0)),
              notSupported);
    EXPECT_EQ(Number(BCryptSetProperty(provider.handle, L"NoSuchProperty", value, sizeof(value), 0)), notSupported);
}

static bool IsNotSupported(NTSTATUS status)
{
    return Number(status) == notSupported;
}

// How many of the calls that need an algorithm say that it is not supported, where libcrypto has a provider without
// any.
static int CallsThatAreNotSupported()
{
    OSSL_PROVIDER *const empty = OSSL_PROVIDER_load(nullptr, "null");
    const Provider digest(BCRYPT_SHA256_ALGORITHM);
    const Provider hmac(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    const Provider cipher(BCRYPT_AES_ALGORITHM);
    const Provider random(BCRYPT_RNG_ALGORITHM);
    cipher.SetMode(BCRYPT_CHAIN_MODE_GCM, sizeof(BCRYPT_CHAIN_MODE_GCM));
    Bytes object = digest.MakeObject();
    Bytes keyObject = cipher.MakeObject();
    Bytes bytes(32);
    UCHAR *const some = bytes.data();
    BCRYPT_HASH_HANDLE hash = nullptr;
    BCRYPT_KEY_HANDLE key = nullptr;
    return empty == nullptr
               ? -1
               : IsNotSupported(BCryptCreateHash(digest.handle, &hash, object.data(), Length(object), nullptr, 0, 0)) +
                     IsNotSupported(BCryptDeriveKeyPBKDF2(hmac.handle, some, 8, some, 16, 1, some, 32, 0)) +
                     IsNotSupported(BCryptGenerateSymmetricKey(cipher.handle, &key, keyObject.data(), Length(keyObject),
                                                               some, 32, 0)) +
                     IsNotSupported(BCryptGenRandom(random.handle, some, 32, 0));
}

// In a process of its own, since an algorithm that was found once stays.
TEST(AlgorithmsOfThePortDeathTest, ThatAreNotThereAreNotSupported)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(_exit(CallsThatAreNotSupported()), testing::ExitedWithCode(4), "");
}

// The process gets no more memory from before libcrypto is asked for the first time. What little it has left is not
// taken as well: libcrypto itself dies of that when it begins.
static int StatusWithoutMemory()
{
    const Provider digest(BCRYPT_SHA256_ALGORITHM);
    Bytes object = digest.MakeObject();
    BCRYPT_HASH_HANDLE hash = nullptr;
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_AS, &none);
    return Number(BCryptCreateHash(digest.handle, &hash, object.data(), Length(object), nullptr, 0, 0)) == 0xC0000017
               ? 1
               : 2;
}

TEST(AlgorithmsOfThePortDeathTest, ThatFindNoMemoryAreNotToldAsMissing)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(_exit(StatusWithoutMemory()), testing::ExitedWithCode(1), "");
}
