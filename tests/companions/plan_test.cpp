// Full or thin, on which base, and what is made of kestrix's lines.
#include "kestrix-keep/capture.h"
#include "kestrix-keep/plan.h"

#include <gtest/gtest.h>

#include <algorithm>

static constexpr int64_t now = 1795348800;
static constexpr int64_t day = 86400;
static constexpr uint64_t MiB = 1 << 20;

static const DiskIdentity disk = {"Model", "S1", "0x5000", 1000 * MiB, 512};

static KeptImage Image(uint64_t number, int64_t ageDays, const std::string &base = "")
{
    KeptImage image;
    Sidecar sidecar;
    image.name = "job-" + std::to_string(number) + ".kstx";
    image.time = now - ageDays * day;
    image.isThere = true;
    image.chainLength = base.empty() ? 1 : 2;
    sidecar.number = number;
    sidecar.disk = disk;
    sidecar.startedAt = image.time;
    sidecar.base = base;
    sidecar.fileBytes = base.empty() ? 1000 * MiB : 10 * MiB;
    sidecar.isSound = true;
    image.sidecar = sidecar;
    return image;
}

// A full image of three days ago, and two thin ones on it.
static JobFolder Folder()
{
    JobFolder folder;
    folder.images = {Image(1, 3), Image(2, 2, "job-1.kstx"), Image(3, 1, "job-1.kstx")};
    folder.images[1].base = 0;
    folder.images[2].base = 0;
    return folder;
}

static bool Says(const CapturePlan &plan, const std::string &text)
{
    return std::any_of(plan.reasons.begin(), plan.reasons.end(),
                       [&text](const std::string &reason) { return reason.find(text) != std::string::npos; });
}

TEST(Plan, TheFirstImageIsAFullOne)
{
    const CapturePlan plan = MakePlan(Job(), JobFolder(), disk, now);
    EXPECT_EQ(plan.base, noImage);
    EXPECT_TRUE(Says(plan, "it is the first"));
}

TEST(Plan, AThinImageStandsOnTheNewestFullOne)
{
    const CapturePlan plan = MakePlan(Job(), Folder(), disk, now);
    EXPECT_EQ(plan.base, 0U);
    EXPECT_TRUE(Says(plan, "a thin image on job-1.kstx"));
}

TEST(Plan, ByTheOtherSchemeItStandsOnTheNewestImage)
{
    Job job;
    job.base = BaseScheme::Newest;
    EXPECT_EQ(MakePlan(job, Folder(), disk, now).base, 2U);
}

TEST(Plan, AFullImageIsMadeWhenTheLastIsOldEnough)
{
    Job job;
    job.newFull.everySeconds = 3 * day;
    EXPECT_EQ(MakePlan(job, Folder(), disk, now).base, noImage);
    EXPECT_EQ(MakePlan(job, Folder(), disk, now - 1800).base, noImage) << "a run begins a little early";
    EXPECT_EQ(MakePlan(job, Folder(), disk, now - 2 * 3600).base, 0U);
}

TEST(Plan, AFullImageIsMadeWhenAThinOneTookMoreThanItsShare)
{
    Job job;
    JobFolder folder = Folder();
    folder.images[2].sidecar->fileBytes = 501 * MiB;
    EXPECT_TRUE(Says(MakePlan(job, folder, disk, now), "more than 50% of the full one"));
    folder.images[2].sidecar->fileBytes = 499 * MiB;
    EXPECT_EQ(MakePlan(job, folder, disk, now).base, 0U);
}

TEST(Plan, NoChainGrowsPastItsLimit)
{
    Job job;
    job.base = BaseScheme::Newest;
    job.newFull.chain = 2;
    EXPECT_TRUE(Says(MakePlan(job, Folder(), disk, now), "the chain has 2 images"));
    job.newFull.chain = 3;
    EXPECT_EQ(MakePlan(job, Folder(), disk, now).base, 2U);
}

TEST(Plan, AnotherDiskIsCapturedInFull)
{
    for (int i = 0; i < 4; ++i) {
        DiskIdentity other = disk;
        other.serial = i == 0 ? "S2" : other.serial;
        other.wwn = i == 1 ? "" : other.wwn;
        other.sizeBytes += i == 2 ? 512 : 0;
        other.sectorBytes = i == 3 ? 4096 : other.sectorBytes;
        const CapturePlan plan = MakePlan(Job(), Folder(), other, now);
        EXPECT_EQ(plan.base, noImage) << i;
        EXPECT_TRUE(Says(plan, "the disk is another")) << i;
    }
}

