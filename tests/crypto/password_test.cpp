// Passwords and keys: what of a password file is the password, when a key is made and from what, and that the raw key
// bytes are gone afterwards.
//
// A key is known by what it opens: seals are made here with keys derived by the cryptography library itself.
#include "crypto/password.h"

#include "crypto/known_bytes.h"

#include <cstring>

namespace
{
// The current folder is empty; the last error is 77 until a call changes it.
struct Passwords : testing::Test {
    Passwords()
    {
        machine.lastError = 77;
        header.encrypted = 1;
        for (size_t i = 0; i < sizeof(header.salt); ++i) {
            header.salt[i] = static_cast<uint8_t>(0xA0 + i);
        }
        header.kdfIterations = 7;
    }

    RunResult Read(const std::string &path)
    {
        return RunCode(machine, [&] { password = ReadPasswordFile(path); });
    }

    RunResult MakeKey(const std::string &path)
    {
        return RunCode(machine, [&] {
            std::optional<GcmKey> key;
            MakeKeyOfImage(header, path, key);
        });
    }

    std::array<uint8_t, 16> Salt() const
    {
        std::array<uint8_t, 16> salt = {};
        memcpy(salt.data(), header.salt, salt.size());
        return salt;
    }

    Scratch scratch;
    Machine machine;
    ImageHeader header = {};
    std::string password;
};

// True if key is the one of these 32 bytes.
bool IsKey(const std::optional<GcmKey> &key, const std::array<uint8_t, 32> &rawKey)
{
    const Bytes plain = PatternBytes(100, 1);
    std::array<uint8_t, 16> tag = {};
    const Bytes cipher = Seal(rawKey, gcmNonce, plain, &tag);
    Bytes opened(plain.size());
    return key && OpenChunk(*key, cipher.data(), 100, gcmNonce.data(), tag.data(), opened.data()) && opened == plain;
}

const char makingAKey[] = "BCryptOpenAlgorithmProvider AES flags=0x0 -> aes#1\nBCryptSetProperty aes#1 ChainingMode "
                          "32\nBCryptGetProperty aes#1 ObjectLength 4\nBCryptGenerateSymmetricKey aes#1 secret=32 -> "
                          "key#1\n";
const char endingAKey[] = "BCryptDestroyKey key#1\nBCryptCloseAlgorithmProvider aes#1\n";
} // namespace

TEST_F(Passwords, AreTheFilesBytesWithoutTheLineEndsBehindThem)
{
    const struct {
        std::string content;
        std::string password;
    } rows[] = {
        {"abc", "abc"},
        {"abc\r\n", "abc"},
        {"abc\n", "abc"},
        {"abc\r", "abc"},
        {"abc\n\n\r", "abc"},
        {"abc\r\r\n\n\r\n", "abc"},
        {"abc \n", "abc "},
        {"abc\t\r\n", "abc\t"},
        {"abc\n ", "abc\n "},
        {"abc\n\v\n", "abc\n\v"},
        {" abc", " abc"},
        {"\nabc\n", "\nabc"},
        {"\r\na\r\nbc\r\n", "\r\na\r\nbc"},
        {"\xEF\xBB\xBF"
         "abc\r\n",
         "\xEF\xBB\xBF"
         "abc"},
        {std::string("a\0b\0c\0\n\0", 8), std::string("a\0b\0c\0\n\0", 8)},
        {std::string("a\0\n", 3), std::string("a\0", 2)},
        {"\x1A", "\x1A"},
        {"\xFF\x80", "\xFF\x80"},
        {"x", "x"},
    };
    for (const auto &row : rows) {
        WriteText("pw.txt", row.content);
        const RunResult result = Read("pw.txt");
        EXPECT_EQ(result.exitStatus, 0);
        EXPECT_EQ(password, row.password) << testing::PrintToString(row.content);
    }
}

TEST_F(Passwords, AreReadInBlocksOf256BytesToTheEnd)
{
    const Bytes content = PatternBytes(600, 3);
    WriteBytes("pw.txt", content);
    Read("pw.txt");
    EXPECT_EQ(password, std::string(content.begin(), content.end()));
    EXPECT_EQ(LogText(machine), "fopen_s pw.txt rb -> stream:pw.txt#1\n"
                                "fread stream:pw.txt#1 1 256 -> 256\nfread stream:pw.txt#1 1 256 -> 256\n"
                                "fread stream:pw.txt#1 1 256 -> 88\nfread stream:pw.txt#1 1 256 -> 0\n"
                                "fclose stream:pw.txt#1\n");
}

