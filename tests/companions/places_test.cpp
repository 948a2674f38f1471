// What a place of copies may list, which may be anything, and what is made of it.
#include "kestrix-keep/copies.h"
#include "kestrix-keep/place_images.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace
{

using Files = std::map<std::string, std::string>; // content by name

Place PlaceOf(const Files &files)
{
    Place place;
    place.name = "rclone:there:images";
    place.isRemote = true;
    place.list = [files]() -> reader::Result<std::vector<PlaceFile>> {
        std::vector<PlaceFile> listed;
        for (const auto &[name, content] : files) {
            listed.push_back({name, content.size()});
        }
        return listed;
    };
    place.read = [files](const std::string &name) -> reader::Result<std::string> {
        return std::string(files.at(name));
    };
    return place;
}

// An image of no bytes and its sidecar.
void Add(Files &files, const std::string &name, uint64_t number, const std::string &base,
         const std::string &job = "job")
{
    Sidecar sidecar;
    sidecar.job = job;
    sidecar.number = number;
    sidecar.base = base;
    sidecar.isSound = true;
    files[name] = "";
    files[SidecarPath(name)] = JsonOf(sidecar).dump();
}

std::string NameOf(int day)
{
    return "job-202611" + std::to_string(day) + "T020005Z.kstx";
}

std::vector<std::string> SoundOnes(const JobFolder &folder)
{
    std::vector<std::string> names;
    for (const KeptImage &image : folder.images) {
        if (IsSound(image)) {
            names.push_back(image.name);
        }
    }
    return names;
}

} // namespace

TEST(Places, JobsAreFoundByTheNamesOfTheirImagesAndNamesThatLeadElsewhereAreNone)
{
    Files files;
    Add(files, NameOf(22), 1, "");
    Add(files, "job-2-20261122T020005Z.kstx", 1, "", "job-2");
    for (const char *name :
         {"../job-20261122T020005Z.kstx", "..\\job-20261122T020005Z.kstx", "C:job-20261122T020005Z.kstx",
          "job-20261122T020005Z.kstx.jpg", "-20261122T020005Z.kstx", "20261122T020005Z.kstx", ""}) {
        files[name] = "";
    }
    reader::Result<std::vector<JobFolder>> found = ReadPlace(PlaceOf(files), {});
    ASSERT_TRUE(found);
    ASSERT_EQ(found->size(), 2U);
    EXPECT_EQ((*found)[0].job, "job-2");
    EXPECT_EQ((*found)[1].job, "job");
    EXPECT_EQ((*found)[1].images.size(), 1U);
}

TEST(Places, AChainThatLeadsInACircleOrIntoNothingIsNotSound)
{
    Files files;
    Add(files, NameOf(21), 1, "");
    Add(files, NameOf(22), 2, NameOf(23));
    Add(files, NameOf(23), 3, NameOf(22));
    Add(files, NameOf(24), 4, NameOf(24));
    Add(files, NameOf(25), 5, "../" + NameOf(21));
    Add(files, NameOf(26), 6, NameOf(21));
    reader::Result<std::vector<JobFolder>> found = ReadPlace(PlaceOf(files), {"job"});
    ASSERT_TRUE(found);
    EXPECT_EQ(SoundOnes((*found)[0]), (std::vector<std::string>{NameOf(21), NameOf(26)}));
}

TEST(Places, WhatStandsOnAnImageThatCouldNotBeReadIsNotSoundAndNotDamaged)
{
    Files files;
    for (int day = 21; day <= 23; ++day) {
        Add(files, NameOf(day), static_cast<uint64_t>(day), day == 21 ? "" : NameOf(day - 1));
    }
    Json unread = Json::parse(files[SidecarPath(NameOf(21))]);
    unread["unread"] = "it can't be read at byte 7";
    files[SidecarPath(NameOf(21))] = unread.dump();
    reader::Result<std::vector<JobFolder>> found = ReadPlace(PlaceOf(files), {"job"});
    ASSERT_TRUE(found);
    EXPECT_TRUE(SoundOnes((*found)[0]).empty());
    for (const KeptImage &image : (*found)[0].images) {
        EXPECT_FALSE(image.isDamaged) << image.name;
        EXPECT_NE(image.doubt.find("it can't be read at byte 7"), std::string::npos) << image.doubt;
    }
}

TEST(Places, WhatWasNotFinishedIsNoImage)
{
    Files files;
    Add(files, NameOf(21), 1, "");
    files[NameOf(22) + ".copying"] = "";
    files[SidecarPath(NameOf(23))] = "{}";
    files[NameOf(24) + ".copying.77.unfinished"] = "";
    files[NameOf(25) + ".0badcafe.copying"] = "";
    files[NameWhileCopied(SidecarPath(NameOf(26)))] = "";
    reader::Result<std::vector<JobFolder>> found = ReadPlace(PlaceOf(files), {});
    ASSERT_TRUE(found);
    EXPECT_EQ((*found)[0].images.size(), 1U);
    EXPECT_EQ((*found)[0].leftovers,
              (std::vector<std::string>{NameOf(22) + ".copying", SidecarPath(NameOf(23)),
                                        NameOf(24) + ".copying.77.unfinished", NameOf(25) + ".0badcafe.copying",
                                        NameWhileCopied(SidecarPath(NameOf(26)))}));
}

