// Which images and disks a restore may take, what has to be typed for one, and what a disk is after kestrix ended.
#include "kestrix-keep/restore_choices.h"

#include <gtest/gtest.h>

namespace
{

constexpr uint64_t imageBytes = 1000000000;

host::DiskFacts Target(uint32_t number, const std::string &serial, uint64_t sizeBytes = imageBytes)
{
    host::DiskFacts disk;
    disk.number = number;
    disk.node = "/dev/disk-of-test-" + std::to_string(number);
    disk.serial = serial;
    disk.sizeBytes = sizeBytes;
    disk.logicalSectorBytes = 512;
    disk.deviceNumber = "8:" + std::to_string(16 * number);
    return disk;
}

TargetRules Rules()
{
    TargetRules rules;
    rules.diskBytes = imageBytes;
    rules.sectorBytes = 512;
    return rules;
}

// Why the disk, alone in its machine, can't be overwritten; empty: it can.
std::string WhyNot(const host::DiskFacts &disk, const TargetRules &rules = Rules())
{
    const std::optional<Refusal> refusal = WhyNoTarget(disk, {disk}, rules);
    return refusal ? refusal->why : "";
}

// "end of 6", "size", "nothing".
std::string Asked(const host::DiskFacts &disk, const std::vector<host::DiskFacts> &others)
{
    std::vector<host::DiskFacts> all = others;
    all.push_back(disk);
    const Proof proof = ProofForPerson(disk, all);
    return proof.kind == ProofKind::SerialEnd ? "end of " + std::to_string(proof.characters)
           : proof.kind == ProofKind::Size    ? "size " + proof.text
                                              : "nothing";
}

bool Accepts(const host::DiskFacts &disk, const std::vector<host::DiskFacts> &others, const std::string &typed)
{
    std::vector<host::DiskFacts> all = others;
    all.push_back(disk);
    return IsProof(ProofForPerson(disk, all), disk, typed);
}

host::ProgramEnd EndedWith(int exitStatus)
{
    host::ProgramEnd end;
    end.exitStatus = exitStatus;
    return end;
}

reader::ImageFacts SoundImage()
{
    reader::ImageFacts facts;
    facts.kind = reader::FileKind::Image;
    facts.header.diskSize = 10000;
    facts.header.chunkSize = 4096;
    facts.header.chunkCount = 3;
    facts.hasTable = true;
    return facts;
}

} // namespace

// ---- Disks ----

TEST(RestoreTarget, IsAFreeDiskOfTheSameSizeAndSectors)
{
    EXPECT_EQ(WhyNot(Target(1, "S123456")), "");
    EXPECT_EQ(WhyNot(Target(1, "S123456", imageBytes + 512)), "");
}

TEST(RestoreTarget, IsNeverTheDiskThatTheImageLiesOn)
{
    TargetRules rules = Rules();
    rules.imageDisks = {"7:3", "8:16"};
    EXPECT_EQ(WhyNot(Target(1, "S123456"), rules), "the image lies on it");
    EXPECT_EQ(WhyNot(Target(2, "S123456"), rules), "");
}

TEST(RestoreTarget, IsKnownByItsNumberWhereTheSystemHasNoDeviceNumbers)
{
    TargetRules rules = Rules();
    rules.imageDisks = {"1"};
    host::DiskFacts disk = Target(1, "S123456");
    disk.deviceNumber.clear();
    EXPECT_EQ(WhyNot(disk, rules), "the image lies on it");
    disk.number = 11;
    EXPECT_EQ(WhyNot(disk, rules), "");
}

TEST(RestoreTarget, InAFileLiesOnNoDiskOfThatNumber)
{
    TargetRules rules = Rules();
    rules.imageDisks = {"1"};
    host::DiskFacts disk = Target(1, "S123456");
    disk.deviceNumber.clear();
    disk.file = {5, 6};
    EXPECT_EQ(WhyNot(disk, rules), "");
}