TEST_F(Passwords, MayBeOfAnyLength)
{
    const Bytes content = PatternBytes(MiB, 4);
    WriteBytes("pw.txt", content);
    Read("pw.txt");
    EXPECT_EQ(password.size(), content.size());
    EXPECT_EQ(password, std::string(content.begin(), content.end()));
}

TEST_F(Passwords, GoOnBehindAShortReadAndEndAtAFailedOne)
{
    WriteText("pw.txt", "abcdefgh");
    ShortenCall(machine, "fread", 1, 3);
    Read("pw.txt");
    EXPECT_EQ(password, "abcdefgh");
    FailCall(machine, "fread", 2, ERROR_IO_DEVICE);
    EXPECT_EQ(Read("pw.txt").exitStatus, 0);
    EXPECT_EQ(password, "abc");
    EXPECT_EQ(machine.calls.back().name, "fclose");
}

TEST_F(Passwords, MustComeFromAFileThatOpens)
{
    ExpectFatal(Read("missing.txt"), "FATAL: could not open password file (GetLastError=2)\n");
    WriteText("pw.txt", "abc");
    FailCall(machine, "fopen_s", 1, 13);
    ExpectFatal(Read("pw.txt"), "FATAL: could not open password file (GetLastError=13)\n");
    EXPECT_EQ(machine.calls.front().name, "fopen_s");
    EXPECT_EQ(CountCalls(machine, "fread"), 0U);
}

TEST_F(Passwords, MustComeFromAFileThatIsHandedOverByASuccessfulOpenToo)
{
    WriteText("pw.txt", "abc");
    FailCall(machine, "fopen_s", 1, 0).transferBytes = 0;
    ExpectFatal(Read("pw.txt"), "FATAL: could not open password file (GetLastError=77)\n");
    EXPECT_EQ(CountCalls(machine, "fread"), 0U);
}

TEST_F(Passwords, MustNotBeEmpty)
{
    for (const char *content : {"", "\n", "\r\n", "\r", "\n\n\r\r\n"}) {
        WriteText("pw.txt", content);
        ExpectFatal(Read("pw.txt"), "FATAL: password file is empty (GetLastError=77)\n");
        EXPECT_EQ(CountCalls(machine, "fclose"), 1U);
    }
    WriteText("pw.txt", "abc");
    FailCall(machine, "fread", 1, 0).transferBytes = 0; // nothing arrives: the end of the file as far as anyone knows
    ExpectFatal(Read("pw.txt"), "FATAL: password file is empty (GetLastError=77)\n");
}

TEST_F(Passwords, MakeTheKeyOfAnImageFromItsOwnSaltAndCount)
{
    WriteText("pw.txt", "abc\r\n");
    RunCode(machine, [this] {
        std::optional<GcmKey> key;
        MakeKeyOfImage(header, "pw.txt", key);
        EXPECT_TRUE(IsKey(key, Pbkdf2Of("abc", Salt(), 7)));
        EXPECT_FALSE(IsKey(key, Pbkdf2Of("abc\r\n", Salt(), 7)));
        EXPECT_FALSE(IsKey(key, Pbkdf2Of("abc", Salt(), 200000)));
    });
    EXPECT_EQ(LogText(machine, [](const Call &call) { return call.name != "BCryptDecrypt"; }),
              std::string("fopen_s pw.txt rb -> stream:pw.txt#1\nfread stream:pw.txt#1 1 256 -> 5\n"
                          "fread stream:pw.txt#1 1 256 -> 0\nfclose stream:pw.txt#1\n"
                          "BCryptOpenAlgorithmProvider SHA256 flags=0x8 -> hmac-sha256#1\n"
                          "BCryptDeriveKeyPBKDF2 hmac-sha256#1 password=3 salt=16 iterations=7 length=32\n"
                          "BCryptCloseAlgorithmProvider hmac-sha256#1\n") +
                  makingAKey + endingAKey);
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
}

TEST_F(Passwords, LeaveTheHeaderOfAnOpenedImageAsItWas)
{
    WriteText("pw.txt", "abc");
    const ImageHeader before = header;
    MakeKey("pw.txt");
    EXPECT_EQ(memcmp(&header, &before, sizeof(header)), 0);
}

