// consolidate: its rules in their order, the calls it makes, and every byte of the new image.
#include "operations/consolidating.h"

#include <cstring>
#include <functional>
#include <set>

using namespace operations;

namespace
{
std::string RandomLog(uint32_t nth, uint32_t lengthBytes)
{
    const std::string number = std::to_string(nth);
    return "BCryptOpenAlgorithmProvider RNG flags=0x0 -> rng#" + number + "\nBCryptGenRandom rng#" + number + " " +
           std::to_string(lengthBytes) + "\nBCryptCloseAlgorithmProvider rng#" + number + "\n";
}

std::string ReadLog(uint64_t offset, uint32_t lengthBytes)
{
    const std::string at = std::to_string(offset);
    const std::string length = std::to_string(lengthBytes);
    return "SetFilePointerEx file:image.kstx#1 " + at + "\nReadFile file:image.kstx#1 " + length + " at " + at +
           " -> " + length + "\n";
}

std::string WriteLog(uint64_t offset, uint32_t lengthBytes)
{
    const std::string length = std::to_string(lengthBytes);
    return "WriteFile file:out.kstx#1 " + length + " at " + std::to_string(offset) + " -> " + length + "\n";
}

// Checks header and table of a sealed output and gives its content, opened by hand.
Bytes OpenedByHand(const Bytes &image, const Bytes &disk)
{
    const HeaderFields header = HeaderOf(image);
    EXPECT_EQ(header.encrypted, 1);
    EXPECT_EQ(header.kdfIterations, 200000U);
    EXPECT_EQ(image.size(), 280 + disk.size());
    const auto key = Pbkdf2Of("password", header.salt, 200000);
    const std::vector<EntryFields> expected = EntriesOf(PlainImageOf(disk));
    const std::vector<EntryFields> entries = EntriesOf(image);
    Bytes content;
    for (size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].diskOffset, expected[i].diskOffset);
        EXPECT_EQ(entries[i].storedLength, expected[i].storedLength);
        EXPECT_EQ(entries[i].hash, expected[i].hash);
        const size_t data = DataAt(image, i);
        Bytes plain;
        EXPECT_TRUE(Unseal(key, entries[i].nonce, Bytes(&image[data], image.data() + data + entries[i].storedLength),
                           entries[i].tag, &plain));
        content.insert(content.end(), plain.begin(), plain.end());
    }
    return content;
}

std::set<std::array<uint8_t, 12>> NoncesOf(const Bytes &image)
{
    std::set<std::array<uint8_t, 12>> nonces;
    for (const EntryFields &entry : EntriesOf(image)) {
        nonces.insert(entry.nonce);
    }
    return nonces;
}

// What a run meets at one of the rules, and how it then ends.
struct Rule {
    const char *name;
    std::function<void(Machine &machine, Arguments &arguments)> apply;
    std::string error;
};

std::vector<Rule> Rules()
{
    return {
        {"--in without a full path",
         [](Machine &machine, Arguments &) { FailCall(machine, "_fullpath", 1, ERROR_ACCESS_DENIED); },
         FatalLine("could not resolve image paths", ERROR_ACCESS_DENIED)},
        {"--out without a full path",
         [](Machine &machine, Arguments &) { FailCall(machine, "_fullpath", 2, ERROR_NOT_SUPPORTED); },
         FatalLine("could not resolve image paths", ERROR_NOT_SUPPORTED)},
        {"one path", [](Machine &, Arguments &arguments) { arguments[4] = "IMAGE.Kstx"; },
         FatalLine("--out must differ from --in", 0)},
        {"output there",
         [](Machine &, Arguments &) {
             WriteText("out.kstx", "something");
             WriteText("IMAGE.Kstx", "something");
         },
         FatalLine("--out already exists - refusing to overwrite an image")},
        {"no source", [](Machine &, Arguments &) { std::filesystem::remove(path); },
         "could not open image file: image.kstx\n" + FatalLine("could not open image file", ERROR_FILE_NOT_FOUND)},
        {"no password file named", [](Machine &, Arguments &arguments) { arguments.resize(6); },
         FatalLine("--encrypt needs --password-file")},
        {"no password file", [](Machine &, Arguments &) { std::filesystem::remove("pw"); },
         FatalLine("could not open password file", ERROR_FILE_NOT_FOUND)},
        {"no creation",
         [](Machine &machine, Arguments &) {
             FailCall(machine, "CreateFileW", 1, ERROR_WRITE_PROTECT).object = "file:out.kstx";
         },
         FatalLine("could not create output image file", ERROR_WRITE_PROTECT)},
    };
}
} // namespace

