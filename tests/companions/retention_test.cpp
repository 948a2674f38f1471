// What a job keeps and lets go, and the calendar that it goes by.
#include "kestrix-keep/clock.h"
#include "kestrix-keep/retention.h"

#include <gtest/gtest.h>

#include <algorithm>

// 2026-11-22 12:00 UTC, a Sunday; noon is the same day from Honolulu to Kamchatka, and no clock changes then.
static constexpr int64_t noon = 1795348800;
static constexpr int64_t day = 86400;

static RetainedImage Sound(uint64_t number, int64_t time, size_t base = noImage)
{
    RetainedImage image;
    image.number = number;
    image.time = time;
    image.isOurs = true;
    image.isSound = true;
    image.base = base;
    return image;
}

// A full image each noon, the newest last.
static std::vector<RetainedImage> Nights(size_t count)
{
    std::vector<RetainedImage> images;
    for (size_t i = 0; i < count; ++i) {
        images.push_back(Sound(i + 1, noon - static_cast<int64_t>(count - 1 - i) * day));
    }
    return images;
}

static std::optional<KeepRules> Rules(int last, int daily, int weekly, int monthly)
{
    return KeepRules{last, daily, weekly, monthly};
}

static const RetentionState proved = {noon, true, ""};

// How many days ago those were made that are kept, counted from the newest.
static std::vector<size_t> KeptAges(const std::vector<RetainedImage> &images, const std::optional<KeepRules> &rules,
                                    const RetentionState &state = proved)
{
    const std::vector<Decision> decisions = DecideRetention(images, rules, state);
    std::vector<size_t> ages;
    for (size_t i = images.size(); i-- > 0;) {
        if (!decisions[i].isLetGo) {
            ages.push_back(images.size() - 1 - i);
        }
    }
    return ages;
}

static bool Says(const Decision &decision, const std::string &text)
{
    return std::any_of(decision.reasons.begin(), decision.reasons.end(),
                       [&text](const std::string &reason) { return reason.find(text) != std::string::npos; });
}

using Ages = std::vector<size_t>;

TEST(Retention, KeepsTheLastOnes)
{
    EXPECT_EQ(KeptAges(Nights(10), Rules(3, 0, 0, 0)), (Ages{0, 1, 2}));
}

TEST(Retention, KeepsTheNewestOfEachDayThatHasOne)
{
    std::vector<RetainedImage> images = {Sound(1, noon - 5 * day), Sound(2, noon - day - 3600), Sound(3, noon - day),
                                         Sound(4, noon - 3600), Sound(5, noon)};
    EXPECT_EQ(KeptAges(images, Rules(0, 2, 0, 0)), (Ages{0, 2}));
}

TEST(Retention, KeepsTheNewestOfEachWeekWhichBeginsOnMonday)
{
    // The 22nd is a Sunday: the weeks end there, on the 15th and on the 8th.
    EXPECT_EQ(KeptAges(Nights(30), Rules(0, 0, 3, 0)), (Ages{0, 7, 14}));
}

TEST(Retention, KeepsTheNewestOfEachMonth)
{
    // The last days of October and of September lie 22 and 53 days before the 22nd of November.
    EXPECT_EQ(KeptAges(Nights(80), Rules(0, 0, 0, 3)), (Ages{0, 22, 53}));
}

TEST(Retention, KeepsTheOldestUntilThereAreAsManyMonthsAsAreWanted)
{
    EXPECT_EQ(KeptAges(Nights(5), Rules(0, 0, 0, 12)), (Ages{0, 4}));
    EXPECT_EQ(KeptAges(Nights(40), Rules(0, 0, 0, 3)), (Ages{0, 22, 39}));
}

TEST(Retention, KeepsWhatAKeptImageStandsOn)
{
    std::vector<RetainedImage> images = Nights(6);
    images[5].base = 4;
    images[4].base = 1;
    const std::vector<Decision> decisions = DecideRetention(images, Rules(1, 0, 0, 0), proved);
    EXPECT_TRUE(decisions[0].isLetGo);
    EXPECT_TRUE(Says(decisions[1], "a kept image stands on it"));
    EXPECT_TRUE(decisions[2].isLetGo);
    EXPECT_FALSE(decisions[4].isLetGo);
}

TEST(Retention, LetsGoOfNothingWithoutRules)
{
    EXPECT_EQ(KeptAges(Nights(3), std::nullopt), (Ages{0, 1, 2}));
}

TEST(Retention, LetsGoOfNothingWhileAnImageIsDamaged)
{
    std::vector<RetainedImage> images = Nights(3);
    images[1].isSound = false;
    images[1].isDamaged = true;
    EXPECT_EQ(KeptAges(images, Rules(1, 0, 0, 0)), (Ages{0, 1, 2}));
}

