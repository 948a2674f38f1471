// The page of all jobs, of facts made by hand: what it says, what it draws, and that nothing in it is more than text.
#include "kestrix-keep/chain_blocks.h"
#include "kestrix-keep/change_strips.h"
#include "kestrix-keep/status_page.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace
{

constexpr int64_t noon = 1795348800; // 2026-11-22 12:00 UTC: the same day in most places
constexpr int64_t day = 86400;

using Branches = std::vector<std::vector<size_t>>;

// A sound image of 100 chunks of which it stores 5, in a file of as many KiB; base is its place in the folder.
KeptImage Image(size_t number, size_t base = noImage)
{
    KeptImage image;
    image.name = "job-" + std::to_string(number) + ".kstx";
    image.time = noon + static_cast<int64_t>(number) * day;
    image.isThere = true;
    image.base = base;
    image.chainLength = 1;
    image.sidecar = Sidecar();
    image.sidecar->base = base == noImage ? "" : "job-" + std::to_string(base) + ".kstx";
    image.sidecar->number = number;
    image.sidecar->fileBytes = 5 << 10;
    image.sidecar->chunks = 100;
    image.sidecar->storedChunks = 5;
    return image;
}

// One image on each of the bases, in this order.
JobFolder Folder(const std::vector<size_t> &bases)
{
    JobFolder folder;
    folder.path = "/backup";
    folder.job = "job";
    for (size_t i = 0; i < bases.size(); ++i) {
        folder.images.push_back(Image(i, bases[i]));
    }
    return folder;
}

PageFacts Facts(const std::vector<size_t> &bases)
{
    PageFacts facts;
    facts.madeAt = noon;
    facts.machine = "server";
    facts.jobs.emplace_back();
    facts.jobs[0].status.job = "job";
    facts.jobs[0].folder = Folder(bases);
    facts.jobs[0].strips.resize(bases.size());
    for (ChangeStrip &strip : facts.jobs[0].strips) {
        strip.fault = "not looked at";
    }
    return facts;
}

ChangeStrip Strip(const std::vector<uint8_t> &stored, const std::vector<uint8_t> &changed)
{
    ChangeStrip strip;
    strip.diskBytes = stored.size() * 512;
    strip.chunkBytes = 512;
    strip.chunks = stored.size();
    strip.storedChunks = 2;
    strip.stored = stored;
    strip.changedChunks = 1;
    strip.changed = changed;
    return strip;
}

bool Has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

size_t Count(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// The tags with their attributes' names, without what stands between them and in quotes.
std::string Skeleton(const std::string &page)
{
    std::string skeleton;
    bool isInTag = false;
    bool isQuoted = false;
    for (const char letter : page) {
        isInTag = isInTag || letter == '<';
        isQuoted = isInTag && letter == '"' ? !isQuoted : isQuoted;
        skeleton += isInTag && !isQuoted ? std::string(1, letter) : "";
        isInTag = isInTag && (isQuoted || letter != '>');
    }
    return skeleton;
}

// All texts of one image that come from elsewhere.
PageFacts FactsSaying(const std::string &text)
{
    PageFacts facts = Facts({noImage, 0});
    facts.machine = text;
    PageJob &job = facts.jobs[0];
    job.status.job = job.status.folder = job.status.lastRunSays = job.status.lastGood = text;
    job.status.problems = std::vector<std::string>(9, text);
    for (KeptImage &image : job.folder.images) {
        image.name = image.doubt = text;
        image.isDamaged = true;
    }
    job.folder.images[1].sidecar->base = text;
    job.folder.images[1].base = noImage;
    job.strips[0].fault = text + ".";
    job.strips[1] = Strip({1}, {1});
    return facts;
}

ImageHeader Header(uint64_t chunks)
{
    ImageHeader header = {};
    header.chunkCount = chunks;
    header.chunkSize = 512;
    header.diskSize = chunks * 512;
    return header;
}

// A table as it goes by: the first byte of each digest, and whether the chunk is stored.
ChangeStrip Take(StripMaker &maker, const std::vector<std::pair<uint8_t, bool>> &chunks)
{
    reader::ImageFacts facts;
    facts.kind = reader::FileKind::Image;
    facts.hasTable = true;
    facts.header = Header(chunks.size());
    std::vector<ChunkEntry> table(chunks.size());
    for (size_t i = 0; i < chunks.size(); ++i) {
        table[i].hash[0] = chunks[i].first;
        table[i].storedLength = chunks[i].second ? 512 : 0;
    }
    const size_t half = table.size() / 2; // in two pieces
    maker.Take(facts.header, table.data(), 0, half);
    maker.Take(facts.header, table.data() + half, half, table.size() - half);
    return maker.Finish(facts);
}

using Cells = std::vector<uint8_t>;

} // namespace

// ---- Which stands on which ----

TEST(ChainBlocks, HaveEachThinImageOfAFullOneInABranchOfItsOwn)
{
    const std::vector<ChainBlock> blocks = BlocksOf(Folder({noImage, 0, 0, noImage, 3}));
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[0].base, 0U);
    EXPECT_EQ(blocks[0].branches, (Branches{{1}, {2}}));
    EXPECT_EQ(blocks[1].base, 3U);
    EXPECT_EQ(blocks[1].branches, (Branches{{4}}));
}