TEST_F(Consolidate, EndsAtEachOfItsRulesAndAtTheFirstOfTwo)
{
    const std::vector<Rule> rules = Rules();
    for (size_t i = 0; i < rules.size(); ++i) {
        for (size_t k = i; k < rules.size(); ++k) {
            SCOPED_TRACE(std::string(rules[i].name) + ", " + rules[k].name);
            for (const char *file : {"out.kstx", "IMAGE.Kstx"}) {
                std::filesystem::remove(file);
            }
            machine.faults.clear();
            machine.lastError = 0;
            Write(SmallPlan());
            WriteText("pw", "password\n");
            Arguments arguments = {"consolidate",     "--in", path, "--out", "out.kstx", "--encrypt",
                                   "--password-file", "pw"};
            rules[i].apply(machine, arguments);
            rules[k].apply(machine, arguments);
            ExpectFatal(RunCommand(machine, arguments), rules[i].error);
            const bool isThereAnyway = i == 3 || k == 3;
            EXPECT_EQ(FileExists("out.kstx"), isThereAnyway);
            EXPECT_EQ(CountCalls(machine, "CreateFileW") == 0, i < 4);
        }
    }
}

TEST_F(Consolidate, RefusesItsSourceUnderAnySpelling)
{
    Write(SmallPlan());
    std::filesystem::create_directory("sub");
    for (const std::string &out : {std::string(path), std::string("IMAGE.KSTX"), std::string("./image.kstx"),
                                   std::string("sub/../Image.kstx"), scratch.Path(path)}) {
        machine.lastError = 0;
        ExpectFatal(Run({}, out), FatalLine("--out must differ from --in", 0));
        EXPECT_EQ(LogOf(machine, {"CreateFileW", "GetFileAttributesA"}), "");
    }
}

TEST_F(Consolidate, TakesPathsAsLongAsThePlatformDoes)
{
    Write(SmallPlan());
    Run();
    for (const Call &call : CallsOf(machine, "_fullpath")) {
        EXPECT_EQ(Field(call, "length"), static_cast<uint64_t>(_MAX_PATH));
    }
    const RunResult result = Run({}, std::string(_MAX_PATH, 'x'));
    EXPECT_EQ(result.errorText.find("FATAL: could not resolve image paths (GetLastError="), 0U);
    EXPECT_EQ(result.exitStatus, 1);
}

TEST_F(Consolidate, OverwritesNothingThatExists)
{
    Write(SmallPlan());
    std::filesystem::create_directory("folder");
    WriteText("no image", "text");
    std::filesystem::remove(path);
    // The last one stands there only once the path is resolved.
    for (const char *out : {"folder", "no image", "pw", "nothing/../pw"}) {
        ExpectFatal(Run({}, out), FatalLine("--out already exists - refusing to overwrite an image"));
        EXPECT_EQ(CountCalls(machine, "CreateFileW"), 0U);
    }
    EXPECT_EQ(ReadBytes("no image"), (Bytes{'t', 'e', 'x', 't'}));
}

// The creation itself refuses a file that came up in the meantime.
TEST_F(Consolidate, LeavesAFileAloneThatAppearedAfterTheRules)
{
    Write(SmallPlan());
    machine.onCall = [](Machine &, const Call &call) {
        if (call.name == "CreateFileW" && call.object == "file:image.kstx") {
            WriteText("out.kstx", "mine");
        }
    };
    ExpectFatal(Run(), FatalLine("could not create output image file", ERROR_FILE_EXISTS));
    EXPECT_EQ(ReadBytes("out.kstx"), (Bytes{'m', 'i', 'n', 'e'}));
}

