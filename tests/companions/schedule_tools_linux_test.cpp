// What other programs make of the texts: systemd's reader of units, and a checker of XML by the form of a task.
#include "kestrix-keep/schedule_texts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{

namespace fs = std::filesystem;

struct Outcome {
    int status = -1;
    std::string output;
};

Outcome Ask(const std::vector<std::string> &words)
{
    Outcome outcome;
    host::ProgramToRun program;
    host::ProgramEnd end;
    program.arguments = words;
    const host::Trouble trouble = host::RunProgram(
        program, [&outcome](const std::string &piece) { outcome.output += piece; }, &end);
    outcome.status = trouble ? -1 : end.exitStatus;
    return outcome;
}

// The lines of text that have the word in them.
std::string LinesWith(const std::string &text, const std::string &word)
{
    std::istringstream lines(text);
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        found += line.find(word) == std::string::npos ? "" : line + "\n";
    }
    return found;
}

struct ScheduleTools : testing::Test {
    void SetUp() override
    {
        char name[] = "/tmp/kestrix-schedule-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder = name;
        run.job = "server";
        run.firstDay = "2026-11-23";
        run.program = MakeProgram("plain");
        run.writes = {"/mnt/backup/server"};
        run.places = run.writes;
    }
    void TearDown() override
    {
        fs::remove_all(folder);
    }
    std::string MakeProgram(const std::string &name) const
    {
        fs::create_directory(folder / name);
        fs::copy_file("/bin/true", folder / name / "kestrix-keep");
        return (folder / name / "kestrix-keep").string();
    }
    std::vector<std::string> WriteUnits() const
    {
        std::vector<std::string> paths;
        for (const host::ScheduledFile &file : UnitTexts(run)) {
            paths.push_back((folder / file.name).string());
            std::ofstream(paths.back()) << file.content;
        }
        return paths;
    }
    // What systemd says against the units; nothing if they are sound.
    std::string FaultsOfUnits() const
    {
        std::vector<std::string> words = {"/usr/bin/systemd-analyze", "verify", "--man=no"};
        const std::vector<std::string> units = WriteUnits();
        words.insert(words.end(), units.begin(), units.end());
        const Outcome outcome = Ask(words);
        const std::string said = LinesWith(outcome.output, "kestrix");
        return outcome.status == 0 ? said : "exit status " + std::to_string(outcome.status) + "\n" + outcome.output;
    }
    Outcome CheckTask(const std::string &file) const
    {
        const std::string path = (folder / "task.xml").string();
        std::ofstream(path, std::ios::binary) << file;
        return Ask({"/usr/bin/xmllint", "--noout", "--nonet", "--schema", KESTRIX_TASK_FORM, path});
    }

    fs::path folder;
    ScheduledRun run;
};

bool IsThere(const char *program)
{
    return fs::exists(program);
}

const char strangeName[] = "it is 50% %i $HOME ${HOME}; of # all";

} // namespace

TEST_F(ScheduleTools, SystemdFindsNoFaultInUnitsOfAnyKind)
{
    if (!IsThere("/usr/bin/systemd-analyze")) {
        GTEST_SKIP() << "systemd-analyze is not there: package systemd";
    }
    EXPECT_EQ(FaultsOfUnits(), "");
    run.inhibitor = "/usr/bin/systemd-inhibit";
    run.wakes = true;
    EXPECT_EQ(FaultsOfUnits(), "");
    run.usesShare = true;
    EXPECT_EQ(FaultsOfUnits(), "");
    run.usesRclone = true;
    EXPECT_EQ(FaultsOfUnits(), "");
    run.runsPrograms = true;
    EXPECT_EQ(FaultsOfUnits(), "");
}

TEST_F(ScheduleTools, SystemdFindsTheProgramAtAStrangePlace)
{
    if (!IsThere("/usr/bin/systemd-analyze")) {
        GTEST_SKIP() << "systemd-analyze is not there: package systemd";
    }
    run.program = MakeProgram(strangeName);
    run.writes = {run.program + "/images"};
    run.configuration = run.program + ".toml";
    EXPECT_EQ(FaultsOfUnits(), "");
    fs::remove(run.program);
    EXPECT_NE(FaultsOfUnits(), ""); // it is that very path that was looked for
}

TEST_F(ScheduleTools, SystemdCountsTheRunAmongTheConfinedOnes)
{
    if (!IsThere("/usr/bin/systemd-analyze")) {
        GTEST_SKIP() << "systemd-analyze is not there: package systemd";
    }
    if (Ask({"/usr/bin/systemd-analyze", "security", "--help"}).output.find("--offline") == std::string::npos) {
        GTEST_SKIP() << "this systemd-analyze judges no files";
    }
    const auto isBelow = [this](const char *threshold) {
        const std::vector<std::string> units = WriteUnits();
        return Ask({"/usr/bin/systemd-analyze", "security", "--no-pager", "--offline=true",
                    std::string("--threshold=") + threshold, units[0]})
                   .status == 0;
    };
    EXPECT_TRUE(isBelow("55"));
    run.runsPrograms = true;
    EXPECT_FALSE(isBelow("80"));
}

TEST_F(ScheduleTools, TaskHasTheFormOfATask)
{
    if (!IsThere("/usr/bin/xmllint")) {
        GTEST_SKIP() << "xmllint is not there: package libxml2-utils";
    }
    run.program = "C:\\R&D <\"1\">\\\xc3\xa4\\\xf0\x9f\x98\x80\\kestrix-keep.exe";
    run.configuration = "D:\\]]>\\keep.toml";
    for (const bool wakes : {false, true}) {
        run.wakes = wakes;
        const Outcome outcome = CheckTask(TaskFile(TaskXml(run)));
        EXPECT_EQ(outcome.status, 0) << outcome.output;
    }
}

TEST_F(ScheduleTools, AnElementThatTasksDoNotHaveIsFound)
{
    if (!IsThere("/usr/bin/xmllint")) {
        GTEST_SKIP() << "xmllint is not there: package libxml2-utils";
    }
    for (const auto &[right, wrong] : std::vector<std::pair<std::string, std::string>>{
             {"WakeToRun>", "WakeToRum>"}, {"PT0S", "0"}, {"IgnoreNew", "Ignore"}, {"HighestAvailable", "Highest"}}) {
        std::string xml = TaskXml(run);
        for (size_t place = xml.find(right); place != std::string::npos; place = xml.find(right, place + 1)) {
            xml.replace(place, right.size(), wrong);
        }
        EXPECT_NE(CheckTask(TaskFile(xml)).status, 0) << wrong;
    }
}
