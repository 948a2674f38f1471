// What is remembered lies in files that anyone may have had in hands.
#include "kestrix-keep/sidecar.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace
{

constexpr int64_t lastSecondOf9999 = 253402300799; // date -u -d '9999-12-31 23:59:59' +%s

class Files : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_folder);
    }

    void TearDown() override
    {
        std::filesystem::remove_all(m_folder);
    }

    // What is read of the sidecar of an image of which one member is another.
    reader::Result<Sidecar> SidecarWith(const char *key, const Json &value)
    {
        EXPECT_FALSE(WriteSidecar(Path(), Sidecar()));
        Json json = Written();
        json[key] = value;
        return ParseSidecar(json.dump(), "a.kstx.json");
    }

    reader::Result<JobMemory> MemoryWith(const char *key, const Json &value)
    {
        EXPECT_FALSE(WriteMemory(Path(), JobMemory()));
        Json json = Written();
        json[key] = value;
        std::ofstream(Path()) << json;
        return ReadMemory(Path());
    }

    std::string Path() const
    {
        return (m_folder / "a.json").string();
    }

private:
    Json Written() const
    {
        std::ifstream file(Path());
        return Json::parse(file);
    }

    std::filesystem::path m_folder =
        std::filesystem::temp_directory_path() / testing::UnitTest::GetInstance()->current_test_info()->name();
};

using SidecarTimes = Files;
using SidecarNumbers = Files;
using MemoryOfJobs = Files;

} // namespace

TEST_F(SidecarTimes, MayLieAnywhereInTheCalendar)
{
    for (const char *key : {"startedAt", "endedAt", "provedAt"}) {
        EXPECT_TRUE(SidecarWith(key, 0)) << key;
        EXPECT_TRUE(SidecarWith(key, lastSecondOf9999)) << key;
    }
}

TEST_F(SidecarTimes, BeyondTheCalendarMakeTheSidecarOneThatWasNotWritten)
{
    for (const char *key : {"startedAt", "endedAt", "provedAt"}) {
        for (const Json &time : {Json(-1), Json(lastSecondOf9999 + 1), Json(INT64_MAX), Json("tomorrow")}) {
            const reader::Result<Sidecar> sidecar = SidecarWith(key, time);
            ASSERT_FALSE(sidecar) << key << time;
            EXPECT_EQ(sidecar.fault.text.rfind("a.kstx.json: it is not what kestrix-keep wrote: ", 0), 0)
                << sidecar.fault.text;
        }
    }
}

TEST_F(SidecarNumbers, AreThoseThatEveryReaderOfJsonCountsWithoutLoss)
{
    const uint64_t most = (uint64_t{1} << 53) - 1;
    EXPECT_TRUE(SidecarWith("number", most));
    EXPECT_TRUE(MemoryWith("lastNumber", most));
    for (const Json &number : {Json(most + 1), Json(UINT64_MAX), Json(-1)}) {
        EXPECT_FALSE(SidecarWith("number", number)) << number;
        EXPECT_FALSE(MemoryWith("lastNumber", number)) << number;
    }
}

TEST_F(MemoryOfJobs, IsWhatWasWritten)
{
    reader::Result<JobMemory> memory =
        MemoryWith("places", {{"/mnt/usb", {{"completeAt", 1700000000}, {"fileSystem", "uuid:1"}}}});
    ASSERT_TRUE(memory) << memory.fault.text;
    EXPECT_EQ(memory->places.at("/mnt/usb").at("completeAt"), 1700000000);
}

TEST_F(MemoryOfJobs, OfAnotherFormIsRefusedWhole)
{
    EXPECT_FALSE(MemoryWith("lastReport", {{"startedLocal", 7}}));
    EXPECT_FALSE(MemoryWith("lastReport", "well"));
    EXPECT_FALSE(MemoryWith("places", Json::array({"/mnt/usb"})));
    EXPECT_FALSE(MemoryWith("places", {{"/mnt/usb", 7}}));
    EXPECT_FALSE(MemoryWith("places", {{"/mnt/usb", {{"completeAt", INT64_MAX}}}}));
    EXPECT_FALSE(MemoryWith("places", {{"/mnt/usb", {{"completeAt", "never"}}}}));
    EXPECT_FALSE(MemoryWith("passedChain", {{"full", "a.kstx"}, {"at", -1}}));
    EXPECT_FALSE(MemoryWith("passedChain", {{"full", 7}, {"at", 0}}));
}