TEST_F(Consolidate, ReportsItsSourceBeforeItAsksForAPassword)
{
    const std::string needsPassword = FatalLine("--encrypt needs --password-file");
    Write(SmallPlan());
    ExpectFatal(Run({"--encrypt"}), needsPassword);
    Write(SmallPlan(true));
    ExpectFatal(Run({"--encrypt"}), FatalLine("this image is encrypted - pass --password-file"));
    ExpectFatal(Run(), FatalLine("this image is encrypted - pass --password-file"));
    WriteText(path, "no image");
    ExpectFatal(Run({"--encrypt"}), FatalLine("could not read image header - file is truncated or not a .kstx image"));
    EXPECT_FALSE(FileExists("out.kstx"));
}

TEST_F(Consolidate, LeavesNoFileWithoutItsNewKey)
{
    Write(SmallPlan());
    WriteText("pw", "\r\n\n");
    ExpectFatal(Run(sealing), FatalLine("password file is empty"));
    WriteText("pw", "password");
    struct {
        const char *call;
        uint32_t nth;
        const char *message;
    } const cases[] = {
        {"BCryptOpenAlgorithmProvider", 2, "BCryptOpenAlgorithmProvider(RNG)"},
        {"BCryptGenRandom", 1, "BCryptGenRandom"},
        {"BCryptOpenAlgorithmProvider", 3, "BCryptOpenAlgorithmProvider(HMAC-SHA256)"},
        {"BCryptDeriveKeyPBKDF2", 1, "BCryptDeriveKeyPBKDF2"},
        {"BCryptOpenAlgorithmProvider", 4, "BCryptOpenAlgorithmProvider(AES)"},
        {"BCryptSetProperty", 1, "BCryptSetProperty(GCM)"},
        {"BCryptGenerateSymmetricKey", 1, "BCryptGenerateSymmetricKey"},
    };
    for (const auto &[call, nth, message] : cases) {
        machine.faults.clear();
        FailCall(machine, call, nth, 0xC000009A);
        ExpectFatal(Run(sealing), std::string("FATAL: ") + message + " (NTSTATUS 0xC000009A)\n");
        EXPECT_FALSE(FileExists("out.kstx"));
    }
}

TEST_F(Consolidate, MakesTheseCallsForAPlainOutput)
{
    Write(SmallPlan());
    ExpectSuccess(Run());
    const std::string log = LogWithout(machine, {"calloc"});
    const std::string closingOpen =
        "CreateFileW out.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:out.kstx#2\n";
    EXPECT_EQ(log.substr(0, log.find(closingOpen)),
              "_fullpath image.kstx -> image.kstx\n"
              "_fullpath out.kstx -> out.kstx\n"
              "GetFileAttributesA out.kstx -> failed 2\n"
              "CreateFileW image.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:image.kstx#1\n"
              "ReadFile file:image.kstx#1 64 at 0 -> 64\n"
              "ReadFile file:image.kstx#1 216 at 64 -> 216\n" +
                  DigestLog(1, 280) +
                  "CreateFileW out.kstx access=0x40000000 share=0x0 disposition=1 flags=0x80 -> file:out.kstx#1\n"
                  "SetFilePointerEx file:out.kstx#1 280\n"
                  "GetTickCount64 -> 1000\n" +
                  ReadLog(280, 4096) + DigestLog(2, 4096) + WriteLog(280, 4096) + "GetTickCount64 -> 1000\nstdout " +
                  first + "\n" + ReadLog(4376, 4096) + DigestLog(3, 4096) + WriteLog(4376, 4096) + ReadLog(8472, 2048) +
                  DigestLog(4, 2048) + WriteLog(8472, 2048) + "GetTickCount64 -> 1000\nstdout " + last +
                  "\n\n"
                  "SetFilePointerEx file:out.kstx#1 0\n" +
                  WriteLog(0, 64) + WriteLog(64, 216) +
                  "CloseHandle file:out.kstx#1\n"
                  "CloseHandle file:image.kstx#1\n"
                  "stdout Consolidated: out.kstx (self-contained full image, verifying...)\n\n");
}

