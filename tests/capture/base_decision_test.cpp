// What a base is worth to a capture: the ladder of reasons for which the tracker proves nothing, the lines that say so,
// the epochs at their limits, the checks of the base's geometry, and the order in which messages and refusals come.
#include "capture/capturing.h"

#include <cstring>

namespace
{
const std::string epochLine = "Change tracker: disk 1 epoch 6\n";

std::string LostLine(const std::string &reason, bool isThin)
{
    return "  --base: cannot prove what changed (" + reason +
           (isThin ? ") - reading every chunk and comparing hashes with the base (no driver needed; slower to read, "
                     "still a small file).\n"
                   : ") - doing a FULL capture (correct, just slower).\n");
}

// The five tests of the ladder, in its order, and how each is made to hold. The last stands twice, once for each gap.
struct Reason {
    size_t place;
    const char *text;
    std::function<void(Machine &machine, ImagePlan &base)> arrange;
};

const std::vector<Reason> reasons = {
    {1, "no change tracker for this disk",
     [](Machine &machine, ImagePlan &) { machine.tracker->attachError = ERROR_NOT_SUPPORTED; }},
    {2, "base image has no epoch (captured without the tracker)", [](Machine &, ImagePlan &base) { base.epoch = 0; }},
    {3, "driver holds no previous epoch (reboot/reload since the base image)",
     [](Machine &machine, ImagePlan &) { machine.tracker->reply.hasPreviousEpoch = 0; }},
    {4, "base image is not the most recent committed image",
     [](Machine &machine, ImagePlan &) { machine.tracker->reply.previousEpoch = 4; }},
    {5, "tracker saw an untracked write (gap) since the base image",
     [](Machine &machine, ImagePlan &) { machine.tracker->reply.gap = 1; }},
    {5, "tracker saw an untracked write (gap) since the base image",
     [](Machine &machine, ImagePlan &) { machine.tracker->reply.secondaryGap = 0x80000000; }},
};

struct BaseDecision : Capturing {
    BaseDecision()
    {
        UseTracker();
    }

    // A capture against a base with these epochs, and what the ladder must say to it.
    void ExpectLadder(uint64_t baseEpoch, uint64_t previousEpoch, const std::string &ladderLine)
    {
        WriteBytes("base.kstx", BuildImage(PlanOf(TinyDisk(), baseEpoch)));
        UseTracker();
        machine.tracker->reply.previousEpoch = previousEpoch;
        Capture({"--base", "base.kstx", "--thin"});
        EXPECT_EQ(LadderLine(), ladderLine);
    }

    // The line of the output that the ladder printed.
    std::string LadderLine() const
    {
        const size_t start = result.outputText.find("  --base: ");
        const size_t end = result.outputText.find('\n', start);
        return start == std::string::npos ? "" : result.outputText.substr(start, end - start + 1);
    }

    // The reason for which two reasons at once, or one taken twice, lose the proof.
    void ExpectReason(const Reason &first, const Reason &second, bool isThin)
    {
        SCOPED_TRACE(std::string(first.text) + " / " + second.text + (isThin ? ", thin" : ""));
        ImagePlan base = PlanOf(TinyDisk(), 5);
        UseTracker();
        if (first.place == 2 || second.place == 2) {
            machine.tracker->reply.previousEpoch = 0; // so that the epochs don't differ on top
        }
        first.arrange(machine, base);
        second.arrange(machine, base);
        WriteBytes("base.kstx", BuildImage(base));
        isThin ? Capture({"--base", "base.kstx", "--thin"}) : Capture({"--base", "base.kstx"});
        EXPECT_EQ(result.exitStatus, 0) << result.errorText;
        EXPECT_EQ(LadderLine(), LostLine(first.text, isThin));
    }

