// Opening one image: what is read in which order, every fault with its words and its error number, and what of a header
// is deliberately let pass.
//
// The chains behind thin images have a file of their own; here a thin image has one base, if any.
#include "image/small_images.h"

#include <cstring>

namespace
{
const char headerFault[] = "could not read image header - file is truncated or not a .kstx image";
const char magicFault[] = "not a recognized Kestrix image (bad magic/version)";
const char tableFault[] = "could not read chunk table - image is truncated";
const char passwordFault[] = "this image is encrypted - pass --password-file";
const char noTrailerFault[] = "thin image has no valid trailer - file is truncated";
const char readTrailerFault[] = "could not read thin image trailer";
const char malformedFault[] = "thin image trailer is malformed";
const char outsideFault[] = "thin image trailer names a base outside its folder - refusing";

// A plain image "full.kstx", and "thin.kstx" upon it with chunk 1 of its own; both are to be changed by the tests.
struct OpeningImages : SmallImages {
    OpeningImages()
    {
        full = FullPlan();
        thin = PlanOn(full, "full.kstx", {1});
        Write("full.kstx", full);
        Write("thin.kstx", thin);
        trailerStart = smallDataStart + smallChunk;
    }

    // Opens what remains of the thin image once change has been at its bytes.
    RunResult OpenChanged(const std::function<void(Bytes &image)> &change)
    {
        Bytes image = BuildImage(thin);
        change(image);
        WriteBytes("changed.kstx", image);
        return Open("changed.kstx");
    }

    ImagePlan full;
    ImagePlan thin;
    uint64_t trailerStart = 0;
};

std::string Replaced(std::string text, const std::string &what, const std::string &with)
{
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
        text.replace(at, what.size(), with);
    }
    return text;
}

std::string ReadingSteps(const std::string &name)
{
    return Replaced("CreateFileW NAME access=0x80000000 share=0x1 disposition=3 flags=0x80\n"
                    "ReadFile file:NAME#1 64 at 0\nReadFile file:NAME#1 216 at 64\n",
                    "NAME", name);
}
} // namespace

TEST_F(OpeningImages, ReadsHeaderAndTableOfAFullImageAndNothingElse)
{
    const Bytes bytes = BuildImage(full);
    ExpectOpens("full.kstx", "", [&bytes](ImageFile &image) {
        EXPECT_EQ(memcmp(&image.header, bytes.data(), 64), 0);
        ASSERT_EQ(image.table.size(), 3U);
        EXPECT_EQ(memcmp(image.table.data(), bytes.data() + 64, 216), 0);
        EXPECT_FALSE(image.key.has_value());
        EXPECT_EQ(image.imageId, ImageIdOf(bytes));
        EXPECT_EQ(image.chunkOffsets, (std::vector<uint64_t>{280, 4376, 8472}));
        EXPECT_EQ(image.base, nullptr);
        EXPECT_EQ(image.baseName, "");
    });
    EXPECT_EQ(StepsOf(machine), ReadingSteps("full.kstx") + "BCryptHashData hash#1 280\n");
    const Call open = CallsOf(machine, "CreateFileW").at(0);
    EXPECT_EQ(Field(open, "security"), 0U);
    EXPECT_EQ(Field(open, "template"), 0U);
}

TEST_F(OpeningImages, ReadsAThinImageInTheStatedOrderAndReturnsToItsData)
{
    const Bytes bytes = BuildImage(thin);
    ExpectOpens("thin.kstx", "missing.txt", [&bytes](ImageFile &image) {
        EXPECT_EQ(image.chunkOffsets, (std::vector<uint64_t>{280, 280, 4376}));
        EXPECT_EQ(image.imageId, ImageIdOf(bytes));
        EXPECT_EQ(image.baseName, "full.kstx");
        ASSERT_NE(image.base, nullptr);
        EXPECT_EQ(image.base->baseName, "");
        EXPECT_EQ(uint32_t{image.base->header.version}, 2U);
    });
    EXPECT_EQ(StepsOf(machine), ReadingSteps("thin.kstx") +
                                    "BCryptHashData hash#1 280\nGetFileSizeEx file:thin.kstx#1\n"
                                    "SetFilePointerEx file:thin.kstx#1 4429\nReadFile file:thin.kstx#1 4 at 4429\n"
                                    "SetFilePointerEx file:thin.kstx#1 4376\nReadFile file:thin.kstx#1 57 at 4376\n"
                                    "GetFileAttributesA full.kstx\n" +
                                    ReadingSteps("full.kstx") +
                                    "BCryptHashData hash#2 280\nSetFilePointerEx file:thin.kstx#1 0\n"
                                    "SetFilePointerEx file:thin.kstx#1 280\n");
}