TEST_F(Consolidate, MakesTheseCallsForASealedOutput)
{
    Write(SmallPlan());
    ExpectSuccess(Run(sealing));
    const std::string log = LogWithout(machine, {"calloc", "stdout"});
    const size_t start = log.find(DigestLog(1, 280)) + DigestLog(1, 280).size();
    const std::string closingOpen =
        "CreateFileW out.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> file:out.kstx#2\n";
    EXPECT_EQ(log.substr(start, log.find(closingOpen) - start),
              RandomLog(1, 16) + KeyLog(1, 200000) +
                  "CreateFileW out.kstx access=0x40000000 share=0x0 disposition=1 flags=0x80 -> file:out.kstx#1\n"
                  "SetFilePointerEx file:out.kstx#1 280\n"
                  "GetTickCount64 -> 1000\n" +
                  ReadLog(280, 4096) + DigestLog(2, 4096) + RandomLog(2, 12) + "BCryptEncrypt key#1 4096\n" +
                  WriteLog(280, 4096) + "GetTickCount64 -> 1000\n" + ReadLog(4376, 4096) + DigestLog(3, 4096) +
                  RandomLog(3, 12) + "BCryptEncrypt key#1 4096\n" + WriteLog(4376, 4096) + ReadLog(8472, 2048) +
                  DigestLog(4, 2048) + RandomLog(4, 12) + "BCryptEncrypt key#1 2048\n" + WriteLog(8472, 2048) +
                  "GetTickCount64 -> 1000\n"
                  "SetFilePointerEx file:out.kstx#1 0\n" +
                  WriteLog(0, 64) + WriteLog(64, 216) +
                  "CloseHandle file:out.kstx#1\n"
                  "CloseHandle file:image.kstx#1\n");
    EXPECT_NE(log.find(KeyLog(2, 200000)), std::string::npos); // the closing verify makes its key anew
}

TEST_F(Consolidate, SealsEachChunkOutOfTheFetchedBytesUnderTheNonceOfItsEntry)
{
    Write(SmallPlan());
    Run(sealing);
    const std::vector<Call> seals = CallsOf(machine, "BCryptEncrypt");
    const std::vector<Call> writes = CallsOf(machine, "WriteFile");
    const std::vector<EntryFields> entries = EntriesOf(ReadBytes("out.kstx"));
    ASSERT_EQ(seals.size(), 3U);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(seals[i].input, Bytes(entries[i].nonce.begin(), entries[i].nonce.end()));
        EXPECT_EQ(seals[i].buffer, CallsOf(machine, "BCryptHashData")[1 + i].buffer);
        EXPECT_NE(seals[i].buffer, writes[i].buffer);
        EXPECT_EQ(Field(seals[i], "infoSize"), 88U);
        EXPECT_EQ(Field(seals[i], "authDataLength"), 0U);
    }
}

TEST_F(Consolidate, AllocatesBothBuffersBeforeItTakesTheTimeWhateverTheOutput)
{
    Write(SmallPlan());
    for (const Arguments &more : {Arguments(), sealing}) {
        std::filesystem::remove("out.kstx");
        Run(more);
        const std::string log = LogOf(machine, {"CreateFileW", "calloc", "GetTickCount64"});
        EXPECT_EQ(log.find("CreateFileW image.kstx access=0x80000000 share=0x1 disposition=3 flags=0x80 -> "
                           "file:image.kstx#1\n"
                           "calloc 3 72\n"
                           "CreateFileW out.kstx access=0x40000000 share=0x0 disposition=1 flags=0x80 -> "
                           "file:out.kstx#1\n"
                           "calloc 3 72\n"
                           "calloc 4096 1\n"
                           "calloc 4096 1\n"
                           "GetTickCount64 -> 1000\n"
                           "calloc 4096 1\n"
                           "GetTickCount64 -> 1000\n"),
                  0U);
    }
}

