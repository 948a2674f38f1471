// What is wrong first, then each job: its figures, what stands on what, sizes and changes over time, where on the disk
// it changes, and all of that as a table.
//
// Drawings stretch with the window, so that words in them would too: these stand beside them, as text of the page.
#include "kestrix-keep/status_page.h"

#include "kestrix-keep/chain_blocks.h"
#include "kestrix-keep/clock.h"
#include "report/report.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>

// ---- Words ----

std::string Escaped(const std::string &text)
{
    constexpr size_t longest = 2000;
    const bool isCut = text.size() > longest;
    const std::string printable = host::PrintableText(isCut ? text.substr(0, longest) : text);
    std::string escaped;
    for (size_t i = 0; i < printable.size(); ++i) {
        const char letter = printable[i];
        if (printable.compare(i, 3, "\xEF\xBF\xBE") == 0 || printable.compare(i, 3, "\xEF\xBF\xBF") == 0) {
            escaped += '?'; // U+FFFE and U+FFFF are no characters
            i += 2;
        } else if (letter == '&' || letter == '<' || letter == '>' || letter == '"' || letter == '\'') {
            escaped += "&#" + std::to_string(int{letter}) + ";";
        } else {
            escaped += letter;
        }
    }
    return escaped + (isCut ? " [" + Counted(text.size(), "byte") + " in all]" : "");
}

// No calendar has what a sidecar can claim.
static bool HasDay(int64_t time)
{
    constexpr int64_t yearTenThousand = 253402300800;
    return time >= 0 && time < yearTenThousand;
}

static std::string DayText(int64_t time)
{
    return HasDay(time) ? Escaped(PeriodsOf(time).day) : "no day";
}

// "11-22".
static std::string ShortDayText(int64_t time)
{
    const std::string day = DayText(time);
    return HasDay(time) ? day.substr(day.size() - 5) : day;
}

static std::string TimeText(int64_t time)
{
    return HasDay(time) ? LocalTimeText(time) : std::to_string(time) + " seconds from 1970";
}

// Of 1; 0 where there is nothing to have a share of.
static double Share(uint64_t part, uint64_t all)
{
    return all == 0 ? 0 : std::min(1.0, static_cast<double>(part) / static_cast<double>(all));
}

static std::string PercentText(double share)
{
    char text[32];
    snprintf(text, sizeof(text), share > 0 && share < 0.01 ? "%.2f %%" : "%.1f %%", share * 100);
    return text;
}

static std::string NumberText(double number)
{
    char text[32];
    snprintf(text, sizeof(text), "%.6g", number);
    return text;
}

// ---- Images ----

// What is known of an image, drawn by shape and mark and not by colour alone.
struct StateLook {
    const char *word;
    const char *style; // classes
    const char *mark;  // in front of its day
};

static StateLook LookOf(const KeptImage &image)
{
    if (!image.isThere) {
        return {"gone", " gone", "&#215; "};
    }
    if (image.isDamaged) {
        return {"damaged", " bad", "&#215; "};
    }
    return image.doubt.empty() ? StateLook{"sound", "", ""} : StateLook{"in doubt", " bad", "? "};
}

static bool IsWrong(const KeptImage &image)
{
    return !image.isThere || !image.doubt.empty();
}

static uint64_t FileBytes(const KeptImage &image)
{
    return image.isThere && image.sidecar ? image.sidecar->fileBytes : 0;
}

// Stored chunks and all, by the table, or else by the sidecar.
struct StoredShare {
    uint64_t stored = 0;
    uint64_t chunks = 0;
};

static StoredShare StoredOf(const PageJob &job, size_t image)
{
    const ChangeStrip &strip = job.strips[image];
    const KeptImage &kept = job.folder.images[image];
    if (strip.fault.empty()) {
        return {strip.storedChunks, strip.chunks};
    }
    return kept.isThere && kept.sidecar ? StoredShare{kept.sidecar->storedChunks, kept.sidecar->chunks} : StoredShare();
}

