// Chains: where a base is looked for, what must fit between a thin image and its base, how deep a chain may be, and who
// owns what of an opened one.
//
// The pin and the geometry are compared on the way back from the deepest image, so its fault is the one that shows.
#include "image/small_images.h"

#include <filesystem>
#include <type_traits>
#include <utility>

static_assert(!std::is_copy_constructible_v<ImageFile> && !std::is_copy_assignable_v<ImageFile>);

namespace
{
const char depthFault[] = "image chain is too deep (or loops back on itself)";
const char geometryFault[] = "base image geometry differs from the thin image";

std::string MissingBase(const std::string &path, uint32_t lastError = 2)
{
    return "This is a thin (incremental) image; its base image is missing: " + path +
           "\nKeep every image of a chain in the same folder.\n" +
           FatalLine("base image of a thin image not found", lastError);
}

std::string OtherBase(const std::string &path)
{
    return "Base image " + path + " is not the one this image was made against (it was modified or replaced).\n" +
           FatalLine("base image does not match the one pinned in the thin image");
}

// bottom.kstx, mid.kstx with chunk 1 changed, top.kstx with chunk 2 changed; each encrypted as asked.
struct Chains : SmallImages {
    void WriteChain(bool bottomEncrypted = false, bool midEncrypted = false, bool topEncrypted = false)
    {
        bottom = FullPlan();
        bottom.encrypted = bottomEncrypted;
        mid = PlanOn(bottom, "bottom.kstx", {1});
        mid.encrypted = midEncrypted;
        mid.salt[0] = 0x55;
        top = PlanOn(mid, "mid.kstx", {2});
        top.encrypted = topEncrypted;
        top.salt[0] = 0x77;
        Write("bottom.kstx", bottom);
        Write("mid.kstx", mid);
        Write("top.kstx", top);
    }

    // Images "0" to "count - 1" of one sector, each but the first a thin one on the one before; gives the last's name.
    std::string WriteLongChain(uint32_t count)
    {
        ImagePlan plan = FullPlan();
        plan.disk = PatternBytes(512, 1);
        Write("0", plan);
        for (uint32_t i = 1; i < count; ++i) {
            plan = PlanOn(plan, std::to_string(i - 1), {});
            Write(std::to_string(i), plan);
        }
        return std::to_string(count - 1);
    }

    // A thin image pinned to whatever these bytes in base.kstx are.
    void WriteThinOn(const Bytes &base)
    {
        WriteBytes("base.kstx", base);
        ImagePlan plan = PlanOn(FullPlan(), "base.kstx", {1});
        plan.basePin = ImageIdOf(base);
        Write("thin.kstx", plan);
    }

    ImagePlan bottom;
    ImagePlan mid;
    ImagePlan top;
};
} // namespace

TEST_F(Chains, OpenWithEveryImageBehindTheTopOne)
{
    WriteChain();
    ExpectOpens("top.kstx", "", [this](ImageFile &image) {
        EXPECT_EQ(image.baseName, "mid.kstx");
        EXPECT_EQ(image.base->baseName, "bottom.kstx");
        EXPECT_EQ(image.base->imageId, ImageIdOf(BuildImage(mid)));
        EXPECT_EQ(image.base->base->imageId, ImageIdOf(BuildImage(bottom)));
        EXPECT_EQ(image.base->base->base, nullptr);
    });
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 3U);
    EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U); // closing is the operation's, or the end of the process's
}

TEST_F(Chains, DeriveAKeyForEachEncryptedImageFromItsOwnSalt)
{
    WriteChain(true, false, true);
    ExpectOpens("top.kstx", "pw.txt", [](ImageFile &image) {
        EXPECT_TRUE(image.key.has_value());
        EXPECT_FALSE(image.base->key.has_value());
        EXPECT_TRUE(image.base->base->key.has_value());
    });
    EXPECT_EQ(CountCalls(machine, "fopen_s"), 2U);
    const std::vector<Call> derivations = CallsOf(machine, "BCryptDeriveKeyPBKDF2");
    ASSERT_EQ(derivations.size(), 2U);
    EXPECT_EQ(derivations[0].input, Bytes(top.salt.begin(), top.salt.end()));
    EXPECT_EQ(derivations[1].input, Bytes(bottom.salt.begin(), bottom.salt.end()));
}