    // A base that does not fit ends the run behind its line, with no image and no commit.
    void ExpectMismatch(const Bytes &base, const std::string &message)
    {
        WriteBytes("base.kstx", base);
        for (const bool isThin : {false, true}) {
            UseTracker();
            const std::vector<std::string> options = {"--base", "base.kstx", isThin ? "--thin" : "--encrypt",
                                                      "--password-file", "missing.txt"};
            Capture(options);
            ExpectFatal(tinySource + epochLine + baseLine, "FATAL: " + message + " (GetLastError=4711)\n");
            EXPECT_FALSE(FileExists("image.kstx"));
            EXPECT_TRUE(Commits().empty());
        }
    }

    // The tiny disk's image as base with another value of that width in its header.
    static Bytes BaseWith(size_t offset, uint64_t value, size_t width)
    {
        Bytes base = BuildImage(PlanOf(TinyDisk(), 5));
        StoreInteger(base, offset, value, width);
        return base;
    }
};
} // namespace

TEST_F(BaseDecision, IsProofWhenNothingSpeaksAgainstIt)
{
    ExpectLadder(5, 5, provedLine);
    ExpectLadder(0xFEDCBA98765432, 0xFEDCBA98765432,
                 "  --base: base epoch FEDCBA98765432 matches tracker; unchanged chunks will be copied from the base "
                 "image.\n");
    ExpectLadder(0xFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFF,
                 "  --base: base epoch FFFFFFFFFFFFFF matches tracker; unchanged chunks will be copied from the base "
                 "image.\n");
}

TEST_F(BaseDecision, NamesEachReasonThatStandsAlone)
{
    for (const Reason &reason : reasons) {
        ExpectReason(reason, reason, false);
        ExpectReason(reason, reason, true);
    }
}

TEST_F(BaseDecision, NamesTheFirstOfTwoReasons)
{
    for (const Reason &first : reasons) {
        for (const Reason &second : reasons) {
            if (first.place < second.place) {
                ExpectReason(first, second, false);
                ExpectReason(first, second, true);
            }
        }
    }
}

TEST_F(BaseDecision, NamesTheMissingTrackerEvenForABaseWithoutAnEpoch)
{
    machine.tracker.reset();
    WriteBytes("base.kstx", BuildImage(PlanOf(TinyDisk(), 0)));
    Capture({"--base", "base.kstx"});
    ExpectSuccess(tinySource + noTrackerLine + baseLine + LostLine("no change tracker for this disk", false) +
                  tinyProgress + "Capture complete: image.kstx\n");
}

TEST_F(BaseDecision, TakesATrackerWhoseQueryFailedForNone)
{
    WriteBytes("base.kstx", BuildImage(PlanOf(TinyDisk(), 5)));
    FailControl(machine, 0x8C7D2008, 2, ERROR_IO_DEVICE);
    Capture({"--base", "base.kstx"});
    EXPECT_EQ(LadderLine(), LostLine("no change tracker for this disk", false));
    EXPECT_TRUE(Commits().empty());
}

TEST_F(BaseDecision, TakesOnlyTheVeryEpochThatWasCommittedLast)
{
    const std::string lost = LostLine("base image is not the most recent committed image", true);
    ExpectLadder(5, 6, lost);
    ExpectLadder(5, 4, lost);
    ExpectLadder(0x01000000000005, 5, lost);
    ExpectLadder(5, 0x01000000000005, lost);
    ExpectLadder(5, 0x0100000000000005, lost);
    ExpectLadder(5, 0x8000000000000005, lost);
}

TEST_F(BaseDecision, LosesTheProofToAnEpochWhoseLow56BitsAreZero)
{
    machine.tracker->reply.currentEpoch = 0x0300000000000000;
    Capture({}, "base.kstx");
    EXPECT_EQ(HeaderOf(ReadBytes("base.kstx")).epoch, 0U);
    EXPECT_EQ(Commits(), std::vector<uint64_t>{0x0300000000000000});
    Capture({"--base", "base.kstx"});
    EXPECT_EQ(LadderLine(), LostLine("base image has no epoch (captured without the tracker)", false));
}