TEST(ChainBlocks, FollowImagesThatStandOnTheOneBefore)
{
    const std::vector<ChainBlock> blocks = BlocksOf(Folder({noImage, 0, 1, 2}));
    ASSERT_EQ(blocks.size(), 1U);
    EXPECT_EQ(blocks[0].branches, (Branches{{1, 2, 3}}));
}

TEST(ChainBlocks, BeginAnewWhereTwoImagesStandOnAThinOne)
{
    const std::vector<ChainBlock> blocks = BlocksOf(Folder({noImage, 0, 1, 1, 3, 0}));
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[0].branches, (Branches{{1, 2}, {5}}));
    EXPECT_TRUE(blocks[0].standsOnNothing);
    EXPECT_EQ(blocks[1].base, 1U);
    EXPECT_EQ(blocks[1].branches, (Branches{{3, 4}}));
    EXPECT_FALSE(blocks[1].standsOnNothing);
}

TEST(ChainBlocks, PutImagesTogetherWhoseBaseIsMissing)
{
    JobFolder folder = Folder({noImage, noImage, 1, noImage});
    folder.images[1].sidecar->base = folder.images[3].sidecar->base = "lost.kstx";
    const std::vector<ChainBlock> blocks = BlocksOf(folder);
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[1].base, noImage);
    EXPECT_EQ(blocks[1].missingBase, "lost.kstx");
    EXPECT_EQ(blocks[1].branches, (Branches{{1, 2}, {3}}));
}

TEST(ChainBlocks, HaveEachImageOnceInACircleOfBases)
{
    const std::vector<ChainBlock> blocks = BlocksOf(Folder({2, 0, 1, 3}));
    std::vector<size_t> all;
    for (const ChainBlock &block : blocks) {
        EXPECT_EQ(block.base, noImage);
        for (const std::vector<size_t> &branch : block.branches) {
            all.insert(all.end(), branch.begin(), branch.end());
        }
    }
    EXPECT_EQ(all, (std::vector<size_t>{0, 1, 2, 3}));
}

// ---- Strips ----

TEST(ChangeStrip, OfTheFirstTableTellsWhatIsStoredAlone)
{
    StripMaker maker;
    const ChangeStrip strip = Take(maker, {{1, true}, {2, false}, {3, true}});
    EXPECT_EQ(strip.fault, "");
    EXPECT_EQ(strip.chunks, 3U);
    EXPECT_EQ(strip.diskBytes, 1536U);
    EXPECT_EQ(strip.storedChunks, 2U);
    EXPECT_EQ(strip.stored, (Cells{4, 0, 4}));
    EXPECT_FALSE(strip.changedChunks);
    EXPECT_TRUE(strip.changed.empty());
}