TEST_F(OpeningImages, LeavesTheFileAtItsDataSoThatStoredChunksFollow)
{
    for (const char *path : {"full.kstx", "thin.kstx"}) {
        Open(path, "", [this](ImageFile &image) {
            uint8_t byte = 0;
            machine.calls.clear();
            EXPECT_TRUE(ReadNextStoredChunk(image, 1, &byte, 1));
        });
        EXPECT_EQ(Field(CallsOf(machine, "ReadFile").at(0), "offset"), smallDataStart) << path;
    }
}

TEST_F(OpeningImages, DerivesTheKeyOfAnEncryptedImageBeforeItsTrailerAndItsBase)
{
    thin.encrypted = true;
    Write("thin.kstx", thin);
    ExpectOpens("thin.kstx", "pw.txt", [](ImageFile &image) {
        EXPECT_TRUE(image.key.has_value());
        EXPECT_FALSE(image.base->key.has_value());
    });
    const std::string steps = StepsOf(machine);
    EXPECT_EQ(steps.find(ReadingSteps("thin.kstx") +
                         "BCryptHashData hash#1 280\nfopen_s pw.txt rb\n"
                         "BCryptDeriveKeyPBKDF2 hmac-sha256#1 password=8 salt=16 iterations=3 length=32\n"
                         "GetFileSizeEx file:thin.kstx#1\n"),
              0U);
    std::remove("full.kstx");
    EXPECT_EQ(Open("thin.kstx", "pw.txt").exitStatus, 1);
    EXPECT_EQ(CountCalls(machine, "BCryptDeriveKeyPBKDF2"), 1U);
    EXPECT_EQ(CountCalls(machine, "GetFileAttributesA"), 1U);
}

TEST_F(OpeningImages, RefusesAFileThatDoesNotOpen)
{
    ExpectFatal(Open("missing.kstx"),
                "could not open image file: missing.kstx\n" + FatalLine("could not open image file", 2));
    ExpectFatal(Open(""), "could not open image file: \n" + FatalLine("could not open image file", 3));
    FailCall(machine, "CreateFileW", 1, ERROR_SHARING_VIOLATION);
    ExpectFatal(Open("full.kstx"),
                "could not open image file: full.kstx\n" + FatalLine("could not open image file", 32));
}

TEST_F(OpeningImages, RefusesAFileThatEndsWithinItsHeaderOrTable)
{
    const Bytes image = BuildImage(full);
    for (const uint64_t length : {0U, 1U, 63U, 64U, 65U, 279U}) {
        WriteBytes("cut.kstx", Bytes(image.data(), image.data() + length));
        ExpectFatal(Open("cut.kstx"), FatalLine(length < 64 ? headerFault : tableFault));
        EXPECT_EQ(CountCalls(machine, "BCryptHashData"), 0U);
    }
    WriteBytes("cut.kstx", Bytes(image.data(), image.data() + 280));
    ExpectOpens("cut.kstx"); // missing data shows only when a chunk is read
}

TEST_F(OpeningImages, RefusesAnotherMagicOrVersion)
{
    for (size_t i = 0; i < 8; ++i) {
        Bytes image = BuildImage(full);
        image[i] ^= 0x20;
        WriteBytes("bad.kstx", image);
        ExpectFatal(Open("bad.kstx"), FatalLine(magicFault));
    }
    for (const uint32_t version : {0U, 1U, 4U, 0x0102U, 0x02000000U, 0x00010003U, 0xFFFFFFFFU}) {
        Bytes image = BuildImage(full);
        StoreInteger(image, 8, version, 4);
        WriteBytes("bad.kstx", image);
        ExpectFatal(Open("bad.kstx"), FatalLine(magicFault));
        EXPECT_EQ(CountCalls(machine, "ReadFile"), 1U);
    }
}

