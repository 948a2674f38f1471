// The cryptographic calls against published answers: FIPS 180-4 for SHA-256, RFC 7914 section 11 for
// PBKDF2-HMAC-SHA256, and the test cases that came with the submission of GCM (McGrew and Viega, 13 to 15) for
// AES-256-GCM. Then what they refuse wherever they run.
#include "crypto_calls.h"

#include <cstring>
#include <set>

// ---- SHA-256 ----

TEST(Sha256, GivesThePublishedDigests)
{
    const struct {
        std::string message;
        const char *digest;
    } cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto &known : cases) {
        const Hash hash;
        hash.Add(FromText(known.message));
        EXPECT_EQ(hash.Finish(), known.digest) << known.message.substr(0, 60);
    }
}

TEST(Sha256, GoesOnOverSeveralPieces)
{
    const Hash hash;
    hash.Add(FromText("a"));
    hash.Add({});
    hash.Add(FromText("bc"));
    EXPECT_EQ(hash.Finish(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256, KeepsTwoRunningDigestsApart)
{
    const Hash one;
    const Hash other;
    one.Add(FromText("a"));
    other.Add({});
    one.Add(FromText("bc"));
    EXPECT_EQ(other.Finish(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(one.Finish(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256, RefusesBadArguments)
{
    const Provider provider(BCRYPT_SHA256_ALGORITHM);
    Bytes object = provider.MakeObject();
    Bytes digest(33);
    BCRYPT_HASH_HANDLE hash = nullptr;
    EXPECT_EQ(Number(BCryptCreateHash(nullptr, &hash, object.data(), Length(object), nullptr, 0, 0)), invalidHandle);
    EXPECT_EQ(hash, nullptr);

    const Hash running;
    EXPECT_EQ(Number(BCryptFinishHash(running.handle, digest.data(), 31, 0)), invalidParameter);
    EXPECT_EQ(Number(BCryptFinishHash(running.handle, digest.data(), 33, 0)), invalidParameter);
    EXPECT_EQ(Number(BCryptHashData(nullptr, digest.data(), 1, 0)), invalidHandle);
    EXPECT_EQ(Number(BCryptFinishHash(nullptr, digest.data(), 32, 0)), invalidHandle);
    EXPECT_FALSE(BCRYPT_SUCCESS(BCryptDestroyHash(nullptr)));
    EXPECT_EQ(digest, Bytes(33));
}

// ---- PBKDF2 ----

static NTSTATUS Derive(const Provider &provider, const std::string &password, const std::string &salt,
                       ULONGLONG iterations, Bytes &key)
{
    Bytes passwordBytes = FromText(password);
    Bytes saltBytes = FromText(salt);
    return BCryptDeriveKeyPBKDF2(provider.handle, passwordBytes.data(), Length(passwordBytes), saltBytes.data(),
                                 Length(saltBytes), iterations, key.data(), Length(key), 0);
}

TEST(Pbkdf2, GivesThePublishedKeysAtBothLengths)
{
    const struct {
        const char *password;
        const char *salt;
        ULONGLONG iterations;
        std::string key;
    } cases[] = {
        {"passwd", "salt", 1,
         "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
         "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783"},
        {"Password", "NaCl", 80000,
         "4ddcd8f60b98be21830cee5ef22701f9641a4418d04c0414aeff08876b34ab56"
         "a1d425a1225833549adb841b51c9b3176a272bdebba1d078478f62b397f33c8d"},
    };
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    for (const auto &known : cases) {
        for (const size_t keyLength : {size_t{32}, size_t{64}}) {
            Bytes key(keyLength);
            EXPECT_EQ(Number(Derive(provider, known.password, known.salt, known.iterations, key)), success);
            EXPECT_EQ(ToHex(key), known.key.substr(0, keyLength * 2)) << known.password << " " << keyLength;
        }
    }
}

TEST(Pbkdf2, TakesEachByteOfThePasswordAsItIs)
{
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    std::set<Bytes> keys;
    for (const std::string &password :
         {std::string("a"), std::string("a\0b", 3), std::string("a\0c", 3), std::string("a\xFF"), std::string("A")}) {
        Bytes key(32);
        EXPECT_EQ(Number(Derive(provider, password, "sixteen bytes ..", 2, key)), success);
        keys.insert(key);
    }
    EXPECT_EQ(keys.size(), 5U);
}

TEST(Pbkdf2, RefusesBadArguments)
{
    const Provider provider(BCRYPT_SHA256_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    Bytes key(32);
    UCHAR text[] = {'x'};
    EXPECT_EQ(Number(Derive(provider, "x", "y", 0, key)), invalidParameter);
    EXPECT_EQ(Number(BCryptDeriveKeyPBKDF2(nullptr, text, 1, text, 1, 1, key.data(), 32, 0)), invalidHandle);
    EXPECT_EQ(key, Bytes(32));
}

// ---- AES-256-GCM ----

static Sealed Seal(const Key &key, const Bytes &nonce, Bytes plain)
{
    Sealed sealed = {nonce, Bytes(plain.size()), Bytes(16)};
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = ModeInfo(sealed);
    ULONG resultLength = 0xEEEEEEEE;
    EXPECT_EQ(Number(BCryptEncrypt(key.handle, plain.data(), Length(plain), &info, nullptr, 0, sealed.cipher.data(),
                                   Length(sealed.cipher), &resultLength, 0)),
              success);
    EXPECT_EQ(resultLength, Length(plain));
    return sealed;
}

static uint32_t Open(const Key &key, Sealed sealed, Bytes *plain)
{
    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = ModeInfo(sealed);
    ULONG resultLength = 0;
    plain->assign(sealed.cipher.size(), 0);
    return Number(BCryptDecrypt(key.handle, sealed.cipher.data(), Length(sealed.cipher), &info, nullptr, 0,
                                plain->data(), Length(*plain), &resultLength, 0));
}

struct GcmVector {
    std::string key;
    std::string nonce;
    std::string plain;
    std::string cipher;
    std::string tag;
};

static const std::string zeroKey(64, '0');
static const GcmVector gcmVectors[] = {
    {zeroKey, std::string(24, '0'), "", "", "530f8afbc74536b9a963b4f1c4cb738b"},
    {zeroKey, std::string(24, '0'), std::string(32, '0'), "cea7403d4d606b6e074ec5d3baf39d18",
     "d0d1c8a799996bf0265b98b5d48ab919"},
    {"feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888",
     "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
     "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255",
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
     "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad",
     "b094dac5d93471bdec1a502270e3cc6c"},
};

TEST(AesGcm, SealsToThePublishedCiphertextAndTag)
{
    for (const GcmVector &known : gcmVectors) {
        const Key key(FromHex(known.key));
        const Sealed sealed = Seal(key, FromHex(known.nonce), FromHex(known.plain));
        EXPECT_EQ(ToHex(sealed.cipher), known.cipher);
        EXPECT_EQ(ToHex(sealed.tag), known.tag);
    }
}

TEST(AesGcm, OpensThePublishedCiphertext)
{
    for (const GcmVector &known : gcmVectors) {
        const Key key(FromHex(known.key));
        Bytes plain;
        EXPECT_EQ(Open(key, {FromHex(known.nonce), FromHex(known.cipher), FromHex(known.tag)}, &plain), success);
        EXPECT_EQ(ToHex(plain), known.plain);
    }
}

TEST(AesGcm, OneKeySealsAndOpensInAnyOrder)
{
    const Key key(Bytes(32, 7));
    const Bytes first(5, 1);
    const Bytes second(70000, 2);
    const Sealed sealedFirst = Seal(key, Bytes(12, 1), first);
    const Sealed sealedSecond = Seal(key, Bytes(12, 2), second);
    Bytes plain;
    EXPECT_EQ(Open(key, sealedFirst, &plain), success);
    EXPECT_EQ(plain, first);
    EXPECT_EQ(ToHex(Seal(key, Bytes(12, 1), first).tag), ToHex(sealedFirst.tag));
    EXPECT_EQ(Open(key, sealedSecond, &plain), success);
    EXPECT_EQ(plain, second);
}

TEST(AesGcm, TwoKeysOfTheSameBytesOpenEachOthersSeals)
{
    const Key one(Bytes(32, 9));
    const Key other(Bytes(32, 9));
    Bytes plain;
    EXPECT_EQ(Open(other, Seal(one, Bytes(12, 3), Bytes(100, 4)), &plain), success);
    EXPECT_EQ(plain, Bytes(100, 4));
}

static void ExpectEachFlippedBitRefused(const Key &key, Sealed &sealed, Bytes &field, const char *name)
{
    Bytes plain;
    for (size_t bit = 0; bit < field.size() * 8; ++bit) {
        const auto mask = static_cast<UCHAR>(1U << (bit % 8));
        field[bit / 8] ^= mask;
        EXPECT_EQ(Open(key, sealed, &plain), tagMismatch) << name << " bit " << bit;
        field[bit / 8] ^= mask;
    }
    EXPECT_EQ(Open(key, sealed, &plain), success) << name;
}

TEST(AesGcm, AnyAlteredBitOfTagNonceOrCiphertextIsRefused)
{
    const GcmVector &known = gcmVectors[2];
    const Key key(FromHex(known.key));
    Sealed sealed = {FromHex(known.nonce), FromHex(known.cipher), FromHex(known.tag)};
    ExpectEachFlippedBitRefused(key, sealed, sealed.tag, "tag");
    ExpectEachFlippedBitRefused(key, sealed, sealed.nonce, "nonce");
    ExpectEachFlippedBitRefused(key, sealed, sealed.cipher, "ciphertext");
}

TEST(AesGcm, AnyAlteredBitOfTheKeyIsRefused)
{
    const GcmVector &known = gcmVectors[2];
    for (size_t bit = 0; bit < 256; ++bit) {
        Bytes raw = FromHex(known.key);
        raw[bit / 8] = static_cast<UCHAR>(raw[bit / 8] ^ (1U << (bit % 8)));
        const Key key(raw);
        Bytes plain;
        EXPECT_EQ(Open(key, {FromHex(known.nonce), FromHex(known.cipher), FromHex(known.tag)}, &plain), tagMismatch)
            << bit;
    }
}

TEST(AesGcm, AShortenedCiphertextIsRefused)
{
    const Key key(Bytes(32, 5));
    Sealed sealed = Seal(key, Bytes(12, 1), Bytes(33, 6));
    sealed.cipher.pop_back();
    Bytes plain;
    EXPECT_EQ(Open(key, sealed, &plain), tagMismatch);
}

TEST(AesGcm, RefusesBadArguments)
{
    const Key key(Bytes(32));
    Bytes plain(20);
    Bytes cipher(20);
    ULONG resultLength = 0;
    const auto statuses = [&](const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO &given, ULONG outputLength,
                              BCRYPT_KEY_HANDLE handle) {
        BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = given;
        const NTSTATUS sealing = BCryptEncrypt(handle, plain.data(), Length(plain), &info, nullptr, 0, cipher.data(),
                                               outputLength, &resultLength, 0);
        const NTSTATUS opening = BCryptDecrypt(handle, plain.data(), Length(plain), &info, nullptr, 0, cipher.data(),
                                               outputLength, &resultLength, 0);
        EXPECT_EQ(Number(sealing), Number(opening));
        return Number(sealing);
    };
    Sealed sealed = {Bytes(12), {}, Bytes(16)};
    const BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO good = ModeInfo(sealed);
    EXPECT_EQ(statuses(good, 20, nullptr), invalidHandle);
    EXPECT_EQ(statuses(good, 19, key.handle), bufferTooSmall);

    BCRYPT_AUTHENTICATED_CIPHER_MODE_INFO info = good;
    info.pbNonce = nullptr;
    EXPECT_EQ(statuses(info, 20, key.handle), invalidParameter);
    info = good;
    info.cbTag = 17;
    EXPECT_EQ(statuses(info, 20, key.handle), invalidParameter);
    info = good;
    info.pbTag = nullptr;
    EXPECT_EQ(statuses(info, 20, key.handle), invalidParameter);
    EXPECT_EQ(cipher, Bytes(20));
}

TEST(AesGcm, RefusesAKeyThatItCannotMake)
{
    const Provider provider(BCRYPT_AES_ALGORITHM);
    ASSERT_EQ(Number(provider.SetMode(BCRYPT_CHAIN_MODE_GCM, sizeof(BCRYPT_CHAIN_MODE_GCM))), success);
    Bytes object = provider.MakeObject();
    Bytes secret(32);
    BCRYPT_KEY_HANDLE key = nullptr;
    const auto make = [&](BCRYPT_ALG_HANDLE algorithm, ULONG secretLength) {
        return Number(
            BCryptGenerateSymmetricKey(algorithm, &key, object.data(), Length(object), secret.data(), secretLength, 0));
    };
    EXPECT_EQ(make(nullptr, 32), invalidHandle);
    EXPECT_EQ(make(provider.handle, 31), invalidParameter);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(Number(BCryptDestroyKey(nullptr)), invalidHandle);
}

// ---- Providers and random bytes ----

TEST(Providers, UnknownAlgorithmsAreRefused)
{
    for (const LPCWSTR id : {L"", L"SHA2", L"SHA2567", L"aesx", L"ROT13"}) {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        EXPECT_FALSE(BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&algorithm, id, nullptr, 0)));
        EXPECT_EQ(algorithm, nullptr);
    }
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    EXPECT_FALSE(BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, L"No Such Provider", 0)));
}

TEST(Providers, UnknownFlagsAreRefused)
{
    for (const LPCWSTR id : {BCRYPT_SHA256_ALGORITHM, BCRYPT_AES_ALGORITHM, BCRYPT_RNG_ALGORITHM}) {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        EXPECT_FALSE(BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&algorithm, id, nullptr, 0x40000000)));
        EXPECT_EQ(algorithm, nullptr);
    }
}

TEST(Providers, AnAbsentHandleIsInvalid)
{
    ULONG length = 0;
    ULONG resultLength = 0;
    UCHAR byte = 0;
    EXPECT_EQ(Number(BCryptCloseAlgorithmProvider(nullptr, 0)), invalidHandle);
    EXPECT_EQ(Number(BCryptSetProperty(nullptr, BCRYPT_CHAINING_MODE, &byte, 1, 0)), invalidHandle);
    EXPECT_EQ(Number(BCryptGetProperty(nullptr, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof(length),
                                       &resultLength, 0)),
              invalidHandle);
    EXPECT_EQ(Number(BCryptGenRandom(nullptr, &byte, 1, 0)), invalidHandle);
}

TEST(Providers, AnObjectLengthNeedsRoomForFourBytes)
{
    for (const LPCWSTR id : {BCRYPT_SHA256_ALGORITHM, BCRYPT_AES_ALGORITHM}) {
        const Provider provider(id);
        UCHAR room[4] = {0xEE, 0xEE, 0xEE, 0xEE};
        ULONG resultLength = 0;
        EXPECT_EQ(Number(BCryptGetProperty(provider.handle, BCRYPT_OBJECT_LENGTH, room, 3, &resultLength, 0)),
                  bufferTooSmall);
        EXPECT_EQ(resultLength, 4U);
        EXPECT_EQ(Bytes(room, room + 4), Bytes(4, 0xEE));
    }
}

TEST(Providers, UnknownPropertiesAreRefused)
{
    const Provider provider(BCRYPT_AES_ALGORITHM);
    UCHAR value[64] = {};
    ULONG resultLength = 0;
    EXPECT_FALSE(
        BCRYPT_SUCCESS(BCryptGetProperty(provider.handle, L"NoSuchProperty", value, sizeof(value), &resultLength, 0)));
    EXPECT_FALSE(BCRYPT_SUCCESS(BCryptSetProperty(provider.handle, L"NoSuchProperty", value, sizeof(value), 0)));
}

TEST(RandomBytes, FillTheBufferAndNothingBesides)
{
    const Provider provider(BCRYPT_RNG_ALGORITHM);
    // A byte that random bytes left alone eight times over would be one chance in 2 to the power 64.
    std::vector<bool> changed(1000);
    for (int round = 0; round < 8; ++round) {
        Bytes buffer(1002, 0xEE);
        ASSERT_EQ(Number(BCryptGenRandom(provider.handle, buffer.data() + 1, 1000, 0)), success);
        EXPECT_EQ(buffer.front(), 0xEE);
        EXPECT_EQ(buffer.back(), 0xEE);
        for (size_t i = 0; i < changed.size(); ++i) {
            changed[i] = changed[i] || buffer[i + 1] != 0xEE;
        }
    }
    EXPECT_EQ(changed, std::vector<bool>(1000, true));
}

TEST(RandomBytes, NeverRepeat)
{
    const Provider provider(BCRYPT_RNG_ALGORITHM);
    std::set<Bytes> nonces;
    for (int i = 0; i < 1000; ++i) {
        Bytes nonce(12);
        ASSERT_EQ(Number(BCryptGenRandom(provider.handle, nonce.data(), Length(nonce), 0)), success);
        nonces.insert(nonce);
    }
    EXPECT_EQ(nonces.size(), 1000U);
}

TEST(RandomBytes, NoneMayBeAskedFor)
{
    const Provider provider(BCRYPT_RNG_ALGORITHM);
    UCHAR byte = 0xEE;
    EXPECT_EQ(Number(BCryptGenRandom(provider.handle, &byte, 0, 0)), success);
    EXPECT_EQ(byte, 0xEE);
}