TEST_F(Chains, AskForThePasswordOfAnEncryptedImageBehindAPlainOne)
{
    WriteChain(true, false, false);
    ExpectFatal(Open("top.kstx"), FatalLine("this image is encrypted - pass --password-file"));
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 3U);
}

TEST_F(Chains, OpenWithABaseThatWasMadeWithAnotherPassword)
{
    WriteChain(true, true, true);
    bottom.password = "another";
    mid.basePin = ImageIdOf(BuildImage(bottom));
    top.basePin = ImageIdOf(BuildImage(mid));
    Write("bottom.kstx", bottom);
    Write("mid.kstx", mid);
    Write("top.kstx", top);
    ExpectOpens("top.kstx", "pw.txt");
    Fetch("top.kstx", 2, "pw.txt");
    EXPECT_EQ(fetchResult.exitStatus, 0) << fetchResult.errorText;
    Fetch("top.kstx", 0, "pw.txt");
    ExpectFatal(fetchResult, FatalLine("chunk failed authentication (corrupt or tampered image)"));
}

TEST_F(Chains, LookForTheBaseInTheFolderOfTheImageAsItWasNamed)
{
    WriteChain();
    std::filesystem::create_directories("f/g");
    for (const char *name : {"bottom.kstx", "mid.kstx", "top.kstx"}) {
        std::filesystem::rename(name, std::string("f/g/") + name);
    }
    for (const std::string folder : {"f/g/", "./f/g/", "f/../f/g/", "f//g/"}) {
        ExpectOpens(folder + "top.kstx");
        EXPECT_EQ(CallsOf(machine, "GetFileAttributesA").at(0).object, "file:" + folder + "mid.kstx");
        EXPECT_EQ(CallsOf(machine, "CreateFileW").at(2).object, "file:" + folder + "bottom.kstx");
    }
    ExpectOpens(scratch.Path("f/g/top.kstx"));
    std::remove("f/g/bottom.kstx");
    ExpectFatal(Open("f/g/top.kstx"), MissingBase("f/g/bottom.kstx"));
}

TEST_F(Chains, CountABackslashAsASeparatorToo)
{
    WriteChain();
    std::filesystem::create_directory("odd");
    Write("odd\\thin.kstx", mid);
    ExpectFatal(Open("odd\\thin.kstx"), MissingBase("odd\\bottom.kstx"));
    Write("odd\\bottom.kstx", bottom);
    ExpectOpens("odd\\thin.kstx");
}

TEST_F(Chains, NameTheBaseThatIsMissing)
{
    WriteChain();
    std::filesystem::rename("mid.kstx", "renamed.kstx");
    ExpectFatal(Open("top.kstx"), MissingBase("mid.kstx"));
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 1U);
    std::filesystem::rename("renamed.kstx", "mid.kstx");
    FailCall(machine, "GetFileAttributesA", 2, ERROR_ACCESS_DENIED);
    ExpectFatal(Open("top.kstx"), MissingBase("bottom.kstx", 5));
}

TEST_F(Chains, FailToOpenAFolderThatStandsWhereTheBaseBelongs)
{
    WriteChain();
    std::remove("bottom.kstx");
    std::filesystem::create_directory("bottom.kstx");
    ExpectFatal(Open("mid.kstx"),
                "could not open image file: bottom.kstx\n" + FatalLine("could not open image file", 5));
}

TEST_F(Chains, PassOnTheFaultsOfABase)
{
    WriteChain();
    WriteText("mid.kstx", "short");
    ExpectFatal(Open("top.kstx"), FatalLine("could not read image header - file is truncated or not a .kstx image"));
    WriteChain();
    FailCall(machine, "CreateFileW", 3, ERROR_SHARING_VIOLATION);
    ExpectFatal(Open("top.kstx"),
                "could not open image file: bottom.kstx\n" + FatalLine("could not open image file", 32));
}