TEST_F(Consolidate, EndsAbnormallyWithoutMemoryAndLeavesAFileWithoutAHeader)
{
    Write(SmallPlan());
    for (uint32_t nth = 2; nth <= 5; ++nth) {
        std::filesystem::remove("out.kstx");
        machine.faults.clear();
        FailCall(machine, "calloc", nth, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_TRUE(Run().abnormalEnd);
        ExpectPartialFile(SmallPlan().disk, 0);
    }
}

TEST_F(Consolidate, GivesBackAPlainFullImageByteForByte)
{
    const Bytes image = Write(SmallPlan());
    ExpectSuccess(Run());
    EXPECT_TRUE(ReadBytes("out.kstx") == image);
    EXPECT_TRUE(ReadBytes(path) == image);
}

TEST_F(Consolidate, DropsTheEpochAndNothingElseOfAPlainFullImage)
{
    ImagePlan plan = SmallPlan();
    plan.epoch = 0x00F1E2D3C4B5A697;
    plan.sectorSize = 520;
    const Bytes image = Write(plan);
    ExpectSuccess(Run());
    plan.epoch = 0;
    EXPECT_TRUE(ReadBytes("out.kstx") == BuildImage(plan));
    EXPECT_NE(ImageIdOf(ReadBytes("out.kstx")), ImageIdOf(image));
}

TEST_F(Consolidate, FoldsAThinImageIntoAPlainFullOneWhateverIsSealed)
{
    for (const bool baseSealed : {false, true}) {
        for (const bool topSealed : {false, true}) {
            std::filesystem::remove("out.kstx");
            ImagePlan base = SmallPlan(baseSealed);
            base.epoch = 5;
            const Bytes disk = WriteThin(base, {1}, topSealed);
            ExpectSuccess(Run(withPassword));
            EXPECT_TRUE(ReadBytes("out.kstx") == PlainImageOf(disk));
            EXPECT_EQ(CountCalls(machine, "fopen_s"), (baseSealed ? 1U : 0U) + (topSealed ? 1U : 0U));
            EXPECT_EQ(CountCalls(machine, "BCryptGenRandom"), 0U);
        }
    }
}

TEST_F(Consolidate, DoesNotOpenThePasswordFileForAPlainSourceAndAPlainOutput)
{
    Write(SmallPlan());
    ExpectSuccess(Run({"--password-file", "missing"}));
    EXPECT_EQ(CountCalls(machine, "fopen_s"), 0U);
}

TEST_F(Consolidate, EncryptsAPlainImage)
{
    Write(SmallPlan());
    ExpectSuccess(Run(sealing));
    const Bytes image = ReadBytes("out.kstx");
    EXPECT_TRUE(OpenedByHand(image, SmallPlan().disk) == SmallPlan().disk);
    EXPECT_EQ(NoncesOf(image).size(), 3U);
    EXPECT_NE(HeaderOf(image).salt, (std::array<uint8_t, 16>()));
    EXPECT_EQ(CountCalls(machine, "fopen_s"), 2U); // the new key, and that of the closing verify
}

TEST_F(Consolidate, GivesASealedChainANewKeyAndNewNonces)
{
    ImagePlan base = SmallPlan(true);
    base.epoch = 9;
    const Bytes disk = WriteThin(base, {1}, true);
    ExpectSuccess(Run(sealing));
    const Bytes image = ReadBytes("out.kstx");
    EXPECT_TRUE(OpenedByHand(image, disk) == disk);
    for (const char *source : {path, "base.kstx"}) {
        EXPECT_NE(HeaderOf(image).salt, HeaderOf(ReadBytes(source)).salt);
        for (const auto &nonce : NoncesOf(ReadBytes(source))) {
            EXPECT_EQ(NoncesOf(image).count(nonce), 0U);
        }
    }
    const std::vector<Call> derivations = CallsOf(machine, "BCryptDeriveKeyPBKDF2");
    ASSERT_EQ(derivations.size(), 4U); // two sources, the new image, the closing verify
    EXPECT_EQ(Field(derivations[1], "iterations"), 2U);
    EXPECT_EQ(Field(derivations[2], "iterations"), 200000U);
    EXPECT_EQ(derivations[2].input, Bytes(&image[44], &image[60]));
    EXPECT_EQ(derivations[3].input, derivations[2].input);
}

TEST_F(Consolidate, WritesTheseHeadersForSealedSources)
{
    ImagePlan plan = SmallPlan(true);
    plan.epoch = 77;
    Write(plan);
    ChangeFile(path, 36, 0xFF, 1); // any mark but 0 reads as sealed
    ExpectSuccess(Run(withPassword));
    HeaderFields expected = {"KSTXDSK2", 2, diskBytes, 512, chunkBytes, 3, 0, 0, {}, 0};
    const Bytes plain = ReadBytes("out.kstx");
    EXPECT_EQ(Bytes(plain.begin(), plain.begin() + 64), BuildHeader(expected));
    std::filesystem::remove("out.kstx");
    ExpectSuccess(Run(sealing));
    const Bytes sealed = ReadBytes("out.kstx");
    expected.encrypted = 1;
    expected.kdfIterations = 200000;
    expected.salt = HeaderOf(sealed).salt;
    EXPECT_EQ(Bytes(sealed.begin(), sealed.begin() + 64), BuildHeader(expected));
}

TEST_F(Consolidate, DrawsANewSaltInEveryRun)
{
    Write(SmallPlan());
    Run(sealing);
    Run(sealing, "second.kstx");
    const Bytes firstImage = ReadBytes("out.kstx");
    const Bytes secondImage = ReadBytes("second.kstx");
    EXPECT_NE(HeaderOf(firstImage).salt, HeaderOf(secondImage).salt);
    EXPECT_NE(EntriesOf(firstImage)[0].nonce, EntriesOf(secondImage)[0].nonce);
}

TEST_F(Consolidate, CarriesOffsetsOverAndGivesEveryChunkItsOwnLength)
{
    Bytes image = WithStoredLength(BuildImage(SmallPlan()), 1, 5000); // more than the chunk, which its digest allows
    StoreInteger(image, EntryAt(0), 1048576, 8);
    WriteBytes(path, image);
    const RunResult result = Run();
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.outputText.find(ProgressLine(1052672, diskBytes) + last + "\n"), 0U);
    Bytes expected = PlainImageOf(SmallPlan().disk);
    StoreInteger(expected, EntryAt(0), 1048576, 8);
    EXPECT_TRUE(ReadBytes("out.kstx") == expected);
}

