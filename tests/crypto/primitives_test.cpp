// The five operations: published vectors, the platform calls with their arguments, and what a failure of each call
// comes to.
//
// Known answers are those of FIPS 180-2 and NIST's SHA-256 examples, of RFC 7677 and of the GCM submission; no expected
// value comes from the program.
#include "crypto/primitives.h"

#include "crypto/known_bytes.h"

#include <functional>

namespace
{
const std::string abcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string emptyDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

Bytes DigestOf(const std::string &text)
{
    Bytes digest(32);
    Sha256Buffer(text.data(), text.size(), digest.data());
    return digest;
}

Bytes DerivedFrom(const std::string &password, const Bytes &salt, uint32_t iterations)
{
    Bytes key(32);
    DeriveKey(password, salt.data(), iterations, key.data());
    return key;
}

void DigestAbc()
{
    uint8_t digest[32];
    Sha256Buffer("abc", 3, digest);
}

void DeriveOnce()
{
    const uint8_t salt[16] = {};
    uint8_t key[32];
    DeriveKey("password", salt, 1, key);
}

void MakeOneKey()
{
    const GcmKey key(gcmKey.data());
}

void SealOnce()
{
    const GcmKey key(gcmKey.data());
    Bytes cipher(gcmPlain.size());
    uint8_t tag[16];
    SealChunk(key, gcmPlain.data(), 64, gcmNonce.data(), cipher.data(), tag);
}

void DrawOnce()
{
    uint8_t bytes[12];
    RandomBytes(bytes, sizeof(bytes));
}

// Opens what may be the published buffer, or have a bit turned in one of its pieces.
bool OpensWith(const std::array<uint8_t, 32> &rawKey, const std::array<uint8_t, 12> &nonce, const Bytes &cipher,
               const std::array<uint8_t, 16> &tag)
{
    const GcmKey key(rawKey.data());
    Bytes plain(cipher.size());
    return OpenChunk(key, cipher.data(), static_cast<uint32_t>(cipher.size()), nonce.data(), tag.data(), plain.data());
}

template <typename Piece>
Piece WithBitTurned(Piece piece, size_t bit)
{
    piece[bit / 8] = static_cast<uint8_t>(piece[bit / 8] ^ (1U << (bit % 8)));
    return piece;
}
} // namespace

TEST(Sha256Buffer, GivesThePublishedDigests)
{
    Machine machine;
    RunCode(machine, [] {
        EXPECT_EQ(DigestOf(""), FromHex(emptyDigest));
        EXPECT_EQ(DigestOf("abc"), FromHex(abcDigest));
        EXPECT_EQ(DigestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
                  FromHex("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"));
        EXPECT_EQ(DigestOf(std::string(1000000, 'a')),
                  FromHex("cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"));
        EXPECT_EQ(DigestOf(std::string("\xBD")),
                  FromHex("68325720aabd7c82f30f554b313d0570c95accbb7dc4b5aae11204c08ffe732b"));
    });
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST(Sha256Buffer, OpensAndClosesEverythingWithinEachCall)
{
    Machine machine;
    RunCode(machine, [] {
        DigestAbc();
        DigestAbc();
    });
    const auto expected = [](const std::string &n) {
        return "BCryptOpenAlgorithmProvider SHA256 flags=0x0 -> sha256#" + n + "\nBCryptGetProperty sha256#" + n +
               " ObjectLength 4\nBCryptCreateHash sha256#" + n + " -> hash#" + n + "\nBCryptHashData hash#" + n +
               " 3\nBCryptFinishHash hash#" + n + " 32\nBCryptDestroyHash hash#" + n +
               "\nBCryptCloseAlgorithmProvider sha256#" + n + "\n";
    };
    EXPECT_EQ(LogText(machine), expected("1") + expected("2"));
    for (const Call &call : machine.calls) {
        for (const char *field : {"flags", "implementation", "secretLength"}) {
            EXPECT_EQ(call.fields.count(field) == 0 ? 0 : Field(call, field), 0U) << call.text;
        }
    }
}

TEST(Sha256Buffer, LendsTheHashZeroedMemoryOfTheLengthThatTheProviderAsksFor)
{
    Machine machine;
    ULONG objectLength = 0;
    size_t zeros = 0;
    machine.onCall = [&](Machine &, const Call &call) {
        if (call.name == "BCryptGetProperty") {
            EXPECT_EQ(*static_cast<const ULONG *>(call.buffer), 0U);
        }
        if (call.name == "BCryptCreateHash") {
            objectLength = static_cast<ULONG>(Field(call, "length"));
            const auto *memory = static_cast<const uint8_t *>(call.buffer);
            zeros = static_cast<size_t>(std::count(memory, memory + objectLength, 0));
        }
    };
    RunCode(machine, DigestAbc);
    BCRYPT_ALG_HANDLE provider = nullptr;
    ULONG expected = 0;
    ULONG count = 0;
    ASSERT_EQ(BCryptOpenAlgorithmProvider(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, 0), 0);
    ASSERT_EQ(BCryptGetProperty(provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&expected), 4, &count, 0), 0);
    BCryptCloseAlgorithmProvider(provider, 0);
    EXPECT_EQ(objectLength, expected);
    EXPECT_EQ(zeros, expected);
}

