// What the writers report once the snapshots stand: which states count as failures, what is given back, and that
// nothing of it decides anything.
#include "snapshot/snapshotting.h"

namespace
{
struct WriterStatus : Snapshotting {
    // A capture with snapshots in which these lines stand where the writers report.
    void ExpectReport(const std::string &lines)
    {
        CaptureWithSnapshots();
        ExpectFromShadow(frozenLines + lines + SummaryLine(2));
        EXPECT_TRUE(OnlySet().isCompleted);
        EXPECT_EQ(OnlySet().fate, SetFate::Deleted);
    }
};

std::string WarningLine(const std::string &writer, int state, const std::string &failure)
{
    return "    WARNING: VSS writer '" + writer + "' failed (state " + std::to_string(state) + ", hr=" + failure +
           ") - that application's data is crash-consistent only.\n";
}

std::string CountLine(int reported, int failed)
{
    return "  --vss: " + std::to_string(reported) + " VSS writer(s) reported, " + std::to_string(failed) + " failed.\n";
}
} // namespace

TEST_F(WriterStatus, WarnsOfTheStatesFrom6To15AndOfNoOther)
{
    for (int32_t state = 0; state <= 16; ++state) {
        SCOPED_TRACE(state);
        StartAnew();
        Service().writers = {{L"System Writer", state, 0x800423F0}};
        const bool isFailed = state >= 6 && state <= 15;
        ExpectReport((isFailed ? WarningLine("System Writer", state, "0x800423F0") : "") + CountLine(1, isFailed));
        EXPECT_EQ(LogOf(machine, {"SysFreeString", "FreeWriterStatus"}),
                  "SysFreeString string:0#1\nFreeWriterStatus components#1\n");
    }
}

TEST_F(WriterStatus, JudgesByTheStateAndNotByTheFailure)
{
    Service().writers = {{L"Stable", 1, 0x800423F4}, {L"Failed", 10, 0}, {L"Worst", 15, 0xFFFFFFFF}};
    ExpectReport(WarningLine("Failed", 10, "0x00000000") + WarningLine("Worst", 15, "0xFFFFFFFF") + CountLine(3, 2));
}

TEST_F(WriterStatus, NamesAWriterWithoutANameByAQuestionMark)
{
    Service().writers = {{std::nullopt, 7, 0x800423F1}, {std::nullopt, 1, 0}, {L"", 8, 0x800423F3}};
    ExpectReport(WarningLine("?", 7, "0x800423F1") + WarningLine("", 8, "0x800423F3") + CountLine(3, 2));
    EXPECT_EQ(LogOf(machine, {"SysFreeString"}), "SysFreeString null\nSysFreeString null\nSysFreeString string:2#1\n");
}

TEST_F(WriterStatus, SkipsAWriterThatDoesNotAnswer)
{
    Service().writers = {{L"First", 9, 0x800423F4}, {L"Second", 9, 0x800423F4, 0x80042308}, {L"Third", 9, 0x800423F2}};
    ExpectReport(WarningLine("First", 9, "0x800423F4") + WarningLine("Third", 9, "0x800423F2") + CountLine(3, 2));
    EXPECT_EQ(LogOf(machine, {"GetWriterStatus", "SysFreeString", "FreeWriterStatus"}),
              "GetWriterStatus components#1 0 preset=null,0x00000000 -> string:0#1 state=9 failure=0x800423F4\n"
              "SysFreeString string:0#1\n"
              "GetWriterStatus components#1 1 preset=null,0x00000000 -> failed 0x80042308\n"
              "GetWriterStatus components#1 2 preset=null,0x00000000 -> string:2#1 state=9 failure=0x800423F2\n"
              "SysFreeString string:2#1\n"
              "FreeWriterStatus components#1\n");
}

TEST_F(WriterStatus, CountsWritersOfWhichNoneAnswers)
{
    Service().writers = {{L"First", 9, 0, 0x80042308}, {L"Second", 9, 0, 0xFFFFFFFF}};
    ExpectReport(CountLine(2, 0));
    EXPECT_EQ(CountCalls(machine, "SysFreeString"), 0U);
    EXPECT_EQ(CountCalls(machine, "FreeWriterStatus"), 1U);
}

TEST_F(WriterStatus, OfNobodyIsReportedToo)
{
    ExpectReport(CountLine(0, 0));
    EXPECT_EQ(CountCalls(machine, "FreeWriterStatus"), 1U);
}

TEST_F(WriterStatus, IsPassedOverInSilenceWhereItIsNotGathered)
{
    Service().writers = {{L"Failed", 9, 0x800423F4}};
    AnswerOf("GatherWriterStatus").result = 0x80042302;
    ExpectReport("");
    EXPECT_EQ(CountCalls(machine, "Wait", "async:GatherWriterStatus"), 0U);
    AnswerOf("GatherWriterStatus").result = 0;
    AnswerOf("GatherWriterStatus").givesNull = true;
    ExpectReport("");
    EXPECT_EQ(CountCalls(machine, "GetWriterStatusCount") + CountCalls(machine, "FreeWriterStatus"), 0U);
}

TEST_F(WriterStatus, ThatIsNotReadyCostsTheLineOfTheWaitAlone)
{
    Service().writers = {{L"Failed", 9, 0x800423F4}};
    AnswerOf("GatherWriterStatus").end = {0, 0, 0x80042319};
    ExpectReport("    GatherWriterStatus did not complete successfully (wait=0x00000000, status=0x80042319)\n");
    EXPECT_EQ(CountCalls(machine, "GetWriterStatusCount") + CountCalls(machine, "FreeWriterStatus"), 0U);
    EXPECT_EQ(CountCalls(machine, "Release", "async:GatherWriterStatus"), 1U);
}

TEST_F(WriterStatus, IsPassedOverInSilenceWhereTheWritersAreNotCounted)
{
    Service().writers = {{L"Failed", 9, 0x800423F4}};
    AnswerOf("GetWriterStatusCount").result = 0x80042301;
    ExpectReport("");
    EXPECT_EQ(CountCalls(machine, "GetWriterStatus") + CountCalls(machine, "FreeWriterStatus"), 0U);
}

TEST_F(WriterStatus, IsReportedEvenIfItCannotBeFreed)
{
    Service().writers = {{L"Stable"}};
    AnswerOf("FreeWriterStatus").result = 0x80042301;
    ExpectReport(CountLine(1, 0));
}

TEST_F(WriterStatus, IsAskedForOnceAndBeforeTheDevicesAreOpened)
{
    Service().writers = {{L"Failed", 12, 0x800423F4}};
    CaptureWithSnapshots();
    EXPECT_EQ(CountCalls(machine, "GatherWriterStatus"), 1U);
    ExpectOrder({"Release async:DoSnapshotSet#1", "GatherWriterStatus", "FreeWriterStatus", "GetSnapshotProperties",
                 "BackupComplete"});
}