TEST_F(BaseDecision, LosesTheProofToAnEpochOf56BitsAndMore)
{
    machine.tracker->reply.currentEpoch = 0x0300000000000007;
    Capture({}, "base.kstx");
    EXPECT_EQ(Commits(), std::vector<uint64_t>{0x0300000000000007});
    Capture({"--base", "base.kstx", "--thin"});
    EXPECT_EQ(LadderLine(), LostLine("base image is not the most recent committed image", true));
    EXPECT_NE(result.outputText.find("Change tracker: disk 1 epoch 300000000000008\n"), std::string::npos);
    EXPECT_EQ(HeaderOf(ReadBytes("image.kstx")).epoch, 8U);
    EXPECT_EQ(Commits().back(), 0x0300000000000008U);
}

TEST_F(BaseDecision, TakesEachCommittedImageForTheNextRunsProof)
{
    Capture({}, "a.kstx");
    Capture({"--base", "a.kstx", "--thin"}, "b.kstx");
    EXPECT_EQ(LadderLine(), "  --base: base epoch 6 matches tracker; unchanged chunks will be copied from the base "
                            "image.\n");
    Capture({"--base", "b.kstx", "--thin"}, "c.kstx");
    EXPECT_EQ(LadderLine(), "  --base: base epoch 7 matches tracker; unchanged chunks will be copied from the base "
                            "image.\n");
    Capture({"--base", "c.kstx"}, "d.kstx");
    EXPECT_EQ(LadderLine(), "  --base: base epoch 8 matches tracker; unchanged chunks will be copied from the base "
                            "image.\n");
    Capture({"--base", "b.kstx"}, "e.kstx");
    EXPECT_EQ(LadderLine(), LostLine("base image is not the most recent committed image", false));
    EXPECT_EQ(Commits(), (std::vector<uint64_t>{6, 7, 8, 9, 10}));
}

TEST_F(BaseDecision, LosesTheProofToACommitThatFailed)
{
    machine.tracker->commitError = ERROR_IO_DEVICE;
    Capture({}, "base.kstx");
    EXPECT_NE(result.outputText.find("WARNING: tracker COMMIT failed"), std::string::npos);
    machine.tracker->commitError = 0;
    Capture({"--base", "base.kstx"});
    EXPECT_EQ(LadderLine(), LostLine("base image is not the most recent committed image", false));
}

TEST_F(BaseDecision, FindsNoEpochInAConsolidatedImage)
{
    Capture({}, "a.kstx");
    Capture({"--base", "a.kstx", "--thin"}, "b.kstx");
    EXPECT_EQ(RunCommand(machine, {"consolidate", "--in", "b.kstx", "--out", "c.kstx"}).exitStatus, 0);
    Capture({"--base", "c.kstx", "--thin"});
    EXPECT_EQ(LadderLine(), LostLine("base image has no epoch (captured without the tracker)", true));
}

TEST_F(BaseDecision, RefusesABaseOfAnotherDiskSize)
{
    ExpectMismatch(BuildImage(PlanOf(PatternBytes(1536, 5), 5)), "--base image geometry does not match source disk");
    ExpectMismatch(BaseWith(12, tinyDiskBytes + (1ULL << 32), 8), "--base image geometry does not match source disk");
}

TEST_F(BaseDecision, RefusesABaseOfAnotherSectorSize)
{
    ExpectMismatch(BaseWith(20, 4096, 4), "--base image geometry does not match source disk");
}

TEST_F(BaseDecision, RefusesABaseOfOtherChunks)
{
    ExpectMismatch(BaseWith(24, chunkBytes * 2, 4), "--base image chunking parameters do not match");
    Bytes twoEntries = BaseWith(28, 2, 8);
    twoEntries.resize(64 + 2 * 72 + tinyDiskBytes);
    ExpectMismatch(twoEntries, "--base image chunking parameters do not match");
}