TEST_F(Passwords, AreAskedForByAnEncryptedImage)
{
    ExpectFatal(MakeKey(""), "FATAL: this image is encrypted - pass --password-file (GetLastError=77)\n");
    EXPECT_EQ(LogText(machine), "GetLastError -> 77\nexit 1\n");
}

TEST_F(Passwords, LeaveACountOfZeroToTheDerivation)
{
    WriteText("pw.txt", "abc");
    header.kdfIterations = 0;
    ExpectFatal(MakeKey("pw.txt"), "FATAL: BCryptDeriveKeyPBKDF2 (NTSTATUS 0xC000000D)\n");
}

TEST_F(Passwords, EndTheRunWithTheWordsOfTheCallThatFailed)
{
    WriteText("pw.txt", "abc");
    const struct {
        const char *call;
        const char *object;
        const char *message;
    } rows[] = {{"BCryptOpenAlgorithmProvider", "hmac-sha256", "BCryptOpenAlgorithmProvider(HMAC-SHA256)"},
                {"BCryptDeriveKeyPBKDF2", "", "BCryptDeriveKeyPBKDF2"},
                {"BCryptOpenAlgorithmProvider", "aes", "BCryptOpenAlgorithmProvider(AES)"},
                {"BCryptSetProperty", "", "BCryptSetProperty(GCM)"},
                {"BCryptGenerateSymmetricKey", "", "BCryptGenerateSymmetricKey"}};
    for (const auto &row : rows) {
        machine.faults.clear();
        FailCall(machine, row.call, 1, 0xC0000022).object = row.object;
        ExpectFatal(MakeKey("pw.txt"), std::string("FATAL: ") + row.message + " (NTSTATUS 0xC0000022)\n");
    }
}

TEST_F(Passwords, ReplaceAKeyOnlyWhenTheNewOneIsDerived)
{
    WriteText("pw.txt", "abc");
    RunCode(machine, [this] {
        std::optional<GcmKey> key;
        key.emplace(gcmKey.data());
        MakeKeyOfImage(header, "pw.txt", key);
        EXPECT_TRUE(IsKey(key, Pbkdf2Of("abc", Salt(), 7)));
    });
    EXPECT_EQ(LogOf(machine, {"BCryptDeriveKeyPBKDF2", "BCryptDestroyKey", "BCryptCloseAlgorithmProvider",
                              "BCryptOpenAlgorithmProvider", "BCryptGenerateSymmetricKey"}),
              "BCryptOpenAlgorithmProvider AES flags=0x0 -> aes#1\n"
              "BCryptGenerateSymmetricKey aes#1 secret=32 -> key#1\n"
              "BCryptOpenAlgorithmProvider SHA256 flags=0x8 -> hmac-sha256#1\n"
              "BCryptDeriveKeyPBKDF2 hmac-sha256#1 password=3 salt=16 iterations=7 length=32\n"
              "BCryptCloseAlgorithmProvider hmac-sha256#1\n"
              "BCryptDestroyKey key#1\nBCryptCloseAlgorithmProvider aes#1\n"
              "BCryptOpenAlgorithmProvider AES flags=0x0 -> aes#2\n"
              "BCryptGenerateSymmetricKey aes#2 secret=32 -> key#2\n"
              "BCryptDestroyKey key#2\nBCryptCloseAlgorithmProvider aes#2\n");
}

TEST_F(Passwords, MakeTheKeyOfANewImageFromAFreshSaltAnd200000Rounds)
{
    WriteText("pw.txt", "abc\n");
    header.kdfIterations = 0;
    const std::array<uint8_t, 16> before = Salt();
    RunCode(machine, [this] {
        std::optional<GcmKey> key;
        MakeKeyOfNewImage(header, "pw.txt", key);
        EXPECT_TRUE(IsKey(key, Pbkdf2Of("abc", Salt(), 200000)));
    });
    EXPECT_EQ(uint32_t{header.kdfIterations}, 200000U);
    EXPECT_NE(Salt(), before);
    EXPECT_EQ(LogText(machine, [](const Call &call) { return call.name != "BCryptDecrypt"; }),
              std::string("BCryptOpenAlgorithmProvider RNG flags=0x0 -> rng#1\nBCryptGenRandom rng#1 16\n"
                          "BCryptCloseAlgorithmProvider rng#1\n"
                          "fopen_s pw.txt rb -> stream:pw.txt#1\nfread stream:pw.txt#1 1 256 -> 4\n"
                          "fread stream:pw.txt#1 1 256 -> 0\nfclose stream:pw.txt#1\n"
                          "BCryptOpenAlgorithmProvider SHA256 flags=0x8 -> hmac-sha256#1\n"
                          "BCryptDeriveKeyPBKDF2 hmac-sha256#1 password=3 salt=16 iterations=200000 length=32\n"
                          "BCryptCloseAlgorithmProvider hmac-sha256#1\n") +
                  makingAKey + endingAKey);
    EXPECT_EQ(CallsOf(machine, "BCryptGenRandom")[0].buffer, header.salt);
}

