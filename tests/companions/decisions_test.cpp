// What kestrix-image decides and words without a file: the forest, the map, the feeder, lines and JSON.
#include "kestrix-image/forest.h"
#include "kestrix-image/map.h"
#include "kestrix-image/status.h"
#include "reader/audit.h"
#include "report/report.h"

#include <gtest/gtest.h>

#include <map>

namespace
{

ImageId Id(uint8_t number)
{
    ImageId id = {};
    id[0] = number;
    return id;
}

// An image whose file has the identity of its id, named by that too.
reader::ImageFacts Facts(uint8_t number, uint8_t base = 0)
{
    reader::ImageFacts facts;
    facts.kind = reader::FileKind::Image;
    facts.id = Id(number);
    facts.identity = {1, number};
    facts.header.diskSize = 1000;
    facts.header.chunkSize = 500;
    facts.header.chunkCount = 2;
    if (base != 0) {
        facts.trailer = reader::Trailer{std::string(1, static_cast<char>(base)), Id(base)};
    }
    return facts;
}

// The file of a base's name is the one of that number; 98 isn't there.
std::optional<host::FileIdentity> ByName(const reader::ImageFacts &facts)
{
    const auto number = static_cast<uint8_t>(facts.trailer->baseName[0]);
    return number == 98 ? std::nullopt : std::optional<host::FileIdentity>({1, number});
}

reader::ImageFacts Named(reader::ImageFacts facts, uint8_t number)
{
    facts.trailer->baseName = std::string(1, static_cast<char>(number));
    return facts;
}

} // namespace

TEST(Forest, MeasuresChainsFromTheirFullImage)
{
    const std::vector<Node> nodes = MakeForest({Facts(3, 2), Facts(1), Facts(2, 1), Facts(4, 2)}, {}, ByName);
    EXPECT_EQ(nodes[0].length, 3U);
    EXPECT_EQ(nodes[1].length, 1U);
    EXPECT_EQ(nodes[2].length, 2U);
    EXPECT_EQ(nodes[0].standsOn, 2U);
    EXPECT_EQ(nodes[2].children, (std::vector<size_t>{0, 3}));
    EXPECT_EQ(RoomLeft(nodes[0]), 62U);
    EXPECT_EQ(ConsolidatedBytes(nodes[0]), 64U + 2 * 72 + 1000);
}

TEST(Forest, BreaksAChainAtABaseThatIsMissingReplacedOrOfAnotherDisk)
{
    reader::ImageFacts other = Facts(5, 1);
    other.header.diskSize = 1001;
    reader::ImageFacts text;
    text.kind = reader::FileKind::Other;
    text.identity = {1, 99};
    const std::vector<Node> nodes = MakeForest(
        {Facts(1), Named(Facts(2, 1), 98), Named(Facts(3, 1), 99), Named(Facts(4, 1), 2), other, Facts(6, 2)}, {text},
        ByName);
    EXPECT_EQ(nodes[1].base, BaseState::Missing);
    EXPECT_EQ(nodes[2].base, BaseState::Replaced);
    EXPECT_EQ(nodes[3].base, BaseState::Replaced);
    EXPECT_EQ(nodes[4].base, BaseState::OtherGeometry);
    EXPECT_EQ(nodes[1].sameAsBase, 0U);
    EXPECT_EQ(nodes[5].base, BaseState::Present);
    EXPECT_FALSE(nodes[5].length); // its base is there, that one's is not
}

TEST(Map, PutsNeighboursOfOneStatusIntoOneBlock)
{
    MapText map;
    map.Add(0x1000, '+');
    map.Add(0x1000, '+');
    map.Add(0x200, '?');
    map.Add(1, '/');
    EXPECT_EQ(map.Finish(), "# Mapfile. Created by kestrix-image\n"
                            "# current_pos  current_status  current_pass\n"
                            "0x00000000     ?               1\n"
                            "#      pos        size  status\n"
                            "0x00000000  0x00002000  +\n"
                            "0x00002000  0x00000200  ?\n"
                            "0x00002200  0x00000001  /\n");
}

TEST(Map, OfAWholeDiskIsFinished)
{
    MapText map;
    map.Add(0x1000, '+');
    map.Add(0x1000, '+');
    EXPECT_EQ(map.Finish(), "# Mapfile. Created by kestrix-image\n"
                            "# current_pos  current_status  current_pass\n"
                            "0x00002000     +               1\n"
                            "#      pos        size  status\n"
                            "0x00000000  0x00002000  +\n");
}

TEST(Feeder, GivesEachChunkOnceTheDeepestImageFirstAndEachInFileOrder)
{
    reader::Chain chain;
    chain.images.resize(2);
    chain.storedIn = {1, 0, 1, reader::storedNowhere, 0};
    reader::ChunkFeeder feeder(chain);
    std::vector<uint64_t> order;
    for (uint64_t chunk = 0; feeder.Next(&chunk);) {
        order.push_back(chunk);
    }
    EXPECT_EQ(order, (std::vector<uint64_t>{0, 2, 1, 4, 3}));
}