TEST(Retention, LetsGoOfNothingBeforeTheChainHasPassedItsAudit)
{
    const std::vector<Decision> decisions =
        DecideRetention(Nights(3), Rules(1, 0, 0, 0), {noon, false, "the last one was 9 days ago"});
    EXPECT_FALSE(decisions[0].isLetGo);
    EXPECT_TRUE(Says(decisions[0], "the last one was 9 days ago"));
}

TEST(Retention, KeepsTheNewestSoundImageWhateverTheRulesSay)
{
    std::vector<RetainedImage> images = Nights(3);
    images[2].isSound = false; // and nobody knows why
    EXPECT_EQ(KeptAges(images, Rules(0, 0, 0, 0)), (Ages{0, 1}));
}

TEST(Retention, AnUnsoundImageTakesNobodysPlace)
{
    std::vector<RetainedImage> images = Nights(3);
    images[2].isSound = false;
    EXPECT_EQ(KeptAges(images, Rules(2, 0, 0, 0)), (Ages{0, 1, 2}));
}

TEST(Retention, AnImageThatTheJobDidNotMakeIsNeitherCountedNorLetGo)
{
    std::vector<RetainedImage> images = Nights(3);
    images[0].isOurs = false;
    images[2].isOurs = false;
    EXPECT_EQ(KeptAges(images, Rules(1, 0, 0, 0)), (Ages{0, 1, 2}));
}

TEST(Retention, AnImageFromTheFutureIsKeptAndNotCounted)
{
    std::vector<RetainedImage> images = Nights(4);
    images[3].time = noon + 365 * day;
    EXPECT_EQ(KeptAges(images, Rules(2, 0, 0, 0)), (Ages{0, 1, 2}));
    EXPECT_TRUE(Says(DecideRetention(images, Rules(2, 0, 0, 0), proved)[3], "lies in the future"));
}

TEST(Retention, AClockThatIsALittleAheadIsNoFuture)
{
    std::vector<RetainedImage> images = Nights(3);
    images[2].time = noon + 3600;
    EXPECT_EQ(KeptAges(images, Rules(1, 0, 0, 0)), (Ages{0}));
}

TEST(Retention, GoesByTheOrderOfMakingWhereTheClockWentBack)
{
    std::vector<RetainedImage> images = Nights(3);
    images[2].time = noon - 5 * day; // made last
    EXPECT_EQ(KeptAges(images, Rules(1, 0, 0, 0)), (Ages{0}));
}

TEST(Retention, NamesTheReasonForEachImage)
{
    const std::vector<Decision> decisions = DecideRetention(Nights(3), Rules(1, 2, 0, 0), proved);
    EXPECT_TRUE(Says(decisions[2], "the newest sound image"));
    EXPECT_TRUE(Says(decisions[2], "number 1 of the last 1"));
    EXPECT_TRUE(Says(decisions[1], "the newest of the day 2026-11-21"));
    EXPECT_TRUE(Says(decisions[0], "no rule keeps it"));
}

// ---- The calendar ----

TEST(Clock, StampsAreOfUniversalTime)
{
    EXPECT_EQ(StampOf(0), "19700101T000000Z");
    EXPECT_EQ(StampOf(1795312805), "20261122T020005Z");
    EXPECT_EQ(StampOf(951782399), "20000228T235959Z");
    EXPECT_EQ(StampOf(951782400), "20000229T000000Z");
    EXPECT_EQ(StampOf(4107542400), "21000301T000000Z");
}

TEST(Clock, AStampGivesItsTimeBack)
{
    EXPECT_EQ(TimeOfStamp("20261122T020005Z"), 1795312805);
    for (int64_t time = 0; time < 5000000000; time += 86399 * 37) {
        EXPECT_EQ(TimeOfStamp(StampOf(time)), time);
    }
}

TEST(Clock, WhatIsNoStampGivesNoTime)
{
    for (const char *text : {"", "20261122T020005", "20261122 020005Z", "20260229T000000Z", "20261122T240000Z",
                             "20261131T000000Z", "2026112AT020005Z", "20261122T020005Zx", "20261122T020060Z"}) {
        EXPECT_FALSE(TimeOfStamp(text)) << text;
    }
}

TEST(Clock, WeeksAreThoseOfIso8601)
{
    EXPECT_EQ(PeriodsOf(noon).week, "2026-W47");
    EXPECT_EQ(PeriodsOf(noon).day, "2026-11-22");
    EXPECT_EQ(PeriodsOf(noon).month, "2026-11");
    // 2027-01-01 is a Friday of the last week of 2026, 2024-12-30 a Monday of the first of 2025.
    EXPECT_EQ(PeriodsOf(1798804800).week, "2026-W53");
    EXPECT_EQ(PeriodsOf(1735560000).week, "2025-W01");
}