TEST_F(Consolidate, ShowsItsProgressWithSpeedAndTypedPath)
{
    ImagePlan plan = SmallPlan();
    plan.chunkSize = 512;
    plan.disk = PatternBytes(34 * 512, 2);
    Write(plan);
    const auto progress = [](size_t chunks) { return ProgressLine(chunks * 512, 34 * 512); };
    EXPECT_EQ(Run({}, "./a.kstx").outputText, progress(1) + progress(33) + progress(34) +
                                                  "\nConsolidated: ./a.kstx (self-contained full image, verifying...)\n"
                                                  "Verifying ./a.kstx  (34 chunks, 0.00 GiB source disk)\n" +
                                                  progress(1) + progress(33) + progress(34) +
                                                  "\nVerify OK - all 34 chunks match their recorded hash.\n");
    EXPECT_EQ(CallsOf(machine, "CreateFileW")[1].object, "file:./a.kstx");
    plan.chunkSize = MiB;
    plan.disk = PatternBytes(3 * MiB, 2);
    Write(plan);
    machine.ticksPerCall = 500;
    EXPECT_EQ(Run({}, "b.kstx")
                  .outputText.find("\r   33.33%  1 / 3 MiB  (2.0 MiB/s)   "
                                   "\r  100.00%  3 / 3 MiB  (3.0 MiB/s)   \nConsolidated: b.kstx"),
              0U);
}

TEST_F(Consolidate, ClosesTheOutputAndTheSourceButNoImageBelow)
{
    WriteThin(SmallPlan(), {1}, false);
    Run();
    EXPECT_EQ(LogOf(machine, {"CloseHandle"}),
              "CloseHandle file:out.kstx#1\nCloseHandle file:image.kstx#1\nCloseHandle file:out.kstx#2\n");
}
