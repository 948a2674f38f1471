// The steps: the newest sound image is kept; then the newest image of each of the last days, weeks and months that have
// one; then what these stand on. What is left goes, unless something forbids that anything does.
#include "kestrix-keep/retention.h"

#include "kestrix-keep/clock.h"
#include "report/report.h"

#include <algorithm>

struct Retention {
    const std::vector<RetainedImage> &images;
    const RetentionState &state;
    std::vector<size_t> newestFirst; // those that count
    std::vector<Decision> decisions;
};

// A clock may be a little wrong, and be set right between two runs.
static bool IsFromTheFuture(const Retention &run, const RetainedImage &image)
{
    constexpr int64_t slack = int64_t{2} * 3600;
    return image.time > run.state.now + slack;
}

static void Keep(Retention &run, size_t image, const std::string &reason)
{
    run.decisions[image].isLetGo = false;
    run.decisions[image].reasons.push_back(reason);
}

static void FindThoseThatCount(Retention &run)
{
    for (size_t i = 0; i < run.images.size(); ++i) {
        const RetainedImage &image = run.images[i];
        if (image.isOurs && image.isSound && !IsFromTheFuture(run, image)) {
            run.newestFirst.push_back(i);
        }
    }
    std::sort(run.newestFirst.begin(), run.newestFirst.end(),
              [&run](size_t left, size_t right) { return run.images[left].number > run.images[right].number; });
}

static void KeepWhatDoesNotCount(Retention &run)
{
    for (size_t i = 0; i < run.images.size(); ++i) {
        const RetainedImage &image = run.images[i];
        if (!image.isOurs) {
            Keep(run, i, "this job of this machine did not make it");
        } else if (IsFromTheFuture(run, image)) {
            Keep(run, i, "its time lies in the future: " + LocalTimeText(image.time));
        } else if (!image.isSound) {
            Keep(run, i, "it is not known to be sound");
        }
    }
}

static void KeepLast(Retention &run, size_t wanted)
{
    for (size_t k = 0; k < run.newestFirst.size() && k < wanted; ++k) {
        Keep(run, run.newestFirst[k], "number " + std::to_string(k + 1) + " of the last " + std::to_string(wanted));
    }
}

// The newest image of each period. While there are fewer periods than wanted, the oldest image stands for those that
// lie before it.
static void KeepPeriods(Retention &run, size_t wanted, const char *name, std::string LocalPeriods::*period)
{
    std::vector<std::string> known;
    for (const size_t i : run.newestFirst) {
        const std::string own = PeriodsOf(run.images[i].time).*period;
        if (known.size() < wanted && std::find(known.begin(), known.end(), own) == known.end()) {
            known.push_back(own);
            Keep(run, i, std::string("the newest of the ") + name + " " + own);
        }
    }
    if (!run.newestFirst.empty() && !known.empty() && known.size() < wanted) {
        Keep(run, run.newestFirst.back(),
             std::string("the oldest, as long as there are fewer than ") + Counted(wanted, name));
    }
}

static void KeepWhatTheyStandOn(Retention &run)
{
    for (size_t i = 0; i < run.images.size(); ++i) {
        if (!run.decisions[i].isLetGo) {
            size_t level = 0;
            for (size_t base = run.images[i].base; base != noImage && level < run.images.size(); ++level) {
                if (run.decisions[base].isLetGo) {
                    Keep(run, base, "a kept image stands on it");
                }
                base = run.images[base].base;
            }
        }
    }
}

static void KeepAll(Retention &run, const std::string &reason)
{
    for (size_t i = 0; i < run.images.size(); ++i) {
        if (run.decisions[i].isLetGo) {
            Keep(run, i, reason);
        }
    }
}

// What forbids that anything goes.
static void KeepAllIfForbidden(Retention &run)
{
    const auto any = [&run](bool RetainedImage::*mark) {
        return std::any_of(run.images.begin(), run.images.end(),
                           [mark](const RetainedImage &image) { return image.*mark; });
    };
    if (!run.state.forbids.empty()) {
        KeepAll(run, run.state.forbids);
    } else if (any(&RetainedImage::isDamaged)) {
        KeepAll(run, "nothing goes while an image is damaged");
    } else if (any(&RetainedImage::isOpaque)) {
        KeepAll(run, "nothing goes while there is an image without a sidecar of which it can't be told what it stands "
                     "on: remove that image, or bring its sidecar back");
    } else if (!run.state.chainIsProved) {
        KeepAll(run, "nothing goes before the newest image's chain has passed an audit: " + run.state.chainSays);
    }
}

std::string ReasonsText(const Decision &decision)
{
    std::string text;
    for (const std::string &reason : decision.reasons) {
        text += (text.empty() ? "" : "; ") + reason;
    }
    return text;
}

std::vector<Decision> DecideRetention(const std::vector<RetainedImage> &images, const std::optional<KeepRules> &rules,
                                      const RetentionState &state)
{
    Retention run = {images, state, {}, std::vector<Decision>(images.size(), Decision{true, {}})};
    FindThoseThatCount(run);
    KeepWhatDoesNotCount(run);
    if (!run.newestFirst.empty()) {
        Keep(run, run.newestFirst[0], "the newest sound image");
    }
    const KeepRules wanted = rules.value_or(KeepRules());
    KeepLast(run, static_cast<size_t>(wanted.last));
    KeepPeriods(run, static_cast<size_t>(wanted.daily), "day", &LocalPeriods::day);
    KeepPeriods(run, static_cast<size_t>(wanted.weekly), "week", &LocalPeriods::week);
    KeepPeriods(run, static_cast<size_t>(wanted.monthly), "month", &LocalPeriods::month);
    KeepWhatTheyStandOn(run);
    if (!rules) {
        KeepAll(run, "the job has no rule to let go of any");
    }
    KeepAllIfForbidden(run);
    for (Decision &decision : run.decisions) {
        if (decision.isLetGo) {
            decision.reasons.push_back("no rule keeps it");
        }
    }
    return run.decisions;
}