TEST(Places, TheNameOfAFileUnderWayTellsWhichFileItIs)
{
    EXPECT_EQ(NameOfCopy(NameWhileCopied(NameOf(21))), NameOf(21));
    EXPECT_EQ(NameOfCopy(NameOf(21) + ".0badcafe.copying"), NameOf(21));
    EXPECT_EQ(NameOfCopy(NameOf(21) + ".copying"), NameOf(21));
    for (const char *name : {"", ".copying", "a", "copying", "a.copying.1"}) {
        EXPECT_EQ(NameOfCopy(name), "") << name;
    }
}

TEST(Places, ASidecarThatHasNotItsNameYetCountsWhereThereIsNoOther)
{
    Files files;
    Add(files, NameOf(21), 1, "");
    files[SidecarPath(NameOf(21)) + ".0badcafe.copying"] = files[SidecarPath(NameOf(21))];
    files.erase(SidecarPath(NameOf(21)));
    Add(files, NameOf(22), 2, "");
    files[SidecarPath(NameOf(22)) + ".0badcafe.copying"] = "[";
    reader::Result<std::vector<JobFolder>> found = ReadPlace(PlaceOf(files), {});
    ASSERT_TRUE(found);
    EXPECT_EQ(SoundOnes((*found)[0]), (std::vector<std::string>{NameOf(21), NameOf(22)}));
}

TEST(Places, ASidecarThatIsNoneOrAnotherJobsDoesNotCount)
{
    Files files;
    Add(files, NameOf(21), 1, "", "other");
    Add(files, NameOf(22), 2, "");
    files[SidecarPath(NameOf(22))] = "[";
    reader::Result<std::vector<JobFolder>> found = ReadPlace(PlaceOf(files), {});
    ASSERT_TRUE(found);
    EXPECT_TRUE(SoundOnes((*found)[0]).empty());
    EXPECT_EQ((*found)[0].images.size(), 2U);
}

// ---- Letting go there ----

namespace
{

// A place whose three images, the last two a chain, are no longer in the job's own folder.
class LettingGoThere : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(m_folder);
        Add(m_files, NameOf(21), 1, "");
        Add(m_files, NameOf(22), 2, "");
        Add(m_files, NameOf(23), 3, NameOf(22));
        for (const auto &[name, content] : m_files) {
            Write(name, content);
        }
    }

    void TearDown() override
    {
        std::filesystem::remove_all(m_folder);
    }

    // An image of no bytes, and a sidecar that has its digest or another one.
    void Digest(const std::string &name, const std::string &sha256)
    {
        Json sidecar = Json::parse(m_files[SidecarPath(name)]);
        sidecar["sha256"] = sha256;
        Write(SidecarPath(name), sidecar.dump());
    }

    // The images that go by the rule that one stays.
    std::vector<std::string> WhatGoes(CopyOutcome *outcome)
    {
        JobFolder folder;
        folder.job = "job";
        CopyPlace place;
        place.folder = m_folder.string();
        place.keep = KeepRules{1, 0, 0, 0};
        *outcome = CopyImages(folder, place, {{now, true, ""}, secondsOfDay, false, [](const std::string &) {}});
        m_memory = folder.memory.places[place.folder];
        return outcome->letGo;
    }

    static constexpr int64_t now = 1795312805;
    Json m_memory;

private:
    void Write(const std::string &name, const std::string &content) const
    {
        std::ofstream(m_folder / name) << content;
    }

    Files m_files;
    std::filesystem::path m_folder =
        std::filesystem::temp_directory_path() / testing::UnitTest::GetInstance()->current_test_info()->name();
};

constexpr char digestOfNothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

} // namespace

TEST_F(LettingGoThere, TheNewestChainIsComparedFirstAndThatIsRemembered)
{
    CopyOutcome outcome;
    Digest(NameOf(22), digestOfNothing);
    Digest(NameOf(23), digestOfNothing);
    EXPECT_EQ(WhatGoes(&outcome), std::vector<std::string>{NameOf(21)}) << outcome.failure;
    EXPECT_EQ(m_memory["compared"], Json({{NameOf(22), now}, {NameOf(23), now}}));
}

TEST_F(LettingGoThere, NothingGoesWhereTheNewestChainIsDamagedAndCanNotBeCopiedAgain)
{
    CopyOutcome outcome;
    Digest(NameOf(22), std::string(64, '0'));
    Digest(NameOf(23), digestOfNothing);
    EXPECT_TRUE(WhatGoes(&outcome).empty());
    EXPECT_NE(outcome.failure.find(NameOf(22) + " is damaged there"), std::string::npos) << outcome.failure;
}