TEST(RestoreTarget, IsNeverTheSystemDiskNorTheOneItWasStartedFrom)
{
    host::DiskFacts disk = Target(1, "S123456");
    TargetRules rules = Rules();
    rules.startDisks = {"8:16"};
    EXPECT_EQ(WhyNot(disk, rules), "the running system was started from it");
    disk.isSystemDisk = true;
    EXPECT_EQ(WhyNot(disk), "the running system lies on it");
}

TEST(RestoreTarget, IsNotSmallerByASingleByte)
{
    EXPECT_EQ(WhyNot(Target(1, "S123456", imageBytes - 1)),
              "it is smaller than the image's disk: 999999999 bytes, not 1000000000");
}

TEST(RestoreTarget, HasTheSameSectorsUnlessOthersAreTaken)
{
    host::DiskFacts disk = Target(1, "S123456");
    TargetRules rules = Rules();
    disk.logicalSectorBytes = 4096;
    EXPECT_EQ(WhyNot(disk), "its sectors have 4096 bytes, those of the image's disk have 512");
    disk.logicalSectorBytes = 0;
    EXPECT_EQ(WhyNot(disk), "how long its sectors are is not known, those of the image's disk have 512");
    rules.takesOtherSectors = true;
    EXPECT_EQ(WhyNot(disk, rules), "");
}

TEST(RestoreTarget, IsNotInUseAndTheReasonSaysByWhat)
{
    host::DiskFacts disk = Target(1, "S123456");
    disk.isInUse = true;
    disk.partitions.resize(2);
    disk.partitions[0].mounts = {"/srv", "/mnt"};
    disk.partitions[0].holders = {"vault"};
    disk.partitions[1].isSwap = true;
    disk.partitions[1].node = "/dev/sdq2";
    EXPECT_EQ(WhyNot(disk), "it is in use, mounted at /srv, /mnt, held by vault, used as swap: /dev/sdq2");
    disk.partitions.clear();
    EXPECT_EQ(WhyNot(disk),
              "it is in use; by what can't be told: a volume that is mounted nowhere here, a pool of ZFS, "
              "another program");
}

TEST(RestoreTarget, CanBeRead)
{
    host::DiskFacts disk = Target(1, "S123456");
    disk.unreadable = "Permission denied";
    EXPECT_EQ(WhyNot(disk), "what lies on it can't be read: Permission denied");
}

TEST(RestoreTarget, OfTwoThatNothingTellsApartIsNeither)
{
    const host::DiskFacts disk = Target(1, "0123456789");
    const host::DiskFacts twin = Target(2, "0123456789");
    const std::optional<Refusal> refusal = WhyNoTarget(disk, {disk, twin}, Rules());
    ASSERT_TRUE(refusal);
    EXPECT_NE(refusal->remedy.find("unplug one"), std::string::npos);
    EXPECT_TRUE(WhyNoTarget(twin, {disk, twin}, Rules()));
    EXPECT_FALSE(WhyNoTarget(disk, {disk}, Rules()));
}

TEST(RestoreTarget, SaysFirstWhatMustNeverBe)
{
    host::DiskFacts disk = Target(1, "", 1);
    disk.isInUse = true;
    disk.isSystemDisk = true;
    disk.unreadable = "?";
    TargetRules rules = Rules();
    rules.imageDisks = {disk.deviceNumber};
    EXPECT_EQ(WhyNot(disk, rules), "the image lies on it");
    rules.imageDisks.clear();
    EXPECT_EQ(WhyNot(disk, rules), "the running system lies on it");
}

// ---- What is typed ----

TEST(RestoreProof, IsFourCharactersWhereTheyTellTheDiskFromAllOthers)
{
    EXPECT_EQ(Asked(Target(1, "AAAA1234"), {}), "end of 4");
    EXPECT_EQ(Asked(Target(1, "AAAA1234"), {Target(2, "AAAA1235"), Target(3, "")}), "end of 4");
}

TEST(RestoreProof, IsAsManyCharactersAsTellTheDisksApart)
{
    EXPECT_EQ(Asked(Target(1, "XY1234"), {Target(2, "XZ1234")}), "end of 5");
    EXPECT_EQ(Asked(Target(1, "AB1234"), {Target(2, "CB1234"), Target(3, "AX1234")}), "end of 6");
}