TEST_F(Chains, RefuseABaseWhoseHeaderOrTableIsNotTheOnePinned)
{
    WriteChain();
    const Bytes original = BuildImage(bottom);
    for (const size_t offset : {size_t{20}, size_t{37}, size_t{44}, size_t{63}, size_t{64}, size_t{76}, size_t{279}}) {
        Bytes changed = original;
        changed[offset] ^= 1;
        WriteBytes("bottom.kstx", changed);
        ExpectFatal(Open("mid.kstx"), OtherBase("bottom.kstx"));
    }
    bottom.epoch = 7; // the same disk at another time
    Write("bottom.kstx", bottom);
    ExpectFatal(Open("./mid.kstx"), OtherBase("./bottom.kstx"));
}

TEST_F(Chains, TakeEqualImagesForEachOtherAndLeaveDataToTheFetching)
{
    WriteChain();
    Bytes changed = BuildImage(bottom);
    changed[smallDataStart] ^= 1;
    WriteBytes("bottom.kstx", changed);
    ExpectOpens("top.kstx");
}

TEST_F(Chains, ComparePinsInTheTrailerOnly)
{
    WriteChain();
    for (const size_t i : {0U, 31U}) {
        mid.basePin = ImageIdOf(BuildImage(bottom));
        mid.basePin[i] ^= 0x80;
        Write("mid.kstx", mid);
        ExpectFatal(Open("mid.kstx"), OtherBase("bottom.kstx"));
    }
}

TEST_F(Chains, RefuseABaseOfAnotherGeometry)
{
    ImagePlan other = FullPlan();
    other.disk.push_back(0); // as many chunks of the same size
    WriteThinOn(BuildImage(other));
    ExpectFatal(Open("thin.kstx"), FatalLine(geometryFault));
    other = FullPlan();
    other.chunkSize = 3072; // three of them are the same disk
    WriteThinOn(BuildImage(other));
    ExpectFatal(Open("thin.kstx"), FatalLine(geometryFault));
    Bytes shorter = BuildImage(FullPlan());
    StoreInteger(shorter, 28, 2, 8);
    WriteThinOn(shorter);
    ExpectFatal(Open("thin.kstx"), FatalLine(geometryFault));
}

TEST_F(Chains, AcceptABaseThatDiffersInAnythingElse)
{
    ImagePlan other = FullPlan();
    other.sectorSize = 4096;
    other.epoch = 0x12345;
    other.encrypted = true;
    other.kdfIterations = 9;
    other.salt[3] = 0xEE;
    WriteThinOn(BuildImage(other));
    ExpectOpens("thin.kstx", "pw.txt");
}

TEST_F(Chains, ReportThePinAheadOfTheGeometry)
{
    ImagePlan other = FullPlan();
    other.disk.push_back(0);
    WriteThinOn(BuildImage(FullPlan()));
    Write("base.kstx", other);
    ExpectFatal(Open("thin.kstx"), OtherBase("base.kstx"));
}

TEST_F(Chains, ReportTheFaultOfTheDeepestImage)
{
    WriteChain();
    top.basePin[0] ^= 1;
    Write("top.kstx", top);
    ExpectFatal(Open("top.kstx"), OtherBase("mid.kstx"));
    bottom.epoch = 1;
    Write("bottom.kstx", bottom);
    ExpectFatal(Open("top.kstx"), OtherBase("bottom.kstx"));
    bottom.epoch = 0;
    bottom.disk.push_back(0);
    mid.basePin = ImageIdOf(BuildImage(bottom));
    Write("bottom.kstx", bottom);
    Write("mid.kstx", mid);
    ExpectFatal(Open("top.kstx"), FatalLine(geometryFault));
}

TEST_F(Chains, NeedTheirBaseEvenWhereEveryChunkChanged)
{
    WriteChain();
    Write("mid.kstx", PlanOn(bottom, "bottom.kstx", {0, 1, 2}));
    ExpectOpens("mid.kstx");
    std::remove("bottom.kstx");
    ExpectFatal(Open("mid.kstx"), MissingBase("bottom.kstx"));
}

TEST_F(Chains, OfSixtyFiveImagesOpenAndOneMoreIsTooDeep)
{
    const std::string longest = WriteLongChain(66);
    ExpectOpens("64");
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 65U);
    ExpectFatal(Open(longest), FatalLine(depthFault));
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 65U); // the image too deep is never opened
    EXPECT_EQ(CountCalls(machine, "GetFileAttributesA"), 65U);
}