TEST(Sha256Buffer, PassesTheWholeBufferInOneCallWithItsLengthIn32Bits)
{
    Machine machine;
    const std::string text(100000, 'x');
    RunCode(machine, [&text] { DigestOf(text); });
    ASSERT_EQ(CountCalls(machine, "BCryptHashData"), 1U);
    EXPECT_EQ(CallsOf(machine, "BCryptHashData")[0].buffer, text.data());
    RunCode(machine, [&text] {
        uint8_t digest[32];
        Sha256Buffer(text.data(), 0x700000003, digest);
    });
    EXPECT_EQ(CallsOf(machine, "BCryptHashData")[0].text, "BCryptHashData hash#1 3");
}

TEST(Sha256Buffer, LooksAtNoResultButThoseOfTheProviderAndTheHash)
{
    for (const char *name : {"BCryptGetProperty", "BCryptHashData", "BCryptFinishHash", "BCryptDestroyHash",
                             "BCryptCloseAlgorithmProvider"}) {
        Machine machine;
        FailCall(machine, name, 1, 0xC0000005).afterEffect = true;
        const RunResult result = RunCode(machine, [] { EXPECT_EQ(DigestOf("abc"), FromHex(abcDigest)); });
        EXPECT_EQ(result.exitStatus, 0) << name;
        EXPECT_EQ(machine.faultsFired, 1U) << name;
        EXPECT_EQ(machine.calls.back().name, "BCryptCloseAlgorithmProvider") << name;
    }
}

TEST(Sha256Buffer, GoesOnWithALengthOfZeroWhenTheProviderTellsNone)
{
    Machine machine;
    FailCall(machine, "BCryptGetProperty", 1, 0xC0000005);
    const RunResult result = RunCode(machine, DigestAbc);
    EXPECT_EQ(Field(CallsOf(machine, "BCryptCreateHash").at(0), "length"), 0U);
    ExpectFatal(result, "FATAL: BCryptCreateHash (NTSTATUS 0xC0000023)\n");
}

TEST(DeriveKey, GivesThePublishedKey)
{
    Machine machine;
    // The example of RFC 7677, section 3. The key is its SaltedPassword: HMAC-SHA-256 with it over "Server Key", and
    // with that over the exchange's text, gives the printed signature 6rriTRBi23WpRR/wtup+mMhUZUn/dB5nLTJRsjl95G4=.
    const Bytes salt = FromHex("5b6d99689d12358eeca04b141236fa81");
    RunCode(machine, [&salt] {
        EXPECT_EQ(DerivedFrom("pencil", salt, 4096),
                  FromHex("c4a49510323ab4f952cac1fa99441939e78ea74d6be81ddf7096e87513dc615d"));
    });
    EXPECT_EQ(LogText(machine), "BCryptOpenAlgorithmProvider SHA256 flags=0x8 -> hmac-sha256#1\n"
                                "BCryptDeriveKeyPBKDF2 hmac-sha256#1 password=6 salt=16 iterations=4096 length=32\n"
                                "BCryptCloseAlgorithmProvider hmac-sha256#1\n");
    EXPECT_EQ(CallsOf(machine, "BCryptDeriveKeyPBKDF2")[0].input, salt);
    EXPECT_EQ(Field(CallsOf(machine, "BCryptDeriveKeyPBKDF2")[0], "flags"), 0U);
}