// Of the image's row in the job's table.
static std::string RowId(size_t job, size_t image)
{
    return "job-" + std::to_string(job + 1) + "-" + std::to_string(image + 1);
}

// ---- At the top ----

constexpr size_t mostAtTop = 8; // problems of a job

static std::string ListItems(const std::vector<std::string> &texts, size_t most)
{
    std::string items;
    for (size_t i = 0; i < std::min(texts.size(), most); ++i) {
        items += "<li>" + Escaped(texts[i]) + "</li>\n";
    }
    return items;
}

static std::string Problems(const JobStatus &status, size_t job)
{
    const std::string place = "#job-" + std::to_string(job + 1);
    std::string text =
        "<li><a href=\"" + place + "\">" + Escaped(status.job) + "</a>\n<ul>\n" + ListItems(status.problems, mostAtTop);
    if (status.problems.size() > mostAtTop) {
        text += "<li><a href=\"" + place + "\">and " + std::to_string(status.problems.size() - mostAtTop) +
                " more</a></li>\n";
    }
    return text + "</ul></li>\n";
}

static std::string Verdict(const PageFacts &facts)
{
    std::string bad;
    size_t badCount = 0;
    for (size_t i = 0; i < facts.jobs.size(); ++i) {
        if (!facts.jobs[i].status.problems.empty()) {
            bad += Problems(facts.jobs[i].status, i);
            ++badCount;
        }
    }
    const std::string all = Counted(facts.jobs.size(), "job");
    if (badCount == 0) {
        return "<section class=\"verdict\"><strong>&#10003; All is well</strong> with " + all + ".</section>\n";
    }
    return "<section class=\"bad verdict\"><strong>&#215; Something is wrong</strong> with " +
           std::to_string(badCount) + " of " + all + ".\n<ul>\n" + bad + "</ul></section>\n";
}

// ---- A job's figures ----

// name and value are markup; more is text.
static std::string Fact(const std::string &name, const std::string &value, const std::string &more)
{
    return "<div><dt>" + name + "</dt><dd>" + value +
           (more.empty() ? "" : " <span class=\"more\">" + Escaped(more) + "</span>") + "</dd></div>\n";
}

static std::string RoomBar(const JobStatus &status)
{
    const double used = static_cast<double>(status.usedBytes);
    const double share = used / std::max(1.0, used + static_cast<double>(status.freeBytes));
    return "<svg class=\"room\" viewBox=\"0 0 1000 10\" preserveAspectRatio=\"none\" role=\"img\"><title>The images "
           "have " +
           PercentText(share) + " of what they and the free room are together</title><path d=\"M0 0h" +
           std::to_string(std::lround(std::ceil(share * 1000))) + "v10H0z\"/></svg>";
}

static std::string JobFacts(const JobStatus &status, int64_t now)
{
    std::string text = "<dl class=\"facts\">\n";
    if (status.lastGood.empty()) {
        text += Fact("Last good image", "none", "");
    } else {
        text += Fact("Last good image", Escaped(TimeText(status.lastGoodAt)),
                     AgeText(now - status.lastGoodAt) + " old; " + status.lastGood);
        text += Fact("Next due", Escaped(TimeText(status.dueAt)), status.isOverdue ? "overdue" : "");
        text += Fact("Its chain", Counted(status.chainLength, "image") + " of " + std::to_string(status.chainLimit),
                     ProvedText(status.chainProvedAt, now));
    }
    text += Fact("Images", std::to_string(status.images) + ", " + SizeText(status.usedBytes),
                 status.damagedImages == 0 ? "" : std::to_string(status.damagedImages) + " damaged or gone");
    text += Fact("Room", (status.spaceIsKnown ? RoomBar(status) : "") + Escaped(RoomText(status)), "");
    if (!status.lastRunSays.empty()) {
        text += Fact("Last run", Escaped(status.lastRunSays), "");
    }
    for (const std::string &note : status.notes) {
        text += Fact("Password", Escaped(note), "");
    }
    return text + "</dl>\n";
}