TEST(ChangeStrip, ComparesDigestsWithTheTableBefore)
{
    StripMaker maker;
    Take(maker, {{1, true}, {2, true}, {3, true}, {4, true}});
    Take(maker, {{1, false}, {9, true}, {3, false}, {4, false}});
    const ChangeStrip strip = Take(maker, {{1, false}, {9, true}, {8, true}, {4, false}});
    EXPECT_EQ(strip.storedChunks, 2U);
    EXPECT_EQ(strip.changedChunks, std::optional<uint64_t>(1));
    EXPECT_EQ(strip.stored, (Cells{0, 4, 4, 0}));
    EXPECT_EQ(strip.changed, (Cells{0, 0, 4, 0}));
}

TEST(ChangeStrip, OfMoreChunksThanCellsCountsQuartersRoundedUp)
{
    std::vector<std::pair<uint8_t, bool>> chunks(size_t{5} * mostCells, {1, false});
    StripMaker maker;
    Take(maker, chunks);
    chunks[0].second = true; // one of the five in the first cell
    for (size_t i = 5; i < 8; ++i) {
        chunks[i] = {2, true}; // three in the second
    }
    for (size_t i = 10; i < 15; ++i) {
        chunks[i] = {2, true}; // all in the third
    }
    const ChangeStrip strip = Take(maker, chunks);
    ASSERT_EQ(strip.stored.size(), mostCells);
    EXPECT_EQ(Cells(strip.stored.begin(), strip.stored.begin() + 4), (Cells{1, 3, 4, 0}));
    EXPECT_EQ(Cells(strip.changed.begin(), strip.changed.begin() + 4), (Cells{0, 3, 4, 0}));
    EXPECT_EQ(strip.storedChunks, 9U);
    EXPECT_EQ(strip.changedChunks, std::optional<uint64_t>(8));
}

TEST(ChangeStrip, ComparesNoTablesOfDifferentDisks)
{
    StripMaker maker;
    Take(maker, {{1, true}, {2, true}});
    EXPECT_FALSE(Take(maker, {{1, true}, {2, true}, {3, true}}).changedChunks);
    EXPECT_TRUE(Take(maker, {{1, true}, {2, true}, {3, true}}).changedChunks);
}

TEST(ChangeStrip, ComparesNoTablesOfDifferentChunks)
{
    reader::ImageFacts facts;
    facts.kind = reader::FileKind::Image;
    facts.hasTable = true;
    const ChunkEntry table[3] = {};
    StripMaker maker;
    const auto take = [&](uint64_t chunks, uint32_t chunkSize) {
        facts.header = Header(chunks);
        facts.header.chunkSize = chunkSize;
        facts.header.diskSize = 1024;
        maker.Take(facts.header, table, 0, chunks);
        return maker.Finish(facts).changedChunks;
    };
    take(2, 512);
    EXPECT_FALSE(take(2, 1024));
    EXPECT_FALSE(take(3, 1024)); // as no right writer would have it
    EXPECT_TRUE(take(3, 1024));
}

TEST(ChangeStrip, ComparesNothingWithATableThatBrokeOff)
{
    StripMaker maker;
    Take(maker, {{1, true}, {2, true}});
    const ChunkEntry entry = {};
    maker.Take(Header(2), &entry, 0, 1);
    reader::ImageFacts facts;
    facts.fault = reader::Fault{reader::FaultKind::Unavailable, "x: its chunk table can't be read"};
    EXPECT_EQ(maker.Finish(facts).fault, "x: its chunk table can't be read");
    EXPECT_FALSE(Take(maker, {{1, true}, {2, true}}).changedChunks);
}

TEST(ChangeStrip, ComparesAcrossAFileOfWhichNoTableWasSeen)
{
    StripMaker maker;
    Take(maker, {{1, true}, {2, true}});
    reader::ImageFacts facts;
    facts.fault = reader::Fault{reader::FaultKind::Unavailable, "x: it can't be opened"};
    maker.Finish(facts);
    EXPECT_EQ(Take(maker, {{1, true}, {3, true}}).changedChunks, std::optional<uint64_t>(1));
}