TEST_F(OpeningImages, TestsNoOtherFieldOfTheHeaderOrTheTable)
{
    const struct {
        size_t offset;
        uint64_t value;
        size_t width;
    } rows[] = {{12, 0, 8},          {12, 0xFFFFFFFFFFFFFFFF, 8}, {20, 0, 4},      {20, 0xFFFFFFFF, 4}, {24, 0, 4},
                {24, 0xFFFFFFFF, 4}, {37, 0xFFFFFFFFFFFFFF, 7},   {44, 0xFFFF, 2}, {60, 77, 4},         {28, 2, 8},
                {64, 0xDEAD, 8},     {72, 0xFFFFFFFF, 4},         {72, 1, 4},      {76, 0, 8},          {108, 0xFF, 1},
                {120, 0xFF, 1}};
    for (const auto &row : rows) {
        Bytes image = BuildImage(full);
        StoreInteger(image, row.offset, row.value, row.width);
        WriteBytes("odd.kstx", image);
        ExpectOpens("odd.kstx");
    }
}

TEST_F(OpeningImages, SumsTheOffsetsIn64Bits)
{
    Bytes image = BuildImage(full);
    StoreInteger(image, 64 + 8, 0xFFFFFFFF, 4);
    StoreInteger(image, 136 + 8, 0xFFFFFFFE, 4);
    WriteBytes("odd.kstx", image);
    ExpectOpens("odd.kstx", "", [](ImageFile &opened) {
        EXPECT_EQ(opened.chunkOffsets, (std::vector<uint64_t>{280, 280 + 0xFFFFFFFFULL, 280 + 0x1FFFFFFFDULL}));
    });
}

TEST_F(OpeningImages, TakesEveryEncryptedByteButZeroForEncrypted)
{
    full.encrypted = true;
    for (const uint8_t encrypted : Bytes{1, 2, 0x80, 0xFF}) {
        Bytes image = BuildImage(full);
        image[36] = encrypted;
        WriteBytes("sealed.kstx", image);
        ExpectFatal(Open("sealed.kstx"), FatalLine(passwordFault));
        ExpectOpens("sealed.kstx", "pw.txt", [](ImageFile &opened) { EXPECT_TRUE(opened.key.has_value()); });
        ExpectOpens("sealed.kstx", "other.txt"); // nothing tells a wrong password here
    }
    Bytes image = BuildImage(full);
    image[36] = 0;
    WriteBytes("sealed.kstx", image);
    ExpectOpens("sealed.kstx", "missing.txt"); // a plain image leaves the password file alone
    EXPECT_EQ(CountCalls(machine, "fopen_s"), 0U);
}

TEST_F(OpeningImages, PassesOnTheFaultsOfKeyMaking)
{
    full.encrypted = true;
    Write("sealed.kstx", full);
    ExpectFatal(Open("sealed.kstx", "missing.txt"), FatalLine("could not open password file", 2));
    WriteText("empty.txt", "\r\n");
    ExpectFatal(Open("sealed.kstx", "empty.txt"), FatalLine("password file is empty"));
    Bytes image = BuildImage(full);
    StoreInteger(image, 60, 0, 4);
    WriteBytes("sealed.kstx", image);
    ExpectFatal(Open("sealed.kstx", "pw.txt"), "FATAL: BCryptDeriveKeyPBKDF2 (NTSTATUS 0xC000000D)\n");
}

TEST_F(OpeningImages, TellsTheFirstOfSeveralFaults)
{
    thin.encrypted = true;
    Bytes image = BuildImage(thin);
    image.back() = 0xFF; // no trailer
    WriteBytes("bad.kstx", image);
    ExpectFatal(Open("bad.kstx"), FatalLine(passwordFault));
    ExpectFatal(Open("bad.kstx", "pw.txt"), FatalLine(noTrailerFault));
    WriteBytes("bad.kstx", Bytes(image.data(), image.data() + 100));
    ExpectFatal(Open("bad.kstx"), FatalLine(tableFault));
    image[0] = 'k';
    WriteBytes("bad.kstx", Bytes(image.data(), image.data() + 100));
    ExpectFatal(Open("bad.kstx"), FatalLine(magicFault));
}

TEST_F(OpeningImages, EndsAbnormallyAtATableThatMemoryDoesNotTake)
{
    for (const uint64_t chunkCount : {1ULL << 30, 1ULL << 57, 0x0E38E38E38E38E39ULL, 0xFFFFFFFFFFFFFFFFULL}) {
        Bytes image = BuildImage(full);
        StoreInteger(image, 28, chunkCount, 8);
        WriteBytes("huge.kstx", image);
        const RunResult result = Open("huge.kstx");
        EXPECT_TRUE(result.abnormalEnd) << chunkCount;
        EXPECT_EQ(result.errorText + result.outputText, "");
        EXPECT_EQ(CountCalls(machine, "ReadFile"), 1U);
    }
}