TEST_F(Chains, CountDepthFromTheOneGiven)
{
    WriteChain();
    const auto openAt = [this](const std::string &path, int32_t depth) {
        return RunCode(machine, [&] { OpenImage(path, "", depth); });
    };
    EXPECT_EQ(openAt("bottom.kstx", 64).exitStatus, 0);
    EXPECT_EQ(openAt("mid.kstx", 63).exitStatus, 0);
    ExpectFatal(openAt("mid.kstx", 64), FatalLine(depthFault));
    machine.lastError = 99;
    ExpectFatal(openAt("bottom.kstx", 65), FatalLine(depthFault, 99));
    ExpectFatal(openAt("missing.kstx", 2147483647), FatalLine(depthFault, 99));
    EXPECT_EQ(CountCalls(machine, "CreateFileW"), 0U);
}

TEST_F(Chains, ThatLoopEndByTheirDepth)
{
    WriteChain();
    bottom = PlanOn(bottom, "mid.kstx", {});
    Write("bottom.kstx", bottom);
    ExpectFatal(Open("mid.kstx"), FatalLine(depthFault));
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "file:mid.kstx"), 33U);
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "file:bottom.kstx"), 32U);
    mid.baseName = "mid.kstx";
    Write("mid.kstx", mid);
    ExpectFatal(Open("mid.kstx"), FatalLine(depthFault));
}

TEST_F(Chains, MoveWithEverythingThatTheyOwn)
{
    WriteChain(true, true, true);
    ExpectOpens("top.kstx", "pw.txt", [this](ImageFile &source) {
        const ImageFile *base = source.base.get();
        const ChunkEntry *table = source.table.data();
        machine.calls.clear();
        const ImageFile target = std::move(source);
        EXPECT_EQ(target.base.get(), base);
        EXPECT_EQ(target.table.data(), table);
        EXPECT_EQ(target.table.size(), 3U);
        EXPECT_EQ(target.chunkOffsets.size(), 3U);
        EXPECT_EQ(target.baseName, "mid.kstx");
        EXPECT_NE(target.key->keyHandle, nullptr);

        EXPECT_EQ(source.base, nullptr);
        EXPECT_EQ(source.table.size(), 0U);
        EXPECT_TRUE(source.chunkOffsets.empty());
        EXPECT_EQ(source.baseName, "");
        ASSERT_TRUE(source.key.has_value());
        EXPECT_EQ(source.key->keyHandle, nullptr);
        EXPECT_EQ(source.key->algorithm, nullptr);
        EXPECT_EQ(source.file, target.file); // plain values are copied along
        EXPECT_EQ(source.imageId, target.imageId);
        EXPECT_EQ(uint64_t{source.header.chunkCount}, 3U);
        EXPECT_EQ(LogText(machine), "");
    });
    EXPECT_EQ(CountCalls(machine, "BCryptDestroyKey"), 3U); // and none twice
    EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U);
}

TEST_F(Chains, ReleaseWhatAnAssignmentReplacesButCloseNoFile)
{
    WriteChain(true, true, true);
    ExpectOpens("mid.kstx", "pw.txt", [this](ImageFile &target) {
        ImageFile source = OpenImage("top.kstx", "pw.txt", 0);
        machine.calls.clear();
        target = std::move(source);
        EXPECT_EQ(LogText(machine), "BCryptDestroyKey key#1\nBCryptCloseAlgorithmProvider aes#1\n"
                                    "BCryptDestroyKey key#2\nBCryptCloseAlgorithmProvider aes#2\n");
        EXPECT_EQ(target.baseName, "mid.kstx");
        EXPECT_EQ(target.base->baseName, "bottom.kstx");
        machine.calls.clear();
        target = ImageFile();
        EXPECT_EQ(CountCalls(machine, "BCryptDestroyKey"), 3U);
        EXPECT_FALSE(target.key.has_value());
        EXPECT_EQ(target.table.size(), 0U);
        EXPECT_EQ(target.base, nullptr);
        EXPECT_EQ(target.baseName, "");
        EXPECT_EQ(CountCalls(machine, "CloseHandle"), 0U);
    });
}