// ---- What stands on what ----

static std::string Box(const PageJob &job, size_t number, size_t image)
{
    const KeptImage &kept = job.folder.images[image];
    const StateLook look = LookOf(kept);
    const bool isLast = kept.name == job.status.lastGood;
    return std::string("<a class=\"box") + look.style + (isLast ? " last" : "") + "\" href=\"#" + RowId(number, image) +
           "\" title=\"" + Escaped(kept.name) + ": " + look.word + "\">" + look.mark + ShortDayText(kept.time) +
           (IsWrong(kept) ? std::string("<span class=\"hidden\"> ") + look.word + "</span>" : "") + "</a>";
}

static std::string BaseBox(const PageJob &job, size_t number, const ChainBlock &block)
{
    if (block.base == noImage && block.missingBase.empty()) {
        return "<p class=\"again base box\">What these stand on is not known</p>\n";
    }
    if (block.base == noImage) {
        return "<p class=\"gone base box\">&#215; " + Escaped(block.missingBase) + ", which is not here</p>\n";
    }
    const KeptImage &kept = job.folder.images[block.base];
    const StateLook look = LookOf(kept);
    const std::string link = "<a class=\"base box" + std::string(look.style) + (block.standsOnNothing ? "" : " again") +
                             (kept.name == job.status.lastGood ? " last" : "") + "\" href=\"#" +
                             RowId(number, block.base) + "\">" + look.mark + (IsWrong(kept) ? look.word : "");
    const std::string space = IsWrong(kept) ? ": " : "";
    const std::string size = FileBytes(kept) == 0 ? std::string() : ", " + SizeText(FileBytes(kept));
    return block.standsOnNothing ? link + space + "full image " + DayText(kept.time) + size + "</a>\n"
                                 : link + space + "also on " + DayText(kept.time) + "</a>\n";
}

static std::string Block(const PageJob &job, size_t number, const ChainBlock &block)
{
    std::string alone;
    std::string rows;
    for (const std::vector<size_t> &branch : block.branches) {
        std::string items;
        for (const size_t image : branch) {
            items += "<li>" + Box(job, number, image) + "</li>\n";
        }
        if (branch.size() == 1) {
            alone += items;
        } else {
            rows += "<ol class=\"row\">\n" + items + "</ol>\n";
        }
    }
    return "<div class=\"chain\">" + BaseBox(job, number, block) +
           (alone.empty() ? "" : "<ul class=\"on\">\n" + alone + "</ul>\n") + rows + "</div>\n";
}

static const char chainLegend[] =
    "<p class=\"quiet\">Each box is an image, by month and day. A filled one is full and stands on nothing; what hangs "
    "from "
    "its line stands on it, and one behind an arrow stands on the one before. To get an image back takes it and all "
    "that "
    "it stands on.</p>\n<ul class=\"legend\"><li><span class=\"last box\">11-22</span> the last good one</li>"
    "<li><span class=\"bad box\">&#215; 11-22</span> damaged; with ? it is in doubt</li>"
    "<li><span class=\"gone box\">&#215; 11-22</span> gone</li></ul>\n";

static std::string Chain(const PageJob &job, size_t number)
{
    std::string text = "<h3>What stands on what</h3>\n" + std::string(chainLegend);
    for (const ChainBlock &block : BlocksOf(job.folder)) {
        text += Block(job, number, block);
    }
    return text;
}

// ---- Over time ----

// Bars from the base line, which is at 1000, upwards. Columns are 10 wide.
static std::string Bar(size_t column, uint64_t from, uint64_t width, double share)
{
    if (share <= 0) {
        return {};
    }
    const long height = std::max(8L, std::lround(share * 1000)); // so that little is not nothing
    return "M" + std::to_string(10 * column + from) + " 1000v-" + std::to_string(height) + "h" + std::to_string(width) +
           "v" + std::to_string(height) + "z";
}