TEST(ChangeStrip, OfAnImageThatWasLetGoMeanwhileIsNoDamage)
{
    const std::string place = testing::TempDir() + "status_page_test";
    JobFolder folder = Folder({noImage});
    folder.path = testing::TempDir();
    folder.images[0].name = "status_page_test";
    EXPECT_EQ(ReadStrips(folder, false)[0].fault, PathOf(folder, folder.images[0]) + ": it was let go in this moment");
    EXPECT_TRUE(IsSound(folder.images[0]));
    std::FILE *sidecar = std::fopen((place + ".json").c_str(), "w");
    ASSERT_NE(sidecar, nullptr);
    std::fclose(sidecar);
    EXPECT_TRUE(Has(ReadStrips(folder, false)[0].fault, "it can't be opened"));
    EXPECT_FALSE(IsSound(folder.images[0]));
    std::remove((place + ".json").c_str());
}

// ---- Escapes ----

TEST(Escaped, LeavesNothingThatEndsTextOrAnAttribute)
{
    EXPECT_EQ(Escaped("a<b>\"c\"&'d'"), "a&#60;b&#62;&#34;c&#34;&#38;&#39;d&#39;");
    EXPECT_EQ(Escaped("&lt;"), "&#38;lt;");
}

TEST(Escaped, ReplacesWhatNoPageCanHold)
{
    EXPECT_EQ(Escaped(std::string("a\0b\n\x1B\x7F\xC2\x85", 8)), "a?b?????");
    EXPECT_EQ(Escaped("\xFF\xC0\xBC"), "???"); // no UTF-8; an overlong <
    EXPECT_EQ(Escaped("\xEF\xBF\xBE.\xEF\xBF\xBF"), "?.?");
    EXPECT_EQ(Escaped("\xC3\xA4\xEF\xBF\xBD"), "\xC3\xA4\xEF\xBF\xBD");
}

TEST(Escaped, CutsOffWhatIsTooLongAndSaysSo)
{
    EXPECT_EQ(Escaped(std::string(2000, 'x')), std::string(2000, 'x'));
    EXPECT_EQ(Escaped(std::string(2001, 'x')), std::string(2000, 'x') + " [2001 bytes in all]");
}

TEST(StatusPage, HasTheSameTagsWhateverTextsSay)
{
    const std::string plain = StatusPage(FactsSaying("text"));
    for (const std::string text : {"<script>alert(1)</script>", "\" onload=\"alert(1)", "' onload='alert(1)", "]]>-->",
                                   "</style></title></main>", "&#60;script&#62;", "\xC0\xBCscript>"}) {
        const std::string page = StatusPage(FactsSaying(text));
        EXPECT_EQ(Skeleton(page), Skeleton(plain)) << text;
        EXPECT_TRUE(text[0] == '\xC0' || !Has(page, text)) << text;
    }
    EXPECT_GT(Count(plain, "text"), 20U);
}

TEST(StatusPage, ShowsTimesThatNoCalendarHas)
{
    PageFacts facts = Facts({noImage, 0});
    facts.jobs[0].folder.images[0].time = INT64_MIN;
    facts.jobs[0].folder.images[1].time = INT64_MAX;
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "-9223372036854775808 seconds from 1970"));
    EXPECT_TRUE(Has(page, "9223372036854775807 seconds from 1970"));
}

// ---- What it says ----

TEST(StatusPage, SaysAtTheTopThatAllIsWell)
{
    const std::string page = StatusPage(Facts({noImage}));
    EXPECT_TRUE(Has(page, "<strong>&#10003; All is well</strong> with 1 job."));
    EXPECT_FALSE(Has(page, "Something is wrong"));
    EXPECT_TRUE(Has(page, "<h1>Images of disks on server</h1>\n<p class=\"made\">As it was at 2026-11-22 "));
}

TEST(StatusPage, SaysAtTheTopWhatIsWrongJobByJob)
{
    PageFacts facts = Facts({noImage});
    facts.jobs.push_back(facts.jobs[0]);
    facts.jobs[1].status.job = "other";
    facts.jobs[1].status.problems = {"there is no sound image"};
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "Something is wrong</strong> with 1 of 2 jobs."));
    EXPECT_TRUE(Has(page, "<li><a href=\"#job-2\">other</a>\n<ul>\n<li>there is no sound image</li>\n</ul></li>"));
    EXPECT_LT(page.find("there is no sound image"), page.find("id=\"job-1\""));
}