TEST(RestoreProof, IsTheSizeWhereTheSerialHasLessThanFourCharacters)
{
    EXPECT_EQ(Asked(Target(1, "0", 512), {Target(2, "B1", 513)}), "size 512");
    EXPECT_EQ(Asked(Target(1, "0AB", 512), {Target(2, "B1", 512)}), "nothing");
    EXPECT_EQ(Asked(Target(1, "0ABC", 512), {Target(2, "B1", 512)}), "end of 4");
}

TEST(RestoreProof, IsTheSizeWhereTheSerialSaysNothing)
{
    EXPECT_EQ(Asked(Target(1, "", 512), {Target(2, "AAAA1234", 513)}), "size 512");
    EXPECT_EQ(Asked(Target(1, "SAME", 512), {Target(2, "SAME", 513)}), "size 512");
    EXPECT_EQ(Asked(Target(1, "", 512), {Target(2, "AAAA1234", 512)}), "nothing");
}

TEST(RestoreProof, OfASerialThatEndsAnotherOneIsNoPartOfIt)
{
    EXPECT_EQ(Asked(Target(1, "1234", 512), {Target(2, "XX1234", 513)}), "size 512");
    EXPECT_EQ(Asked(Target(1, "1234", 512), {Target(2, "XX1234", 512)}), "nothing");
    EXPECT_EQ(Asked(Target(2, "XX1234", 512), {Target(1, "1234", 512)}), "end of 5");
}

TEST(RestoreProof, TellsNoDisksApartByTheSizeOfLettersOrBlanks)
{
    EXPECT_EQ(Asked(Target(1, "WD-ab 12", 512), {Target(2, "WD-AB12", 512)}), "nothing");
    EXPECT_TRUE(Accepts(Target(1, "WD-ab 12"), {}, "AB12"));
    EXPECT_FALSE(Accepts(Target(1, "WD-ab 12"), {}, "b 12 ")); // three characters
}

TEST(RestoreProof, IsTakenFromTheEndAndInFull)
{
    const host::DiskFacts disk = Target(1, "ABCD1234");
    EXPECT_TRUE(Accepts(disk, {}, "1234"));
    EXPECT_TRUE(Accepts(disk, {}, "ABCD1234"));
    for (const char *wrong : {"", "234", "ABCD", "1235", "XABCD1234", "1234 5", "y", "YES"}) {
        EXPECT_FALSE(Accepts(disk, {}, wrong)) << wrong;
    }
    EXPECT_FALSE(Accepts(disk, {Target(2, "XXXX1234")}, "1234"));
    EXPECT_TRUE(Accepts(disk, {Target(2, "XXXX1234")}, "D1234"));
}

TEST(RestoreProof, BySizeIsEachDigit)
{
    EXPECT_TRUE(Accepts(Target(1, "", 4096), {}, "4096"));
    for (const char *wrong : {"", "096", "04096", "4096.0", "8192"}) {
        EXPECT_FALSE(Accepts(Target(1, "", 4096), {}, wrong)) << wrong;
    }
}

TEST(RestoreProof, OfADiskThatHasNothingIsNothingAtAll)
{
    EXPECT_FALSE(Accepts(Target(1, "SAME", 512), {Target(2, "SAME", 512)}, "SAME"));
    EXPECT_FALSE(Accepts(Target(1, "", 512), {Target(2, "", 512)}, ""));
    EXPECT_FALSE(Accepts(Target(1, "", 512), {Target(2, "", 512)}, "512"));
}

TEST(RestoreProof, OfAScriptIsTheWholeSerialToTheLetter)
{
    const host::DiskFacts disk = Target(1, "ABCD 1234", 512);
    EXPECT_EQ(ProofForScript(disk, {disk}).text, "ABCD 1234");
    EXPECT_EQ(ProofForScript(disk, {disk, Target(2, "X", 512)}).text, "ABCD 1234");
    EXPECT_EQ(ProofForScript(disk, {disk, Target(2, "ABCD 1234", 513)}).text, "512");
    EXPECT_EQ(ProofForScript(disk, {disk, Target(2, "ABCD 1234", 512)}).kind, ProofKind::Nothing);
    EXPECT_EQ(ProofForScript(Target(1, "", 512), {Target(1, "", 512)}).text, "512");
}