struct Plot {
    std::string title;
    std::string top;  // what the upper end of the scale stands for
    std::string bars; // markup
};

// Columns that the plot has room for: few ones are not drawn as wide as the page.
static size_t ColumnsOf(const PageJob &job)
{
    return std::max<size_t>(job.folder.images.size(), 24);
}

static std::string Marks(const PageJob &job)
{
    std::string path;
    for (size_t i = 0; i < job.folder.images.size(); ++i) {
        if (IsWrong(job.folder.images[i])) {
            path += "M" + std::to_string(10 * i + 1) + " 1040h8v60h-8z";
        }
    }
    return path.empty() ? path : "<path class=\"mark\" d=\"" + path + "\"/>";
}

static std::string Days(const PageJob &job)
{
    const std::vector<KeptImage> &images = job.folder.images;
    const size_t share = images.size() * 100 / ColumnsOf(job);
    std::string text = "<span>" + DayText(images.front().time) + "</span>";
    if (images.size() > 1) {
        text += "<span>" + DayText(images.back().time) + "</span>";
    }
    return "<div class=\"ends\" style=\"width:" + std::to_string(share) + "%;min-width:11rem\">" + text + "</div>";
}

static std::string PlotText(const PageJob &job, const Plot &plot)
{
    const std::string width = std::to_string(10 * ColumnsOf(job));
    return "<div class=\"plot\"><div class=\"scale\"><span>" + plot.top + "</span><span>0</span></div>\n" +
           "<svg viewBox=\"0 0 " + width + " 1100\" preserveAspectRatio=\"none\" role=\"img\"><title>" + plot.title +
           "</title><desc>One column for each image, the oldest on the left. The table below has the figures.</desc>" +
           "<path class=\"grid\" d=\"M0 1H" + width + "M0 500H" + width + "M0 1000H" + width + "\"/>" + plot.bars +
           Marks(job) + "</svg>\n" + Days(job) + "</div>\n";
}

// The length of the largest file of a thin image; of a full one, where there is none.
static uint64_t LargestFile(const PageJob &job)
{
    uint64_t full = 0;
    uint64_t thin = 0;
    for (const KeptImage &image : job.folder.images) {
        uint64_t &largest = IsFull(image) ? full : thin;
        largest = std::max(largest, FileBytes(image));
    }
    return thin == 0 ? full : thin;
}

static std::string FullColumn(size_t column)
{
    return "M" + std::to_string(10 * column + 1) + " 1000V1h8V1000z";
}

static Plot SizePlot(const PageJob &job)
{
    const uint64_t largest = LargestFile(job);
    std::string full;
    std::string bars;
    for (size_t i = 0; i < job.folder.images.size(); ++i) {
        const KeptImage &image = job.folder.images[i];
        if (IsFull(image) && FileBytes(image) > largest) {
            full += FullColumn(i);
        } else {
            bars += Bar(i, 1, 8, Share(FileBytes(image), largest));
        }
    }
    return {"Size of each file", SizeText(largest),
            "<path class=\"size\" d=\"" + bars + "\"/><path class=\"full\" d=\"" + full + "\"/>"};
}

// The largest share that is drawn to scale.
static double LargestShare(const PageJob &job)
{
    double largest = 0;
    for (size_t i = 0; i < job.folder.images.size(); ++i) {
        const StoredShare stored = StoredOf(job, i);
        const ChangeStrip &strip = job.strips[i];
        largest = std::max(largest, IsFull(job.folder.images[i]) ? 0 : Share(stored.stored, stored.chunks));
        largest = std::max(largest, Share(strip.changedChunks.value_or(0), strip.chunks));
    }
    return largest == 0 ? 1 : largest;
}