TEST_F(OpeningImages, TakesATableBeyondTheFilesEndForACutOne)
{
    Bytes image = BuildImage(full);
    StoreInteger(image, 28, 1000000, 8);
    WriteBytes("long.kstx", image);
    ExpectFatal(Open("long.kstx"), FatalLine(tableFault));
    EXPECT_EQ(Field(CallsOf(machine, "ReadFile").at(1), "length"), 72000000U);
}

TEST_F(OpeningImages, OpensImagesWithoutChunks)
{
    full.disk.clear();
    Write("full.kstx", full);
    ExpectOpens("full.kstx", "", [](ImageFile &image) { EXPECT_TRUE(image.chunkOffsets.empty()); });
    Write("thin.kstx", PlanOn(full, "full.kstx", {}));
    ExpectOpens("thin.kstx");
    EXPECT_EQ(CallsOf(machine, "SetFilePointerEx").at(3).text, "SetFilePointerEx file:thin.kstx#1 64");
}

TEST_F(OpeningImages, IgnoresWhatStandsBehindTheDataOfAFullImage)
{
    Bytes image = BuildImage(full);
    const Bytes tail = BuildTrailer("missing.kstx", {});
    image.insert(image.end(), tail.begin(), tail.end());
    WriteBytes("tail.kstx", image);
    ExpectOpens("tail.kstx", "", [](ImageFile &opened) { EXPECT_EQ(opened.baseName, ""); });
    EXPECT_EQ(CountCalls(machine, "GetFileSizeEx"), 0U);
}

TEST_F(OpeningImages, RefusesAThinImageCutAnywhereInItsTrailer)
{
    const uint64_t size = BuildImage(thin).size();
    for (uint64_t length = trailerStart; length < size; ++length) {
        ExpectFatal(OpenChanged([length](Bytes &image) { image.resize(length); }), FatalLine(noTrailerFault));
        // With fewer than 48 bytes behind the data nobody looks for a trailer.
        EXPECT_EQ(CountCalls(machine, "SetFilePointerEx"), length < trailerStart + 48 ? 0U : 1U);
    }
    ExpectFatal(OpenChanged([](Bytes &image) { image.resize(smallDataStart); }), FatalLine(noTrailerFault));
}

TEST_F(OpeningImages, TakesATotalLengthFrom48To4096ThatFitsBehindTheData)
{
    const auto withTotal = [this](uint32_t totalLength, uint64_t bytesBehindData) {
        return OpenChanged([=](Bytes &image) {
            image.resize(trailerStart);
            image.resize(trailerStart + bytesBehindData);
            StoreInteger(image, image.size() - 4, totalLength, 4);
        });
    };
    for (const uint32_t totalLength : {0U, 4U, 47U, 4097U, 0xFFFFFFFFU, 0x80000030U}) {
        ExpectFatal(withTotal(totalLength, 5000), FatalLine(noTrailerFault));
    }
    for (const uint32_t totalLength : {48U, 49U, 100U, 4096U}) {
        ExpectFatal(withTotal(totalLength, 5000), FatalLine(malformedFault));
        ExpectFatal(withTotal(totalLength, totalLength), FatalLine(malformedFault));
    }
    for (const uint32_t totalLength : {49U, 101U, 4096U}) {
        ExpectFatal(withTotal(totalLength, totalLength - 1), FatalLine(noTrailerFault));
    }
}

TEST_F(OpeningImages, TakesANameOfUpTo4048Bytes)
{
    FailCall(machine, "GetFileAttributesA", 1, ERROR_FILE_NOT_FOUND);
    thin.baseName = std::string(4048, 'n');
    Write("long.kstx", thin);
    ExpectFatal(Open("long.kstx"), "This is a thin (incremental) image; its base image is missing: " + thin.baseName +
                                       "\nKeep every image of a chain in the same folder.\n" +
                                       FatalLine("base image of a thin image not found", 2));
    thin.baseName += "n";
    Write("long.kstx", thin);
    ExpectFatal(Open("long.kstx"), FatalLine(noTrailerFault));
}