TEST_F(BaseDecision, ComplainsOfTheGeometryBeforeTheChunks)
{
    Bytes base = BaseWith(24, chunkBytes * 2, 4);
    StoreInteger(base, 20, 4096, 4);
    ExpectMismatch(base, "--base image geometry does not match source disk");
}

TEST_F(BaseDecision, ReportsABaseThatDoesNotOpenBehindTheTrackersLine)
{
    Capture({"--base", "base.kstx"});
    ExpectFatal(tinySource + epochLine + baseLine, "could not open image file: base.kstx\n"
                                                   "FATAL: could not open image file (GetLastError=2)\n");
    EXPECT_FALSE(FileExists("image.kstx"));
    ExpectOrder({"DeviceIoControl tracker#1 code=0x8C7D2008", "CreateFileW base.kstx"});
}

TEST_F(BaseDecision, ReportsABaseThatIsNoImage)
{
    WriteBytes("base.kstx", Bytes(64));
    Capture({"--base", "base.kstx", "--thin"});
    ExpectFatal(tinySource + epochLine + baseLine,
                "FATAL: not a recognized Kestrix image (bad magic/version) (GetLastError=4711)\n");
    EXPECT_FALSE(FileExists("image.kstx"));
}

TEST_F(BaseDecision, NeedsThePasswordOfASealedBaseAlsoForAPlainImage)
{
    ImagePlan plan = PlanOf(TinyDisk(), 5);
    plan.encrypted = true;
    WriteBytes("base.kstx", BuildImage(plan));
    Capture({"--base", "base.kstx"});
    ExpectFatal(tinySource + epochLine + baseLine,
                "FATAL: this image is encrypted - pass --password-file (GetLastError=4711)\n");
    EXPECT_FALSE(FileExists("image.kstx"));
}

TEST_F(BaseDecision, MayStandOnAChainOfAnyDepthThatOpens)
{
    ImagePlan plan = PlanOf(TinyDisk(), 5);
    WriteBytes("0.kstx", BuildImage(plan));
    for (int depth = 1; depth <= 65; ++depth) {
        plan = ThinPlan(plan, std::to_string(depth - 1) + ".kstx", TinyDisk());
        WriteBytes(std::to_string(depth) + ".kstx", BuildImage(plan));
    }
    Capture({"--base", "64.kstx", "--thin"});
    EXPECT_EQ(result.exitStatus, 0) << result.errorText;
    Capture({"--base", "65.kstx", "--thin"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errorText, "FATAL: image chain is too deep (or loops back on itself) (GetLastError=4711)\n");
}

TEST_F(BaseDecision, TakesIncrementalForAnotherNameOfBase)
{
    WriteBytes("base.kstx", BuildImage(PlanOf(TinyDisk(), 5)));
    Capture({"--incremental", "base.kstx"});
    ExpectSuccess(tinySource + epochLine + baseLine + provedLine + tinyProgress +
                  "Capture complete: image.kstx (Read from disk: 0, Copied from base: 1 chunks)\n");
    UseTracker();
    Capture({"--thin", "--INCREMENTAL", "base.kstx"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(HeaderOf(ReadBytes("image.kstx")).version, 3U);
}

TEST_F(BaseDecision, PrefersBaseToIncrementalUnlessItIsEmpty)
{
    WriteBytes("base.kstx", BuildImage(PlanOf(TinyDisk(), 5)));
    Capture({"--incremental", "missing.kstx", "--base", "base.kstx"});
    EXPECT_EQ(LadderLine(), provedLine);
    UseTracker();
    Capture({"--base", "", "--incremental", "base.kstx"});
    EXPECT_EQ(LadderLine(), provedLine);
}

TEST_F(BaseDecision, DoesNothingWithoutABase)
{
    Capture();
    ExpectSuccess(tinySource + epochLine + tinyProgress + "Capture complete: image.kstx\n");
    EXPECT_EQ(CountCalls(machine, "CreateFileW", "file"), 1U);
    EXPECT_EQ(CountCalls(machine, "_fullpath"), 0U);
}