static Plot SharePlot(const PageJob &job)
{
    const double largest = LargestShare(job);
    std::string full;
    std::string stored;
    std::string changed;
    for (size_t i = 0; i < job.folder.images.size(); ++i) {
        const StoredShare share = StoredOf(job, i);
        const ChangeStrip &strip = job.strips[i];
        if (IsFull(job.folder.images[i])) {
            full += FullColumn(i);
        } else {
            stored += Bar(i, 1, 8, Share(share.stored, share.chunks) / largest);
        }
        changed += Bar(i, 3, 4, Share(strip.changedChunks.value_or(0), strip.chunks) / largest);
    }
    return {"Share of stored and of changed chunks", PercentText(largest),
            "<path class=\"store\" d=\"" + stored + "\"/><path class=\"full\" d=\"" + full +
                "\"/><path class=\"change\" d=\"" + changed + "\"/>"};
}

// An item of a legend: a drawing in a field of 32 by 10, and its meaning.
static std::string LegendItem(const std::string &drawing, const std::string &meaning)
{
    return "<li><svg viewBox=\"0 0 32 10\" preserveAspectRatio=\"none\" aria-hidden=\"true\">" + drawing + "</svg> " +
           meaning + "</li>";
}

static std::string OverTime(const PageJob &job)
{
    const std::string block = "d=\"M2 0h28v10h-28z\"/>";
    return "<h3>Size of each file</h3>\n" + PlotText(job, SizePlot(job)) + "<h3>Share of the disk's chunks</h3>\n" +
           PlotText(job, SharePlot(job)) + "<ul class=\"legend one\">" +
           LegendItem("<path class=\"store\" " + block, "stored in the image") +
           LegendItem("<path class=\"change\" " + block, "changed since the image before") +
           LegendItem("<path class=\"full\" d=\"M2 1h28v8h-28z\"/>", "a full image, not to scale") +
           LegendItem("<path class=\"mark\" d=\"M2 6h28v4h-28z\"/>", "below the line: damaged, gone or in doubt") +
           "</ul>\n";
}

// ---- Where on the disk ----

// Lines for the cells of each of the four levels, neighbours as one, at that height of the strip.
static std::string Lane(const std::vector<uint8_t> &cells, const char *style, const char *height)
{
    std::string paths[5];
    for (size_t begin = 0, end = 0; begin < cells.size(); begin = end) {
        while (end < cells.size() && cells[end] == cells[begin]) {
            ++end;
        }
        paths[std::min<size_t>(cells[begin], 4)] +=
            "M" + std::to_string(begin) + " " + height + "h" + std::to_string(end - begin);
    }
    std::string text;
    for (size_t level = 1; level <= 4; ++level) {
        if (!paths[level].empty()) {
            text += "<path class=\"" + std::string(style) + std::to_string(level) + "\" d=\"" + paths[level] + "\"/>";
        }
    }
    return text;
}

static std::string StripDrawing(const ChangeStrip &strip, const std::string &day, uint64_t longestDisk)
{
    const double disks = static_cast<double>(longestDisk) / static_cast<double>(std::max<uint64_t>(strip.diskBytes, 1));
    const std::string changed =
        strip.changedChunks ? ", " + std::to_string(*strip.changedChunks) + " changed" : std::string();
    return "<svg viewBox=\"0 0 " + NumberText(static_cast<double>(strip.stored.size()) * disks) +
           " 10\" preserveAspectRatio=\"none\" role=\"img\"><title>" + day + ": of " + Counted(strip.chunks, "chunk") +
           " " + std::to_string(strip.storedChunks) + " stored" + changed + "</title>" + Lane(strip.stored, "s", "3") +
           Lane(strip.changed, "c", "8.5") + "</svg>";
}

// What is wrong with an image and with its strip.
static std::string StripSays(const KeptImage &image, const ChangeStrip &strip)
{
    std::string says = IsWrong(image) ? std::string(LookOf(image).word) + ": " + image.doubt : std::string();
    if (image.isThere && !strip.fault.empty() && strip.fault != image.doubt) {
        says += (says.empty() ? "its table can't be read: " : "; its table can't be read: ") + strip.fault;
    }
    return says;
}