TEST(DeriveKey, TakesThePasswordByteForByte)
{
    const std::array<uint8_t, 16> salt = {9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 255, 254, 253, 252, 251, 250};
    const std::string passwords[] = {"a",
                                     std::string("pass\0word", 9),
                                     std::string("\0", 1),
                                     "\xEF\xBB\xBFp\xC3\xA4",
                                     std::string(300, 'p'),
                                     "\xFF\xFE\x80"};
    Machine machine;
    RunCode(machine, [&] {
        for (const std::string &password : passwords) {
            const std::array<uint8_t, 32> expected = Pbkdf2Of(password, salt, 3);
            EXPECT_EQ(DerivedFrom(password, Bytes(salt.begin(), salt.end()), 3),
                      Bytes(expected.begin(), expected.end()));
        }
    });
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST(DeriveKey, HandsEveryIterationCountOnAsItStands)
{
    for (const uint32_t iterations : {0U, 1U, 200000U, 0x80000000U, 0xFFFFFFFFU}) {
        Machine machine;
        FailCall(machine, "BCryptDeriveKeyPBKDF2", 1, 0xC000000D);
        RunCode(machine, [iterations] { DerivedFrom("p", Bytes(16), iterations); });
        EXPECT_EQ(Field(CallsOf(machine, "BCryptDeriveKeyPBKDF2").at(0), "iterations"), iterations);
    }
}

TEST(DeriveKey, LeavesACountOfZeroToThePlatform)
{
    Machine machine;
    ExpectFatal(RunCode(machine, [] { DerivedFrom("p", Bytes(16), 0); }),
                "FATAL: BCryptDeriveKeyPBKDF2 (NTSTATUS 0xC000000D)\n");
}

TEST(DeriveKey, DoesNotLookAtTheClosing)
{
    Machine machine;
    FailCall(machine, "BCryptCloseAlgorithmProvider", 1, 0xC0000008);
    EXPECT_EQ(RunCode(machine, DeriveOnce).exitStatus, 0);
    EXPECT_EQ(machine.faultsFired, 1U);
}

TEST(SealChunk, GivesThePublishedCipherAndTagAndNotAByteMore)
{
    Machine machine;
    RunCode(machine, [] {
        const GcmKey key(gcmKey.data());
        Bytes cipher(gcmPlain.size() + 16, 0xEE);
        Bytes tag(16 + 16, 0xEE);
        SealChunk(key, gcmPlain.data(), 64, gcmNonce.data(), cipher.data(), tag.data());
        EXPECT_EQ(Bytes(cipher.begin(), cipher.begin() + 64), gcmCipher);
        EXPECT_EQ(Bytes(cipher.begin() + 64, cipher.end()), Bytes(16, 0xEE));
        EXPECT_EQ(Bytes(tag.begin(), tag.begin() + 16), Bytes(gcmTag.begin(), gcmTag.end()));
        EXPECT_EQ(Bytes(tag.begin() + 16, tag.end()), Bytes(16, 0xEE));
    });
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST(SealChunk, SealsNothingToATagAlone)
{
    Machine machine;
    RunCode(machine, [] {
        const GcmKey key(Bytes(32).data());
        uint8_t plain = 0;
        uint8_t cipher = 0xEE;
        Bytes tag(16);
        SealChunk(key, &plain, 0, Bytes(12).data(), &cipher, tag.data());
        EXPECT_EQ(tag, FromHex("530f8afbc74536b9a963b4f1c4cb738b")); // the GCM submission's test case 13
        EXPECT_EQ(cipher, 0xEE);
        EXPECT_TRUE(OpenChunk(key, &plain, 0, Bytes(12).data(), tag.data(), &cipher));
    });
}

TEST(OpenChunk, GivesThePublishedPlaintextAndNotAByteMore)
{
    Machine machine;
    RunCode(machine, [] {
        const GcmKey key(gcmKey.data());
        Bytes plain(64 + 16, 0xEE);
        EXPECT_TRUE(OpenChunk(key, gcmCipher.data(), 64, gcmNonce.data(), gcmTag.data(), plain.data()));
        EXPECT_EQ(Bytes(plain.begin(), plain.begin() + 64), gcmPlain);
        EXPECT_EQ(Bytes(plain.begin() + 64, plain.end()), Bytes(16, 0xEE));
    });
}

TEST(OpenChunk, RefusesATurnedBitWhereverItIs)
{
    Machine machine;
    const RunResult result = RunCode(machine, [] {
        ASSERT_TRUE(OpensWith(gcmKey, gcmNonce, gcmCipher, gcmTag));
        for (size_t bit = 0; bit < gcmCipher.size() * 8; ++bit) {
            EXPECT_FALSE(OpensWith(gcmKey, gcmNonce, WithBitTurned(gcmCipher, bit), gcmTag)) << bit;
        }
        for (size_t bit = 0; bit < gcmKey.size() * 8; ++bit) {
            EXPECT_FALSE(OpensWith(WithBitTurned(gcmKey, bit), gcmNonce, gcmCipher, gcmTag)) << bit;
        }
        for (size_t bit = 0; bit < gcmTag.size() * 8; ++bit) {
            EXPECT_FALSE(OpensWith(gcmKey, gcmNonce, gcmCipher, WithBitTurned(gcmTag, bit))) << bit;
        }
        for (size_t bit = 0; bit < gcmNonce.size() * 8; ++bit) {
            EXPECT_FALSE(OpensWith(gcmKey, WithBitTurned(gcmNonce, bit), gcmCipher, gcmTag)) << bit;
        }
    });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errorText + result.outputText, "");
}

TEST(OpenChunk, IsFalseAtEveryNegativeStatusAndNeverFatal)
{
    for (const uint32_t status : {0xC000A002U, 0xC0000001U, 0x80000000U, 0xFFFFFFFFU, 0xC0000017U}) {
        Machine machine;
        FailCall(machine, "BCryptDecrypt", 1, status).afterEffect = true;
        const RunResult result = RunCode(machine, [] { EXPECT_FALSE(OpensWith(gcmKey, gcmNonce, gcmCipher, gcmTag)); });
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(result.errorText + result.outputText, "");
    }
}

TEST(Seals, AreMadeWithOneCallInWhichEveryUnusedFieldIsZero)
{
    Machine machine;
    RunCode(machine, [] {
        const GcmKey key(gcmKey.data());
        Bytes cipher(64);
        Bytes tag(16);
        SealChunk(key, gcmPlain.data(), 64, gcmNonce.data(), cipher.data(), tag.data());
        OpenChunk(key, gcmCipher.data(), 64, gcmNonce.data(), gcmTag.data(), cipher.data());
    });
    EXPECT_EQ(LogOf(machine, {"BCryptEncrypt", "BCryptDecrypt"}), "BCryptEncrypt key#1 64\nBCryptDecrypt key#1 64\n");
    for (const char *name : {"BCryptEncrypt", "BCryptDecrypt"}) {
        Call call = CallsOf(machine, name).at(0);
        EXPECT_EQ(call.input, Bytes(gcmNonce.begin(), gcmNonce.end()));
        EXPECT_EQ(call.buffer, name[6] == 'E' ? gcmPlain.data() : gcmCipher.data());
        call.fields.erase("aligned");
        const std::map<std::string, uint64_t> expected = {
            {"infoSize", 88},  {"infoVersion", 1}, {"nonceLength", 12},     {"authData", 0},      {"authDataLength", 0},
            {"tagLength", 16}, {"macContext", 0},  {"macContextLength", 0}, {"aadLength", 0},     {"dataLength", 0},
            {"infoFlags", 0},  {"ivLength", 0},    {"length", 64},          {"outputLength", 64}, {"flags", 0}};
        EXPECT_EQ(call.fields, expected) << name;
    }
}

TEST(Seals, OfOneKeyOpenWithAnotherMadeFromTheSameBytes)
{
    Machine machine;
    RunCode(machine, [] {
        const GcmKey first(gcmKey.data());
        const GcmKey second(gcmKey.data());
        for (const uint32_t length : {1U, 15U, 16U, 17U, 512U, 4097U}) {
            const Bytes plain = PatternBytes(length, length);
            Bytes cipher(length);
            Bytes opened(length);
            uint8_t tag[16];
            SealChunk(first, plain.data(), length, gcmNonce.data(), cipher.data(), tag);
            EXPECT_NE(cipher, plain);
            EXPECT_TRUE(OpenChunk(second, cipher.data(), length, gcmNonce.data(), tag, opened.data()));
            EXPECT_EQ(opened, plain);
        }
    });
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST(RandomBytes, ComeFromAProviderOpenedForEachCall)
{
    Machine machine;
    Bytes first(12 + 4, 0xEE);
    Bytes second(16);
    RunCode(machine, [&] {
        RandomBytes(first.data(), 12);
        RandomBytes(second.data(), 16);
    });
    EXPECT_EQ(LogText(machine), "BCryptOpenAlgorithmProvider RNG flags=0x0 -> rng#1\nBCryptGenRandom rng#1 12\n"
                                "BCryptCloseAlgorithmProvider rng#1\n"
                                "BCryptOpenAlgorithmProvider RNG flags=0x0 -> rng#2\nBCryptGenRandom rng#2 16\n"
                                "BCryptCloseAlgorithmProvider rng#2\n");
    EXPECT_EQ(Field(CallsOf(machine, "BCryptGenRandom")[0], "flags"), 0U);
    EXPECT_EQ(CallsOf(machine, "BCryptGenRandom")[0].buffer, first.data());
    EXPECT_EQ(Bytes(first.begin() + 12, first.end()), Bytes(4, 0xEE));
    EXPECT_NE(Bytes(first.begin(), first.begin() + 12), Bytes(second.begin(), second.begin() + 12));
}

TEST(RandomBytes, DoNotLookAtTheClosing)
{
    Machine machine;
    FailCall(machine, "BCryptCloseAlgorithmProvider", 1, 0xC0000008);
    EXPECT_EQ(RunCode(machine, DrawOnce).exitStatus, 0);
    EXPECT_EQ(machine.faultsFired, 1U);
}

TEST(Primitives, EndTheProcessWithTheNameOfTheFailedCallAndItsStatus)
{
    const struct {
        const char *call;
        const char *object;
        void (*use)();
        const char *message;
    } rows[] = {
        {"BCryptOpenAlgorithmProvider", "sha256", DigestAbc, "BCryptOpenAlgorithmProvider(SHA256)"},
        {"BCryptCreateHash", "", DigestAbc, "BCryptCreateHash"},
        {"BCryptOpenAlgorithmProvider", "hmac-sha256", DeriveOnce, "BCryptOpenAlgorithmProvider(HMAC-SHA256)"},
        {"BCryptDeriveKeyPBKDF2", "", DeriveOnce, "BCryptDeriveKeyPBKDF2"},
        {"BCryptOpenAlgorithmProvider", "aes", MakeOneKey, "BCryptOpenAlgorithmProvider(AES)"},
        {"BCryptSetProperty", "", MakeOneKey, "BCryptSetProperty(GCM)"},
        {"BCryptGenerateSymmetricKey", "", MakeOneKey, "BCryptGenerateSymmetricKey"},
        {"BCryptEncrypt", "", SealOnce, "BCryptEncrypt"},
        {"BCryptOpenAlgorithmProvider", "rng", DrawOnce, "BCryptOpenAlgorithmProvider(RNG)"},
        {"BCryptGenRandom", "", DrawOnce, "BCryptGenRandom"},
    };
    for (const auto &row : rows) {
        Machine machine;
        FailCall(machine, row.call, 1, 0xC000009A).object = row.object;
        const RunResult result = RunCode(machine, row.use);
        ExpectFatal(result, std::string("FATAL: ") + row.message + " (NTSTATUS 0xC000009A)\n");
        EXPECT_EQ(machine.faultsFired, 1U) << row.message;
        // Nothing is taken down: the failed call, the line, the end.
        EXPECT_EQ(machine.calls.at(machine.calls.size() - 3).name, row.call);
        EXPECT_EQ(machine.calls.back().text, "exit 1");
    }
}

TEST(Primitives, TakeAStatusOfZeroAndAboveForSuccess)
{
    const struct {
        const char *call;
        void (*use)();
    } rows[] = {{"BCryptDeriveKeyPBKDF2", DeriveOnce},
                {"BCryptSetProperty", MakeOneKey},
                {"BCryptEncrypt", SealOnce},
                {"BCryptGenRandom", DrawOnce},
                // These give a handle, which is then used and given back as ever.
                {"BCryptOpenAlgorithmProvider", DigestAbc},
                {"BCryptCreateHash", DigestAbc},
                {"BCryptGenerateSymmetricKey", SealOnce}};
    for (const auto &row : rows) {
        for (const uint32_t status : {1U, 0x40000000U, 0x7FFFFFFFU}) {
            Machine machine;
            FailCall(machine, row.call, 1, status).afterEffect = true;
            EXPECT_EQ(RunCode(machine, row.use).exitStatus, 0) << row.call;
            EXPECT_EQ(machine.faultsFired, 1U) << row.call;
            EXPECT_EQ(machine.misuses, std::vector<std::string>()) << row.call;
        }
    }
    Machine machine;
    FailCall(machine, "BCryptDecrypt", 1, 0x40000000).afterEffect = true;
    RunCode(machine, [] { EXPECT_TRUE(OpensWith(gcmKey, gcmNonce, gcmCipher, gcmTag)); });
}