TEST(StatusPage, ShowsEightOfAJobsProblemsAtTheTopAndAllWithTheJob)
{
    PageFacts facts = Facts({noImage});
    for (int i = 1; i <= 9; ++i) {
        facts.jobs[0].status.problems.push_back("problem " + std::to_string(i) + ".");
    }
    const std::string page = StatusPage(facts);
    EXPECT_EQ(Count(page, "problem 8."), 2U);
    EXPECT_EQ(Count(page, "problem 9."), 1U);
    EXPECT_TRUE(Has(page, "<a href=\"#job-1\">and 1 more</a>"));
}

TEST(StatusPage, OfAFolderThatCanNotBeReadHasItsSentenceAndNoDrawings)
{
    PageFacts facts = Facts({});
    facts.jobs[0].status.problems = {"/backup: it can't be listed"};
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "/backup: it can&#39;t be listed"));
    EXPECT_FALSE(Has(page, "<h3>"));
}

TEST(StatusPage, MarksWhatIsDamagedOrGoneWithMoreThanColour)
{
    PageFacts facts = Facts({noImage, 0, 0, 0});
    std::vector<KeptImage> &images = facts.jobs[0].folder.images;
    images[1].isDamaged = true;
    images[1].doubt = "its SHA-256 is another";
    images[2].isThere = false;
    images[3].doubt = "it can't be looked at";
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "&#215; 11-23<span class=\"hidden\"> damaged</span>"));
    EXPECT_TRUE(Has(page, "&#215; 11-24<span class=\"hidden\"> gone</span>"));
    EXPECT_TRUE(Has(page, "? 11-25<span class=\"hidden\"> in doubt</span>"));
    EXPECT_TRUE(Has(page, "damaged: its SHA-256 is another"));
    EXPECT_TRUE(Has(page, "d=\"M11 1040h8v60h-8zM21 1040h8v60h-8zM31 1040h8v60h-8z\""));
}

TEST(StatusPage, SaysInItsRowThatATableCanNotBeRead)
{
    PageFacts facts = Facts({noImage});
    facts.jobs[0].strips[0].fault = "job-0.kstx: its chunk table is cut off";
    EXPECT_TRUE(Has(StatusPage(facts),
                    "<span class=\"says\">its table can&#39;t be read: job-0.kstx: its chunk table is "
                    "cut off</span></li>"));
}

// ---- What it draws ----

TEST(StatusPage, DrawsNeighbouringCellsOfOneLevelAsOneLine)
{
    PageFacts facts = Facts({noImage});
    facts.jobs[0].strips[0] = Strip({4, 4, 0, 1, 1, 1, 4, 0}, {0, 0, 0, 0, 0, 2, 2, 2});
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(
        Has(page, "<svg viewBox=\"0 0 8 10\" preserveAspectRatio=\"none\" role=\"img\"><title>2026-11-22: of 8 chunks "
                  "2 stored, 1 changed</title><path class=\"s1\" d=\"M3 3h3\"/><path class=\"s4\" d=\"M0 3h2M6 "
                  "3h1\"/><path class=\"c2\" d=\"M5 8.5h3\"/></svg>"));
}

TEST(StatusPage, DrawsASmallerDiskAsAShorterStrip)
{
    PageFacts facts = Facts({noImage, noImage});
    facts.jobs[0].strips[0] = Strip(Cells(4, 4), Cells(4, 0));
    facts.jobs[0].strips[1] = Strip(Cells(6, 4), Cells(6, 0));
    const std::string page = StatusPage(facts);
    EXPECT_EQ(Count(page, "<svg viewBox=\"0 0 6 10\""), 2U);
    EXPECT_TRUE(Has(page, "d=\"M0 3h4\""));
    EXPECT_TRUE(Has(page, "d=\"M0 3h6\""));
}