static std::string StripRow(const PageJob &job, size_t image, uint64_t longestDisk)
{
    const KeptImage &kept = job.folder.images[image];
    const ChangeStrip &strip = job.strips[image];
    const std::string says = StripSays(kept, strip);
    return std::string(IsFull(kept) ? "<li class=\"first\">" : "<li>") + "<span class=\"" +
           (says.empty() ? "day" : "bad day") + "\">" + LookOf(kept).mark +
           (IsFull(kept) ? DayText(kept.time) : ShortDayText(kept.time)) + "</span>" +
           (strip.fault.empty() ? StripDrawing(strip, DayText(kept.time), longestDisk) : "") +
           (says.empty() ? "" : "<span class=\"says\">" + Escaped(says) + "</span>") + "</li>\n";
}

static std::string StripLegend()
{
    std::string stored;
    std::string changed;
    for (int level = 1; level <= 4; ++level) {
        const std::string begin = std::to_string(8 * (level - 1));
        stored += "<path class=\"s" + std::to_string(level) + "\" d=\"M" + begin + " 3h8\"/>";
        changed += "<path class=\"c" + std::to_string(level) + "\" d=\"M" + begin + " 8h8\"/>";
    }
    const std::string levels = ": up to a quarter, a half, three quarters, or all of the place's chunks";
    return "<ul class=\"legend\">" + LegendItem(stored, "upper band: stored in the image" + levels) +
           LegendItem(changed, "lower band: changed since the image before, likewise") + "</ul>\n";
}

static std::string Positions(uint64_t longestDisk)
{
    std::string text;
    for (uint64_t quarter = 0; quarter <= 4; quarter += 2) {
        const uint64_t position = longestDisk / 4 * quarter + longestDisk % 4 * quarter / 4;
        text += "<span>" + (quarter == 0 ? std::string("0") : SizeText(position)) + "</span>";
    }
    return "<div class=\"ends scaleline\" aria-hidden=\"true\">" + text + "</div>\n";
}

static std::string Strips(const PageJob &job)
{
    constexpr size_t fewImages = 62;
    uint64_t longestDisk = 0;
    uint32_t chunkBytes = 0;
    for (const ChangeStrip &strip : job.strips) {
        longestDisk = std::max(longestDisk, strip.diskBytes);
        chunkBytes = std::max(chunkBytes, strip.chunkBytes);
    }
    std::string text =
        "<h3>Where on the disk it changes</h3>\n<p class=\"quiet\">A strip for each image, the disk's start "
        "on the left and its end, at " +
        SizeText(longestDisk) + ", on the right. What is compared are chunks of " + SizeText(chunkBytes) + ".</p>\n" +
        StripLegend() + Positions(longestDisk) + "<ul class=\"strips" +
        (job.strips.size() > fewImages ? " dense" : "") + "\">\n";
    for (size_t i = 0; i < job.strips.size(); ++i) {
        text += StripRow(job, i, longestDisk);
    }
    return text + "</ul>\n" + Positions(longestDisk);
}

// ---- All figures ----

static std::string KindText(const KeptImage &image)
{
    if (!image.sidecar) {
        return "not known";
    }
    return (IsFull(image) ? "full" : "thin, on " + image.sidecar->base) + (image.sidecar->isSealed ? ", sealed" : "");
}

static std::string ChunksText(uint64_t part, uint64_t all, const char *what)
{
    return std::to_string(part) + " of " + Counted(all, "chunk") + " " + what + " (" + PercentText(Share(part, all)) +
           ")";
}

static std::string Cell(const char *style, const std::string &text)
{
    return "<td" + (*style == '\0' ? std::string() : " class=\"" + std::string(style) + "\"") + ">" + Escaped(text) +
           "</td>";
}