// ---- Images ----

TEST(RestorableImage, IsOneOfWhichNothingIsMissing)
{
    EXPECT_EQ(WhyNotRestorable(SoundImage(), {}), "");
    EXPECT_EQ(WhyNotRestorable(SoundImage(), {{"full.kstx", PartState::There, {}}}), "");
}

TEST(RestorableImage, SaysWhatOfItsChainIsWrong)
{
    const std::vector<ChainPart> missing = {{"thin.kstx", PartState::There, {}}, {"full.kstx", PartState::Missing, {}}};
    EXPECT_EQ(WhyNotRestorable(SoundImage(), missing),
              "full.kstx, which it stands on, is missing: put it into the same folder");
    EXPECT_EQ(WhyNotRestorable(SoundImage(), {{"full.kstx", PartState::Replaced, {}}}),
              "full.kstx, which it stands on, is another image than the one it was made on");
    EXPECT_EQ(WhyNotRestorable(SoundImage(), {{"full.kstx", PartState::Faulty, "it is cut short"}}),
              "full.kstx, which it stands on, can't be used: it is cut short");
}

TEST(RestorableImage, IsNoUnfinishedOrDamagedFile)
{
    reader::ImageFacts facts = SoundImage();
    facts.kind = reader::FileKind::Unfinished;
    EXPECT_EQ(WhyNotRestorable(facts, {}), "it was never finished");
    facts.kind = reader::FileKind::Damaged;
    facts.fault = reader::Fault{reader::FaultKind::Damaged, "a.kstx: its table is cut short"};
    EXPECT_EQ(WhyNotRestorable(facts, {}), "a.kstx: its table is cut short");
    facts.kind = reader::FileKind::Other;
    facts.fault.reset();
    EXPECT_EQ(WhyNotRestorable(facts, {}), "it is no image");
}

TEST(RestorableImage, HasChunksForAllOfItsDisk)
{
    reader::ImageFacts facts = SoundImage();
    facts.header.diskSize = 12289;
    EXPECT_EQ(WhyNotRestorable(facts, {}), "it has no chunks for the last 1 byte of its disk");
}

// ---- After kestrix ----

TEST(StateAfterRestore, IsWrittenAfterAGoodEnd)
{
    EXPECT_EQ(StateAfter(EndedWith(0), {"Restoring a -> PhysicalDrive1 (1 chunks, 0.00 GiB)", "Restore complete."}),
              DiskState::Written);
}

TEST(StateAfterRestore, IsUntouchedAfterARefusal)
{
    EXPECT_EQ(StateAfter(EndedWith(1), {"Refusing: target disk 1 is 0.00 GiB, smaller than the image's"}),
              DiskState::Untouched);
    EXPECT_EQ(StateAfter(EndedWith(1), {"NOTE: Restoring is not what this line says", "FATAL: could not open it"}),
              DiskState::Untouched);
}

TEST(StateAfterRestore, IsPartlyWrittenAfterAnyFailureSinceItBegan)
{
    EXPECT_EQ(StateAfter(EndedWith(1), {"Restoring a -> PhysicalDrive1 (1 chunks, 0.00 GiB)",
                                        "FATAL: chunk failed authentication (corrupt or tampered image)"}),
              DiskState::PartlyWritten);
}

// Its first lines may still have been on their way when it was ended.
TEST(StateAfterRestore, IsPartlyWrittenAfterAnEndThatIsNotItsOwn)
{
    host::ProgramEnd killed;
    killed.wasEnded = true;
    EXPECT_EQ(StateAfter(killed, {}), DiskState::PartlyWritten);
    EXPECT_EQ(StateAfter(EndedWith(1), {}), DiskState::PartlyWritten); // Windows' Task Manager gives this status
    EXPECT_EQ(StateAfter(EndedWith(-1073741510), {}), DiskState::PartlyWritten); // Ctrl-C on Windows
    EXPECT_EQ(StateAfter(EndedWith(134), {}), DiskState::PartlyWritten);
}