TEST(StatusPage, DrawsFilesToTheScaleOfTheLargestThinOne)
{
    PageFacts facts = Facts({noImage, 0, 0});
    std::vector<KeptImage> &images = facts.jobs[0].folder.images;
    images[0].sidecar->fileBytes = 1 << 20;
    images[1].sidecar->fileBytes = 1 << 10;
    images[2].sidecar->fileBytes = 4 << 10;
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "<path class=\"size\" d=\"M11 1000v-250h8v250zM21 1000v-1000h8v1000z\"/>"
                          "<path class=\"full\" d=\"M1 1000V1h8V1000z\"/>"));
    EXPECT_TRUE(Has(page, "<div class=\"scale\"><span>4.00 KiB</span><span>0</span></div>"));
}

TEST(StatusPage, DrawsSharesToTheScaleOfTheLargestAndChangesWithinThem)
{
    PageFacts facts = Facts({noImage, 0});
    facts.jobs[0].strips[1] = Strip({4, 4, 0, 0, 0, 0, 0, 0}, {0, 4, 0, 0, 0, 0, 0, 0}); // 2 of 8 stored, 1 changed
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "<path class=\"store\" d=\"M11 1000v-1000h8v1000z\"/>"));
    EXPECT_TRUE(Has(page, "<path class=\"change\" d=\"M13 1000v-500h4v500z\"/>"));
    EXPECT_TRUE(Has(page, "<span>25.0 %</span>"));
    EXPECT_TRUE(Has(page, "<td>2 of 8 chunks stored (25.0 %)</td><td>1 of 8 chunks changed (12.5 %)</td>"));
}

TEST(StatusPage, TakesFromTheSidecarWhatIsStoredWhereTheTableCanNotBeRead)
{
    const std::string page = StatusPage(Facts({noImage, 0}));
    EXPECT_TRUE(Has(page, "<td>5 of 100 chunks stored (5.0 %)</td><td>not compared</td>"));
}

TEST(StatusPage, SurvivesFiguresThatNoDiskHas)
{
    PageFacts facts = Facts({noImage, 0});
    Sidecar &sidecar = *facts.jobs[0].folder.images[1].sidecar;
    sidecar.fileBytes = sidecar.storedChunks = UINT64_MAX;
    sidecar.chunks = 0;
    facts.jobs[0].status.usedBytes = UINT64_MAX;
    facts.jobs[0].status.freeBytes = UINT64_MAX;
    facts.jobs[0].status.spaceIsKnown = true;
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "M11 1000v-1000h8v1000z"));
    EXPECT_FALSE(Has(page, "nan"));
    EXPECT_FALSE(Has(page, "inf"));
}

TEST(StatusPage, ShowsHowMuchOfTheRoomTheImagesHave)
{
    PageFacts facts = Facts({noImage});
    facts.jobs[0].status.usedBytes = 1 << 20;
    facts.jobs[0].status.freeBytes = 3 << 20;
    facts.jobs[0].status.bytesPerDay = 1 << 20;
    facts.jobs[0].status.spaceIsKnown = true;
    const std::string page = StatusPage(facts);
    EXPECT_TRUE(Has(page, "<path d=\"M0 0h250v10H0z\"/></svg>3.00 MiB, which lasts for 3 days at 1.00 MiB a day, if "
                          "nothing is let go"));
}

TEST(StatusPage, IsTheSameOfTheSameFactsAndNeedsNothingElse)
{
    const std::string page = StatusPage(Facts({noImage, 0, 1}));
    EXPECT_EQ(page, StatusPage(Facts({noImage, 0, 1})));
    for (const char *part : {"<script", "<link", "<img", "<iframe", "@import", "url(", "http:", "https:", "src="}) {
        EXPECT_FALSE(Has(page, part)) << part;
    }
    EXPECT_TRUE(Has(page, "content=\"default-src 'none'; style-src 'unsafe-inline'\""));
}

TEST(StatusPage, OfFourHundredImagesStaysSmallEvenWhereAllCellsDiffer)
{
    std::vector<size_t> bases(400, 0);
    bases[0] = noImage;
    PageFacts facts = Facts(bases);
    Cells cells(mostCells);
    for (size_t i = 0; i < cells.size(); ++i) {
        cells[i] = static_cast<uint8_t>(1 + i % 4);
    }
    for (ChangeStrip &strip : facts.jobs[0].strips) {
        strip = Strip(cells, cells);
    }
    EXPECT_LT(StatusPage(facts).size(), size_t{2} << 20);
}