static std::string TableRow(const PageJob &job, size_t number, size_t image)
{
    const KeptImage &kept = job.folder.images[image];
    const ChangeStrip &strip = job.strips[image];
    const StoredShare stored = StoredOf(job, image);
    return "<tr id=\"" + RowId(number, image) + "\"><th scope=\"row\">" + Escaped(kept.name) + "</th>" +
           Cell("", TimeText(kept.time)) + Cell("", KindText(kept)) +
           Cell("number", kept.isThere && kept.sidecar ? SizeText(FileBytes(kept)) : "no file size") +
           Cell("", stored.chunks == 0 ? "not known" : ChunksText(stored.stored, stored.chunks, "stored")) +
           Cell("", strip.changedChunks ? ChunksText(*strip.changedChunks, strip.chunks, "changed") : "not compared") +
           Cell(IsWrong(kept) ? "bad" : "", LookOf(kept).word + (IsWrong(kept) ? ": " + kept.doubt : "")) + "</tr>\n";
}

static std::string Table(const PageJob &job, size_t number)
{
    constexpr size_t fewImages = 40;
    std::string text = std::string("<details") + (job.folder.images.size() <= fewImages ? " open=\"open\"" : "") +
                       "><summary>The figures of " + Counted(job.folder.images.size(), "image") +
                       "</summary>\n<table><thead><tr><th scope=\"col\">Image</th><th scope=\"col\">Made</th>"
                       "<th scope=\"col\">Kind</th><th scope=\"col\" class=\"number\">File</th>"
                       "<th scope=\"col\">Stored in it</th><th scope=\"col\">Since the image before</th>"
                       "<th scope=\"col\">State</th></tr></thead>\n<tbody>\n";
    for (size_t i = 0; i < job.folder.images.size(); ++i) {
        text += TableRow(job, number, i);
    }
    return text + "</tbody></table></details>\n";
}

// ---- The page ----

static std::string JobSection(const PageJob &job, size_t number, int64_t now)
{
    const JobStatus &status = job.status;
    const bool isWell = status.problems.empty();
    std::string text = "<section class=\"job\" id=\"job-" + std::to_string(number + 1) + "\">\n<header><h2>" +
                       Escaped(status.job) + "</h2><span class=\"" +
                       (isWell ? "tag\">&#10003; well" : "bad tag\">&#215; not well") + "</span><p class=\"folder\">" +
                       Escaped(status.folder) + "</p></header>\n";
    if (status.problems.size() > mostAtTop) {
        text += "<details class=\"wrong\"><summary>All of what is wrong (" + std::to_string(status.problems.size()) +
                ")</summary>\n<ul>\n" + ListItems(status.problems, status.problems.size()) + "</ul></details>\n";
    }
    text += JobFacts(status, now);
    if (!job.folder.images.empty()) {
        text += Chain(job, number) + OverTime(job) + Strips(job) + Table(job, number);
    }
    return text + "</section>\n";
}

std::string StatusPage(const PageFacts &facts)
{
    std::string text =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
        // Whatever came past the escapes would still not be loaded or run.
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\"/>\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
        "<meta name=\"color-scheme\" content=\"light dark\"/>\n<title>Images of disks on " +
        Escaped(facts.machine) + "</title>\n<style>" + statusPageStyle +
        "</style>\n</head>\n<body>\n<main>\n<h1>Images of disks on " + Escaped(facts.machine) +
        "</h1>\n<p class=\"made\">As it was at " + Escaped(TimeText(facts.madeAt)) + "</p>\n" + Verdict(facts);
    for (size_t i = 0; i < facts.jobs.size(); ++i) {
        text += JobSection(facts.jobs[i], i, facts.madeAt);
    }
    return text + "</main>\n<footer>Made by kestrix-keep " KESTRIX_VERSION
                  ", from what lies in the jobs' folders.</footer>\n"
                  "</body>\n</html>\n";
}