TEST(Verdicts, KeepOneFaultForEachChunkAndForgetWhatWasMadeGood)
{
    reader::Verdicts verdicts(3);
    verdicts.Record(2, {reader::ChunkCause::Digest, 1, ""});
    verdicts.Record(0, {reader::ChunkCause::Digest, 1, ""});
    EXPECT_EQ(verdicts.faults.size(), 1U);
    EXPECT_EQ(verdicts.CountBad(), 2U);
    EXPECT_EQ(verdicts.FaultOf(1), nullptr);
    verdicts.Clear(2);
    EXPECT_EQ(verdicts.FaultOf(2), nullptr);
    EXPECT_EQ(verdicts.FaultOf(0)->level, 1);
}

TEST(Verdicts, OfMoreKindsThanAByteHoldsAreStillAllBad)
{
    reader::Verdicts verdicts(300);
    for (uint64_t i = 0; i < 300; ++i) {
        verdicts.Record(i, {reader::ChunkCause::Unreadable, 0, std::to_string(i)});
    }
    EXPECT_EQ(verdicts.CountBad(), 300U);
    EXPECT_EQ(verdicts.FaultOf(7)->systemSays, "7");
}

TEST(Verdicts, OfALaterKindKeepTheirOwnFileAndCause)
{
    constexpr uint64_t kinds = 70000; // more than two bytes hold
    reader::Verdicts verdicts(kinds + 2);
    for (uint64_t i = 0; i < kinds; ++i) {
        verdicts.Record(i, {reader::ChunkCause::Unreadable, 0, std::to_string(i)});
    }
    verdicts.Record(kinds, {reader::ChunkCause::Digest, 3, ""});
    verdicts.Record(kinds + 1, {reader::ChunkCause::Unreadable, 4, "late"});
    EXPECT_EQ(verdicts.CountBad(), kinds + 2);
    EXPECT_EQ(verdicts.FaultOf(300)->systemSays, "300");
    EXPECT_EQ(verdicts.FaultOf(kinds - 1)->cause, reader::ChunkCause::Unreadable);
    EXPECT_EQ(verdicts.FaultOf(kinds)->cause, reader::ChunkCause::Digest);
    EXPECT_EQ(verdicts.FaultOf(kinds)->level, 3);
    EXPECT_EQ(verdicts.FaultOf(kinds + 1)->level, 4);
    EXPECT_EQ(verdicts.FaultOf(kinds + 1)->systemSays, "late");
}

TEST(Words, ControlCharactersDoNotReachATerminal)
{
    EXPECT_EQ(Printable("a\x1b[2J\n\x7f\xc3\xa4"), "a?[2J??\xc3\xa4");
    EXPECT_EQ(Printable("\xc2\x9b[2J"), "??[2J");
}

TEST(Words, BytesThatAreNoTextDoNotReachATerminal)
{
    EXPECT_EQ(Printable("\x9b[2J"), "?[2J");
    EXPECT_EQ(Printable("a\xff\xc3"), "a??");
    EXPECT_EQ(Printable("\xc1\x9b\xe0\x82\x9b\xed\xa0\x80\xf4\x90\x80\x80"), "????????????");
    EXPECT_EQ(Printable("\xe2\x82\xac\xf0\x9f\x92\xbe"), "\xe2\x82\xac\xf0\x9f\x92\xbe");
}

TEST(Words, SizesHaveTheirUnit)
{
    EXPECT_EQ(SizeText(1), "1 byte");
    EXPECT_EQ(SizeText(1023), "1023 bytes");
    EXPECT_EQ(SizeText(1024), "1.00 KiB");
    EXPECT_EQ(SizeText(uint64_t{3} << 39), "1.50 TiB");
}

TEST(Words, TheWorseOfTwoFaultsIsTheStatus)
{
    EXPECT_EQ(StatusOf({reader::FaultKind::Damaged, ""}), 1);
    EXPECT_EQ(StatusOf({reader::FaultKind::Unavailable, ""}), 3);
    EXPECT_EQ(Worse(exitFound, exitImpossible), 3);
}

TEST(ProgressBar, ShowsShareRateAndTimeLeftAndFitsTheTerminal)
{
    EXPECT_EQ(ProgressLine("a", 50 << 20, 200 << 20, 10, 80),
              "[#####...............]  25 %  5.0 MiB/s  0:00:30 left  a");
    EXPECT_EQ(ProgressLine("a", 0, 0, 0, 80), "[####################] 100 %  0.0 MiB/s  -:--:-- left  a");
    EXPECT_EQ(ProgressLine("a", 0, 100, 0, 10).size(), 10U);
    EXPECT_EQ(ProgressLine("a", 30, 120, 10, 80, Unit::Files),
              "[#####...............]  25 %  3.0 files/s  0:00:30 left  a");
}