TEST(Plan, WhatIsInDoubtIsNoBaseAndTheNextOneIs)
{
    Job job;
    job.base = BaseScheme::Newest;
    JobFolder folder = Folder();
    folder.images[2].doubt = "it has 5 bytes";
    const CapturePlan plan = MakePlan(job, folder, disk, now);
    EXPECT_EQ(plan.base, 1U);
    EXPECT_TRUE(Says(plan, "job-3.kstx is no base: it has 5 bytes"));
}

TEST(Plan, AnImageThatMayNotBeABaseIsNone)
{
    Job job;
    job.base = BaseScheme::Newest;
    JobFolder folder = Folder();
    folder.images[2].sidecar->mayNotBeBase = "the change tracker did not take note of it";
    EXPECT_EQ(MakePlan(job, folder, disk, now).base, 1U);
    folder.images[1].chainLength = 0;
    EXPECT_EQ(MakePlan(job, folder, disk, now).base, 0U);
}

TEST(Plan, WithoutAFullImageThatMayBeABaseTheNewestSoundOneIs)
{
    JobFolder folder = Folder();
    folder.images[0].sidecar->mayNotBeBase = "the change tracker did not take note of it";
    const CapturePlan plan = MakePlan(Job(), folder, disk, now);
    EXPECT_EQ(plan.base, 2U);
    EXPECT_TRUE(Says(plan, "no full one may be a base"));
}

TEST(Plan, ASealedImageIsNoBaseForAJobWithoutItsPassword)
{
    JobFolder folder = Folder();
    folder.images.resize(1);
    folder.images[0].sidecar->isSealed = true;
    EXPECT_EQ(MakePlan(Job(), folder, disk, now).base, noImage);
    Job job;
    job.passwordFile = "/etc/kestrix/password";
    EXPECT_EQ(MakePlan(job, folder, disk, now).base, 0U);
}

TEST(Plan, AFullImageFromTheFutureIsFollowedByAnotherOne)
{
    JobFolder folder = Folder();
    folder.images[0].sidecar->startedAt = now + 365 * day;
    EXPECT_TRUE(Says(MakePlan(Job(), folder, disk, now), "lies in the future"));
}

TEST(Plan, AFullImageMayTakeAsMuchAsTheDisk)
{
    // 1000 MiB are 250 chunks, and one is reckoned more; each has an entry of 72 bytes; 64 MiB are spare.
    EXPECT_EQ(RoomNeeded(JobFolder(), CapturePlan(), disk), 1000 * MiB + 251 * 72 + 64 * MiB);
}

TEST(Plan, AThinImageMayTakeHalfAsMuchAgainAsTheLargestOfTheLast)
{
    JobFolder folder = Folder();
    CapturePlan plan;
    plan.base = 0;
    folder.images[1].sidecar->fileBytes = 20 * MiB;
    EXPECT_EQ(RoomNeeded(folder, plan, disk), 30 * MiB + 251 * 72 + 64 * MiB);
}

// ---- What kestrix says ----

TEST(CaptureLines, WhatOneHasToKnowIsNoted)
{
    const std::vector<std::string> lines = {
        "Source: PhysicalDrive1  Size: 0.00 GiB  SectorSize: 512  Chunks: 2 (4194304 bytes each)",
        "  --vss: VSS not available (0x8007007E) - reading live instead (crash-consistent only).",
        "  --vss: volume X can't be snapshotted (removable/unsupported) - it will be read live.",
        "  --vss: could not add volume X to the snapshot set (0x00000001) - read live.",
        "  --base: cannot prove what changed (no change tracker) - reading every chunk and comparing hashes with the "
        "base",
        "WARNING: tracker COMMIT failed - the next capture will be a full one.",
        "Capture complete: image.kstx"};
    const std::vector<std::string> notes = NotesOf(lines);
    ASSERT_EQ(notes.size(), 5U);
    EXPECT_EQ(notes[0].substr(0, 6), "--vss:");
    EXPECT_EQ(notes[4], lines[5]);
}

TEST(CaptureLines, NoImageStandsOnOneThatTheTrackerDidNotTakeNoteOf)
{
    EXPECT_EQ(WhyNoBaseAfter({"Capture complete: image.kstx"}), "");
    EXPECT_NE(WhyNoBaseAfter({"WARNING: tracker COMMIT failed - the next capture will be a full one."}), "");
}