TEST_F(OpeningImages, RefusesAMalformedTrailer)
{
    for (size_t i = 0; i < 8; ++i) {
        ExpectFatal(OpenChanged([&](Bytes &image) { image[trailerStart + i] ^= 1; }), FatalLine(malformedFault));
    }
    for (const uint32_t nameLength : {0U, 8U, 10U, 57U, 0xFFFFFFFFU}) {
        ExpectFatal(OpenChanged([&](Bytes &image) { StoreInteger(image, trailerStart + 8, nameLength, 4); }),
                    FatalLine(malformedFault));
    }
    thin.baseName.clear(); // its total length is 48
    ExpectFatal(OpenChanged([](Bytes &) {}), FatalLine(malformedFault));
}

TEST_F(OpeningImages, RefusesABaseNameWithASeparatorOrAColon)
{
    for (const char *name : {"f/full.kstx", "/full.kstx", "full.kstx/", "..\\full.kstx", "\\", "full.kstx\\", "C:full",
                             ":", "full:kstx", "full.kstx:", "./full.kstx"}) {
        thin.baseName = name;
        ExpectFatal(OpenChanged([](Bytes &) {}), FatalLine(outsideFault));
        EXPECT_EQ(CountCalls(machine, "GetFileAttributesA"), 0U);
    }
}

TEST_F(OpeningImages, TakesABaseNameOfBlanksAndOtherSigns)
{
    thin.baseName = "full image (1), 'old' & ..+#%~=[x].kstx";
    Write(thin.baseName, full);
    Write("changed.kstx", thin);
    ExpectOpens("changed.kstx", "", [this](ImageFile &image) { EXPECT_EQ(image.baseName, thin.baseName); });
}

TEST_F(OpeningImages, AcceptsBytesBetweenTheDataAndTheTrailer)
{
    for (const size_t count : {1U, 4096U, 10000U}) {
        const RunResult result = OpenChanged(
            [&](Bytes &image) { image.insert(image.begin() + static_cast<ptrdiff_t>(trailerStart), count, 0xEE); });
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(result.exitStatus, 0);
    }
}

TEST_F(OpeningImages, ReportsAFailedCallInItsPlace)
{
    const struct {
        const char *call;
        uint32_t nth;
        const char *message;
    } rows[] = {{"ReadFile", 1, headerFault},
                {"ReadFile", 2, tableFault},
                {"SetFilePointerEx", 1, noTrailerFault},
                {"ReadFile", 3, noTrailerFault},
                {"SetFilePointerEx", 2, readTrailerFault},
                {"ReadFile", 4, readTrailerFault}};
    for (const auto &row : rows) {
        machine.faults.clear();
        FailCall(machine, row.call, row.nth, ERROR_CRC);
        ExpectFatal(Open("thin.kstx"), FatalLine(row.message, 23));
        EXPECT_EQ(machine.calls.back().text, "exit 1");
        EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U); // nothing is taken down
    }
}

TEST_F(OpeningImages, TakesAShortReadForAFailure)
{
    const struct {
        uint32_t nth;
        uint64_t length;
        const char *message;
    } rows[] = {{1, 64, headerFault}, {2, 216, tableFault}, {3, 4, noTrailerFault}, {4, 57, readTrailerFault}};
    for (const auto &row : rows) {
        for (const uint64_t moved : {uint64_t{0}, row.length - 1}) {
            machine.faults.clear();
            ShortenCall(machine, "ReadFile", row.nth, moved);
            ExpectFatal(Open("thin.kstx"), FatalLine(row.message));
        }
    }
}

TEST_F(OpeningImages, LooksAtNeitherTheSizeQuerysResultNorTheLastTwoSeeks)
{
    FailCall(machine, "GetFileSizeEx", 1, ERROR_IO_DEVICE).afterEffect = true;
    FailCall(machine, "SetFilePointerEx", 3, ERROR_IO_DEVICE);
    FailCall(machine, "SetFilePointerEx", 4, ERROR_IO_DEVICE);
    ExpectOpens("thin.kstx");
    EXPECT_EQ(machine.faultsFired, 3U);
    machine.faults.clear();
    FailCall(machine, "GetFileSizeEx", 1, ERROR_IO_DEVICE); // leaves the size at 0
    ExpectFatal(Open("thin.kstx"), FatalLine(noTrailerFault, 1117));
}
