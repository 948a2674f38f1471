// The steps: the newest image that may be a base; then the rules that ask for a full image nevertheless.
#include "kestrix-keep/plan.h"

#include "kestrix-keep/clock.h"
#include "report/report.h"

#include <algorithm>

// Empty if an image of the disk may stand on this one, else why not.
static std::string WhyNoBase(const Job &job, const KeptImage &image, const DiskIdentity &disk)
{
    if (!image.doubt.empty()) {
        return image.doubt;
    }
    if (!image.sidecar || image.chainLength == 0) {
        return "what it stands on is not whole";
    }
    if (!image.otherMachine.empty()) {
        return "another machine made it, " + image.otherMachine;
    }
    if (!image.sidecar->mayNotBeBase.empty()) {
        return image.sidecar->mayNotBeBase;
    }
    if (image.sidecar->isSealed && job.passwordFile.empty()) {
        return "it is sealed, and the job has no password file";
    }
    if (!image.whyNoBase.empty()) {
        return image.whyNoBase;
    }
    const std::string difference = DifferenceOf(image.sidecar->disk, disk);
    return difference.empty() ? "" : "the disk is another: " + difference;
}

// The newest base by the job's scheme. Says of each newer one why it is none. Where the scheme has none, any sound
// image is better than none at all.
static size_t FindBase(const Job &job, const JobFolder &folder, const DiskIdentity &disk, CapturePlan &plan)
{
    size_t fallback = noImage;
    for (size_t i = folder.images.size(); i-- > 0;) {
        const KeptImage &image = folder.images[i];
        const bool fits = job.base == BaseScheme::Newest || IsFull(image);
        const std::string why = WhyNoBase(job, image, disk);
        if (!why.empty() && fits) {
            plan.reasons.push_back(image.name + " is no base: " + why);
        } else if (why.empty() && fits) {
            return i;
        } else if (why.empty() && fallback == noImage) {
            fallback = i;
        }
    }
    return fallback;
}

static size_t FullBelow(const JobFolder &folder, size_t image)
{
    return ChainOf(folder, image).back();
}

// The bytes of the newest thin image of the full one; 0 where there is none.
static uint64_t NewestThinBytes(const JobFolder &folder, size_t full)
{
    for (size_t i = folder.images.size(); i-- > 0;) {
        const KeptImage &image = folder.images[i];
        if (image.sidecar && !IsFull(image) && image.doubt.empty() && FullBelow(folder, i) == full) {
            return image.sidecar->fileBytes;
        }
    }
    return 0;
}

// Why a new full image is due though there is a base; empty if none is.
static std::string WhyFull(const Job &job, const JobFolder &folder, size_t base, int64_t now)
{
    const KeptImage &full = folder.images[FullBelow(folder, base)];
    const int64_t age = now - full.sidecar->startedAt;
    const uint64_t thinBytes = NewestThinBytes(folder, FullBelow(folder, base));
    // A run begins a little earlier or later each night.
    constexpr int64_t slack = 3600;
    if (age + slack >= job.newFull.everySeconds) {
        return "the last full image, " + full.name + ", is " + AgeText(age) + " old";
    }
    // In percent; a quarter of the largest count is more than any file has.
    if (age < -secondsPerDay) { // its age can't be told
        return "the time of the last full image, " + full.name + ", lies in the future";
    }
    if (thinBytes / 100 * 100 >
        full.sidecar->fileBytes / 100 * static_cast<uint64_t>(job.newFull.whenThinExceedsPercent)) {
        return "the last thin image took " + SizeText(thinBytes) + ", more than " +
               std::to_string(job.newFull.whenThinExceedsPercent) + "% of the full one";
    }
    if (folder.images[base].chainLength >= static_cast<uint32_t>(job.newFull.chain)) {
        return "the chain has " + std::to_string(folder.images[base].chainLength) + " images";
    }
    return {};
}

CapturePlan MakePlan(const Job &job, const JobFolder &folder, const DiskIdentity &disk, int64_t now)
{
    CapturePlan plan;
    const size_t base = FindBase(job, folder, disk, plan);
    if (base == noImage) {
        plan.reasons.push_back(folder.images.empty() ? "a full image, since it is the first"
                                                     : "a full image, since no image may be its base");
        return plan;
    }
    const std::string whyFull = WhyFull(job, folder, base, now);
    if (!whyFull.empty()) {
        plan.reasons.push_back("a full image, since " + whyFull);
        return plan;
    }
    plan.base = base;
    plan.reasons.push_back("a thin image on " + folder.images[base].name + ", " +
                           (job.base == BaseScheme::Newest ? "the newest image that may be a base"
                            : IsFull(folder.images[base])  ? "the newest full image"
                                                          : "the newest sound image, since no full one may be a base"));
    return plan;
}

uint64_t RoomNeeded(const JobFolder &folder, const CapturePlan &plan, const DiskIdentity &disk)
{
    constexpr uint64_t margin = uint64_t{64} << 20;
    constexpr uint64_t entryBytes = 72;                // of each chunk,
    constexpr uint64_t chunkBytes = uint64_t{4} << 20; // which is so long or longer
    const uint64_t table = (disk.sizeBytes / chunkBytes + 1) * entryBytes;
    if (plan.base == noImage) {
        return disk.sizeBytes + table + margin;
    }
    uint64_t largest = 0;
    size_t seen = 0;
    constexpr size_t lastOnes = 7;
    for (size_t i = folder.images.size(); i-- > 0 && seen < lastOnes;) {
        const KeptImage &image = folder.images[i];
        if (image.sidecar && !IsFull(image)) {
            largest = std::max(largest, image.sidecar->fileBytes);
            ++seen;
        }
    }
    return std::min(largest / 2 * 3, disk.sizeBytes) + table + margin;
}
