// What a scheduler is given to have a job run. What schedulers make of it is asked elsewhere.
#include "kestrix-keep/schedule_texts.h"

#include <gtest/gtest.h>

namespace
{

ScheduledRun ServerRun()
{
    ScheduledRun run;
    run.job = "server";
    run.firstDay = "2026-11-23";
    run.program = "/usr/bin/kestrix-keep";
    run.inhibitor = "/usr/bin/systemd-inhibit";
    run.writes = {"/mnt/backup/server"};
    run.places = {"/mnt/backup/server", "/usr/bin/kestrix-keep", "/etc/kestrix/password"};
    return run;
}

std::string Service(const ScheduledRun &run)
{
    return UnitTexts(run)[0].content;
}

std::string Timer(const ScheduledRun &run)
{
    return UnitTexts(run)[1].content;
}

bool HasLine(const std::string &text, const std::string &line)
{
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

// The value of the first line that sets it; empty if none does.
std::string Setting(const std::string &text, const std::string &name)
{
    const size_t begin = ("\n" + text).find("\n" + name + "=");
    return begin == std::string::npos
               ? std::string()
               : text.substr(begin + name.size() + 1, text.find('\n', begin) - begin - name.size() - 1);
}

std::string Element(const std::string &xml, const std::string &name)
{
    const size_t begin = xml.find("<" + name + ">") + name.size() + 2;
    return xml.substr(begin, xml.find("</" + name + ">") - begin);
}

} // namespace

TEST(ScheduleTime, IsTwoDigitsAColonAndTwoDigits)
{
    for (const char *good : {"00:00", "05:00", "09:59", "23:59"}) {
        ASSERT_TRUE(ParseTimeOfDay(good)) << good;
        EXPECT_EQ(TimeText(*ParseTimeOfDay(good)), good);
    }
    for (const char *bad : {"", "5:00", "05:0", "05.00", "24:00", "23:60", "05:00:00", "-5:00", "+5:00", " 5:00",
                            "05:00 ", "0500", "99:99", "aa:bb"}) {
        EXPECT_FALSE(ParseTimeOfDay(bad)) << bad;
    }
}

TEST(ScheduleTime, FromOneToBeforeFourClocksChange)
{
    for (const char *text : {"01:00", "02:30", "03:59"}) {
        EXPECT_TRUE(ClocksChangeAt(*ParseTimeOfDay(text))) << text;
    }
    for (const char *text : {"00:59", "04:00", "05:00", "13:00", "21:30"}) {
        EXPECT_FALSE(ClocksChangeAt(*ParseTimeOfDay(text))) << text;
    }
}

TEST(ScheduleNames, ThoseOfAJobLeadNowhereElse)
{
    for (const std::string &good : {std::string("a"), std::string("Db.example_1-x"), std::string(64, 'n')}) {
        EXPECT_TRUE(IsJobName(good)) << good;
    }
    for (const std::string &bad : {std::string(), std::string("../x"), std::string("a/b"), std::string("a b"),
                                   std::string(".a"), std::string("-a"), std::string("a\n"), std::string("a%i"),
                                   std::string("a@b"), std::string("a\\b"), std::string(65, 'n')}) {
        EXPECT_FALSE(IsJobName(bad)) << bad;
    }
    EXPECT_EQ(ScheduleNames("db.example", host::Scheduler::Systemd),
              (std::vector<std::string>{"kestrix-keep-db.example.service", "kestrix-keep-db.example.timer"}));
    EXPECT_EQ(ScheduleNames("db.example", host::Scheduler::Tasks),
              (std::vector<std::string>{"kestrix-keep-db.example"}));
}

TEST(ScheduleNames, APathThatAUnitOrATaskCannotHoldIsRefused)
{
    const auto faultOf = [](const std::string &path, host::Scheduler scheduler) {
        ScheduledRun run = ServerRun();
        run.writes = {path};
        return WhyNotSchedulable(run, scheduler);
    };
    for (const char *bad : {"/a\nExecStart=/b", "/a\tb", "/a\x7f", "/a\xff"}) {
        EXPECT_NE(faultOf(bad, host::Scheduler::Systemd), "") << bad;
    }
    for (const char *good : {"/a b", "/a\"b", "/a%b", "/a$b", "/a\\b", "/\xc3\xa4"}) {
        EXPECT_EQ(faultOf(good, host::Scheduler::Systemd), "") << good;
    }
    EXPECT_NE(faultOf("C:\\%TEMP%", host::Scheduler::Tasks), "");
    EXPECT_NE(faultOf("C:\\$(Arg0)", host::Scheduler::Tasks), "");
    EXPECT_EQ(faultOf("C:\\a $b\\(c)", host::Scheduler::Tasks), "");
}

TEST(ScheduleNames, AProgramThatSystemdWouldNotRunIsRefused)
{
    for (const char *bad : {"/a'b/kestrix-keep", "/a\"b/kestrix-keep", "/a\\b/kestrix-keep"}) {
        ScheduledRun run = ServerRun();
        run.program = bad;
        EXPECT_NE(WhyNotSchedulable(run, host::Scheduler::Systemd), "") << bad;
        EXPECT_EQ(WhyNotSchedulable(run, host::Scheduler::Tasks), "") << bad;
    }
}

TEST(ScheduleUnits, ServiceRunsTheJobOnceAndKeepsTheMachineAwake)
{
    const std::string text = Service(ServerRun());
    EXPECT_EQ(Setting(text, "ExecStart"), "/usr/bin/systemd-inhibit --what=sleep --mode=block --who=kestrix-keep "
                                          "\"--why=An image of a disk is being made\" /usr/bin/kestrix-keep backup "
                                          "server --quiet");
    EXPECT_EQ(Setting(text, "Type"), "oneshot");
    EXPECT_EQ(Setting(text, "TimeoutStartSec"), "infinity");
}

TEST(ScheduleUnits, WithoutAnInhibitorTheProgramIsTheFirstWord)
{
    ScheduledRun run = ServerRun();
    run.inhibitor.clear();
    run.configuration = "/srv/keep.toml";
    EXPECT_EQ(Setting(Service(run), "ExecStart"),
              "/usr/bin/kestrix-keep backup server --quiet --config /srv/keep.toml");
}

TEST(ScheduleUnits, WordsKeepTheirSigns)
{
    ScheduledRun run = ServerRun();
    run.program = "/opt/a $b/kestrix-keep";
    run.configuration = "/c \"d\" 50% $HOME \\e;f'g";
    const std::string config = "\"/c \\\"d\\\" 50%% $$HOME \\\\e;f'g\"";
    EXPECT_NE(Service(run).find(" \"/opt/a $$b/kestrix-keep\" backup server --quiet --config " + config + "\n"),
              std::string::npos)
        << Service(run);
    run.inhibitor.clear();
    EXPECT_EQ(Setting(Service(run), "ExecStart"),
              "\"/opt/a $b/kestrix-keep\" backup server --quiet --config " + config);
}

TEST(ScheduleUnits, TimerComesEachDayAndCatchesUp)
{
    ScheduledRun run = ServerRun();
    run.time = {21, 5};
    EXPECT_EQ(Setting(Timer(run), "OnCalendar"), "*-*-* 21:05:00");
    EXPECT_EQ(Setting(Timer(run), "Persistent"), "true");
    EXPECT_EQ(Setting(Timer(run), "RandomizedDelaySec"), "0");
    EXPECT_EQ(Setting(Timer(run), "Unit"), "kestrix-keep-server.service");
    EXPECT_EQ(Setting(Timer(run), "WantedBy"), "timers.target");
    EXPECT_EQ(Setting(Timer(run), "WakeSystem"), "");
    run.wakes = true;
    EXPECT_EQ(Setting(Timer(run), "WakeSystem"), "true");
}

TEST(ScheduleSandbox, DisksCanBeReadAndOnlyTheFoldersWritten)
{
    ScheduledRun run = ServerRun();
    run.writes.emplace_back("/mnt/second disk/50%");
    const std::string text = Service(run);
    EXPECT_EQ(Setting(text, "ProtectSystem"), "strict");
    EXPECT_EQ(Setting(text, "ReadWritePaths"), "\"-/mnt/backup/server\" \"-/mnt/second disk/50%%\"");
    EXPECT_EQ(Setting(text, "StateDirectory"), "kestrix");
    EXPECT_EQ(Setting(text, "DeviceAllow"), "block-* r");
    EXPECT_EQ(Setting(text, "PrivateDevices"), "");
    for (const char *line : {"ProtectHome=read-only", "PrivateTmp=yes", "PrivateNetwork=yes", "NoNewPrivileges=yes",
                             "RestrictAddressFamilies=AF_UNIX", "ProtectKernelModules=yes", "ProtectClock=yes",
                             "RestrictNamespaces=yes", "LockPersonality=yes", "MemoryDenyWriteExecute=yes",
                             "SystemCallArchitectures=native", "RestrictRealtime=yes", "RestrictSUIDSGID=yes"}) {
        EXPECT_TRUE(HasLine(text, line)) << line;
    }
}

TEST(ScheduleSandbox, FoldersInAHomeOrATemporaryFolderStayWhatTheyAre)
{
    for (const char *path : {"/home/ann/images", "/root", "/run/user/0/x"}) {
        ScheduledRun run = ServerRun();
        run.places.emplace_back(path);
        EXPECT_EQ(Setting(Service(run), "ProtectHome"), "") << path;
        EXPECT_EQ(Setting(Service(run), "PrivateTmp"), "yes") << path;
    }
    for (const char *path : {"/tmp/images", "/var/tmp"}) {
        ScheduledRun run = ServerRun();
        run.places.emplace_back(path);
        EXPECT_EQ(Setting(Service(run), "PrivateTmp"), "") << path;
        EXPECT_EQ(Setting(Service(run), "ProtectHome"), "read-only") << path;
    }
    ScheduledRun run = ServerRun();
    run.places = {"/homes/a", "/tmpfs/b", "/rooted"};
    EXPECT_EQ(Setting(Service(run), "ProtectHome"), "read-only");
    EXPECT_EQ(Setting(Service(run), "PrivateTmp"), "yes");
}

TEST(ScheduleSandbox, TheNetworkIsThereForThoseWhoNeedIt)
{
    ScheduledRun run = ServerRun();
    run.usesShare = true;
    EXPECT_EQ(Setting(Service(run), "PrivateNetwork"), "");
    EXPECT_EQ(Setting(Service(run), "RestrictAddressFamilies"), "AF_UNIX");
    EXPECT_EQ(Setting(Service(run), "Wants"), "network-online.target");
    run.usesRclone = true;
    EXPECT_EQ(Setting(Service(run), "PrivateNetwork"), "");
    EXPECT_NE(Setting(Service(run), "RestrictAddressFamilies").find("AF_INET6"), std::string::npos);
    EXPECT_EQ(Setting(Service(ServerRun()), "Wants"), "");
}

TEST(ScheduleSandbox, RcloneFindsItsConfigurationAndWritesWhereItsRemotesAre)
{
    ScheduledRun run = ServerRun();
    run.usesRclone = true;
    const std::string text = Service(run);
    EXPECT_EQ(Setting(text, "ProtectSystem"), "full");
    EXPECT_EQ(Setting(text, "Environment"), "HOME=%h");
    for (const char *name : {"ProtectHome", "PrivateTmp", "PrivateNetwork", "ReadWritePaths"}) {
        EXPECT_EQ(Setting(text, name), "") << name;
    }
    EXPECT_EQ(Setting(text, "DeviceAllow"), "block-* r");
}

TEST(ScheduleSandbox, AProgramOfTheAdministratorsIsNotKeptFromAnything)
{
    ScheduledRun run = ServerRun();
    run.runsPrograms = true;
    const std::string text = Service(run);
    for (const char *name :
         {"ProtectSystem", "ProtectHome", "PrivateTmp", "PrivateNetwork", "RestrictAddressFamilies", "ReadWritePaths",
          "DevicePolicy", "DeviceAllow", "NoNewPrivileges", "ProtectKernelModules", "ProtectClock",
          "RestrictNamespaces", "MemoryDenyWriteExecute", "RestrictSUIDSGID", "SystemCallArchitectures"}) {
        EXPECT_EQ(Setting(text, name), "") << name;
    }
    EXPECT_EQ(Setting(text, "StateDirectory"), "kestrix");
}

TEST(ScheduleOrigins, AUnitIsOursAsLongAsEveryByteIs)
{
    for (const host::ScheduledFile &file : UnitTexts(ServerRun())) {
        EXPECT_EQ(OriginOf(file.content, host::Scheduler::Systemd), ScheduleOrigin::Ours);
        std::string changed = file.content;
        changed.back() = ' ';
        EXPECT_EQ(OriginOf(changed, host::Scheduler::Systemd), ScheduleOrigin::Changed);
        EXPECT_EQ(OriginOf(file.content + "\n", host::Scheduler::Systemd), ScheduleOrigin::Changed);
        EXPECT_EQ(OriginOf("\n" + file.content, host::Scheduler::Systemd), ScheduleOrigin::Foreign);
    }
    for (const char *foreign : {"", "[Unit]\n", "# Written by somebody\n[Unit]\n"}) {
        EXPECT_EQ(OriginOf(foreign, host::Scheduler::Systemd), ScheduleOrigin::Foreign);
    }
}

// sha256sum of "[Unit]\n".
TEST(ScheduleOrigins, TheMarkIsTheDigestOfWhatFollows)
{
    EXPECT_EQ(OriginOf("# Written by kestrix-keep schedule. SHA-256 of the lines below: "
                       "ae6c63cff33bcfa3b6a2d6d0c9dd19521dedaa351146b1a642d2bfc9cf5a1e1f\n[Unit]\n",
                       host::Scheduler::Systemd),
              ScheduleOrigin::Ours);
}

TEST(ScheduleTask, HasItsPartsInTheirOrder)
{
    const std::string xml = TaskXml(ServerRun());
    size_t last = 0;
    for (const char *part : {"<Task ", "<RegistrationInfo>", "<Triggers>", "<Principals>", "<Settings>", "<Actions "}) {
        const size_t place = xml.find(part);
        ASSERT_NE(place, std::string::npos) << part;
        EXPECT_GE(place, last) << part;
        last = place;
    }
}

TEST(ScheduleTask, RunsAsTheSystemForAsLongAsItTakes)
{
    ScheduledRun run = ServerRun();
    run.time = {4, 30};
    const std::string xml = TaskXml(run);
    EXPECT_EQ(Element(xml, "StartBoundary"), "2026-11-23T04:30:00");
    EXPECT_EQ(Element(xml, "DaysInterval"), "1");
    EXPECT_EQ(Element(xml, "UserId"), "S-1-5-18");
    EXPECT_EQ(Element(xml, "RunLevel"), "HighestAvailable");
    EXPECT_EQ(Element(xml, "ExecutionTimeLimit"), "PT0S");
    EXPECT_EQ(Element(xml, "DisallowStartIfOnBatteries"), "false");
    EXPECT_EQ(Element(xml, "StopIfGoingOnBatteries"), "false");
    EXPECT_EQ(Element(xml, "StartWhenAvailable"), "true");
    EXPECT_EQ(Element(xml, "MultipleInstancesPolicy"), "IgnoreNew");
    EXPECT_EQ(Element(xml, "WakeToRun"), "false");
    run.wakes = true;
    EXPECT_EQ(Element(TaskXml(run), "WakeToRun"), "true");
}

TEST(ScheduleTask, WordsKeepTheirSigns)
{
    ScheduledRun run = ServerRun();
    run.program = "C:\\Program Files\\R&D <1>\\kestrix-keep.exe";
    run.configuration = "D:\\a b\\keep.toml";
    EXPECT_EQ(Element(TaskXml(run), "Command"), "\"C:\\Program Files\\R&amp;D &lt;1&gt;\\kestrix-keep.exe\"");
    EXPECT_EQ(Element(TaskXml(run), "Arguments"), "backup server --quiet --config \"D:\\a b\\keep.toml\"");
    run.configuration = "D:\\a b\\";
    EXPECT_EQ(Element(TaskXml(run), "Arguments"), "backup server --quiet --config \"D:\\a b\\\\\"");
}

TEST(ScheduleTask, FileIsUtf16WithItsMark)
{
    const std::string bytes = TaskFile("a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\n");
    const std::string head("\xff\xfe<\0?\0x\0m\0l\0 \0", 14);
    const std::string tail("\n\0a\0\xe4\0\xac\x20\x3d\xd8\x00\xde\n\0",
                           14); // the euro sign is U+20AC, the last one U+1F600
    ASSERT_GT(bytes.size(), head.size() + tail.size());
    EXPECT_EQ(bytes.substr(0, head.size()), head);
    EXPECT_EQ(bytes.substr(bytes.size() - tail.size()), tail);
}

TEST(ScheduleTask, IsOursByItsSource)
{
    EXPECT_EQ(OriginOf(TaskXml(ServerRun()), host::Scheduler::Tasks), ScheduleOrigin::Ours);
    EXPECT_EQ(
        OriginOf("<Task><RegistrationInfo><Source>other</Source></RegistrationInfo></Task>", host::Scheduler::Tasks),
        ScheduleOrigin::Foreign);
}

TEST(ScheduleCron, LineDoesTheSame)
{
    ScheduledRun run = ServerRun();
    run.time = {5, 0};
    EXPECT_EQ(CronLine(run), "0 5 * * * /usr/bin/kestrix-keep backup server --quiet");
    run.configuration = "/a b/it's 50%\\%";
    EXPECT_EQ(CronLine(run),
              "0 5 * * * /usr/bin/kestrix-keep backup server --quiet --config '/a b/it'\\''s 50\\%\\''\\%'");
}