TEST_F(Passwords, LeaveNoneOfTheRawKeyBehind)
{
    WriteText("pw.txt", "abc");
    const std::array<uint8_t, 32> expected = Pbkdf2Of("abc", Salt(), 7);
    const volatile uint8_t *rawKey = nullptr;
    bool wasThere = false;
    machine.onCall = [&](Machine &, const Call &call) {
        if (call.name == "BCryptDeriveKeyPBKDF2") {
            rawKey = static_cast<const uint8_t *>(call.buffer);
        }
        if (call.name == "BCryptGenerateSymmetricKey") {
            wasThere = std::equal(expected.begin(), expected.end(), rawKey);
        }
    };
    uint32_t bytesLeft = 32;
    RunCode(machine, [&] {
        std::optional<GcmKey> key;
        MakeKeyOfImage(header, "pw.txt", key);
        // The buffer was a local one: it must be looked at before another call uses its place on the stack.
        bytesLeft = 0;
        for (size_t i = 0; i < 32; ++i) {
            bytesLeft += rawKey[i] != 0 ? 1 : 0;
        }
    });
    EXPECT_TRUE(wasThere);
    EXPECT_EQ(bytesLeft, 0U);
}

TEST_F(Passwords, GiveTwoImagesOfOneDiskDifferentSaltsAndEveryChunkItsOwnNonce)
{
    WriteText("pw.txt", "abc");
    machine.disks[1].bytes = Bytes(4 * MiB + 512); // two chunks
    std::set<Bytes> salts;
    std::set<Bytes> nonces;
    for (const char *path : {"a.kstx", "b.kstx"}) {
        ASSERT_EQ(
            RunCommand(machine, {"capture", "--disk", "1", "--out", path, "--encrypt", "--password-file", "pw.txt"})
                .exitStatus,
            0);
        const Bytes image = ReadBytes(path);
        const HeaderFields fields = HeaderOf(image);
        EXPECT_EQ(fields.kdfIterations, 200000U);
        salts.emplace(fields.salt.begin(), fields.salt.end());
        for (const EntryFields &entry : EntriesOf(image)) {
            nonces.emplace(entry.nonce.begin(), entry.nonce.end());
        }
    }
    EXPECT_EQ(salts.size(), 2U);
    EXPECT_EQ(nonces.size(), 4U);
}

TEST_F(Passwords, AreReadBeforeAnyOutputFileComesIntoBeing)
{
    machine.disks[1].bytes = Bytes(4096);
    ImagePlan plan;
    plan.disk = Bytes(4096);
    WriteBytes("plain.kstx", BuildImage(plan));
    WriteText("empty.txt", "\r\n");
    const std::vector<std::string> commands[] = {
        {"capture", "--disk", "1", "--out", "out.kstx", "--encrypt", "--password-file"},
        {"consolidate", "--in", "plain.kstx", "--out", "out.kstx", "--encrypt", "--password-file"}};
    for (std::vector<std::string> command : commands) {
        for (const char *path : {"missing.txt", "empty.txt"}) {
            std::vector<std::string> arguments = command;
            arguments.emplace_back(path);
            const RunResult result = RunCommand(machine, arguments);
            EXPECT_EQ(result.exitStatus, 1);
            EXPECT_EQ(result.errorText.find(path[0] == 'm' ? "FATAL: could not open password file (GetLastError="
                                                           : "FATAL: password file is empty (GetLastError="),
                      0U);
            EXPECT_FALSE(FileExists("out.kstx"));
        }
    }
}
