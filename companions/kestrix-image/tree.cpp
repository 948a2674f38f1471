// tree: the images of a folder, each on the one that it stands on.
//
// Headers, tables and trailers are read, on all cores, and nothing else; no table is kept. What is broken comes first
// in the verdict, and what can be done about it stands with the image.
#include "kestrix-image/commands.h"
#include "kestrix-image/forest.h"
#include "kestrix-image/status.h"
#include "report/report.h"

#include <algorithm>
#include <atomic>
#include <cstring>

using reader::FileKind;
using reader::ImageFacts;

static std::vector<ImageFacts> ReadFolder(const CommonOptions &common, const std::string &folder,
                                          const std::vector<std::string> &names, std::optional<reader::Fault> *fault)
{
    std::vector<ImageFacts> facts(names.size());
    std::atomic<size_t> next = 0;
    Progress progress(!common.quiet, folder, names.size(), Unit::Files);
    *fault = reader::OnThreads(common.threads, [&] {
        for (size_t i = next++; i < names.size(); i = next++) {
            facts[i] = reader::ReadImageFacts(folder + names[i], false);
            progress.Add(1);
        }
    });
    return facts;
}

static std::optional<host::FileIdentity> IdentityOfBase(const ImageFacts &facts)
{
    const host::BasePlace place = host::FindBase(facts.path, facts.trailer->baseName);
    host::FileIdentity identity;
    if (!place.exists) {
        return {};
    }
    // What lies there and can't be looked at is none of the images that can.
    return host::IdentityOf(place.path, &identity) ? host::FileIdentity() : identity;
}

static const char *StateName(BaseState state)
{
    switch (state) {
    case BaseState::None:
        return "none";
    case BaseState::Present:
        return "present";
    case BaseState::Missing:
        return "missing";
    case BaseState::Replaced:
        return "replaced";
    case BaseState::Damaged:
        return "damaged";
    case BaseState::Unreadable:
        return "unreadable";
    case BaseState::OtherGeometry:
        return "otherGeometry";
    }
    return "";
}

// Bytes missing, or too many: what check and info call damage as well.
static bool HasOtherSize(const Node &node)
{
    return node.facts.bytesMissing != 0 || node.facts.bytesTooMany != 0;
}

static bool IsTooLong(const Node &node)
{
    return node.length && *node.length > reader::mostImages;
}

static bool IsBroken(const Node &node)
{
    return !node.length || IsTooLong(node);
}

// What consolidate would take as it is, and nobody would miss.
static bool IsEndToConsolidate(const Node &node)
{
    return node.facts.trailer && !IsBroken(node) && node.neededBy.empty();
}

// A file that another program of ours or of kestrix has begun and not ended.
static bool IsUnfinished(const ImageFacts &facts)
{
    const size_t length = strlen(host::unfinishedEnding);
    return facts.kind == FileKind::Unfinished ||
           (facts.path.size() > length &&
            facts.path.compare(facts.path.size() - length, length, host::unfinishedEnding) == 0);
}

// ---- As JSON ----

static Json NameOrNull(const std::vector<Node> &nodes, size_t index)
{
    return index == noNode ? Json(nullptr) : Json(host::NameOf(nodes[index].facts.path));
}

static Json NodeJson(const std::vector<Node> &nodes, const Node &node)
{
    const ImageHeader &header = node.facts.header;
    Json needs = Json::array();
    for (const size_t other : node.neededBy) {
        needs.push_back(host::NameOf(nodes[other].facts.path));
    }
    Json base = nullptr;
    if (node.facts.trailer) {
        base = {{"name", node.facts.trailer->baseName},
                {"pin", IdText(node.facts.trailer->basePin)},
                {"state", StateName(node.base)},
                {"sameUnderAnotherName", NameOrNull(nodes, node.sameAsBase)}};
    }
    return {{"file", host::NameOf(node.facts.path)},
            {"identity", IdText(node.facts.id)},
            {"kind", reader::IsThin(header) ? "thin" : "full"},
            {"sealed", reader::IsSealed(header)},
            {"diskBytes", uint64_t{header.diskSize}},
            {"fileBytes", node.facts.fileBytes},
            {"chunks", uint64_t{header.chunkCount}},
            {"storedChunks", node.facts.storedChunks},
            {"bytesTooMany", node.facts.bytesTooMany},
            {"bytesMissing", node.facts.bytesMissing},
            {"base", base},
            {"standsOn", NameOrNull(nodes, node.standsOn)},
            {"sameFileAs", NameOrNull(nodes, node.sameFileAs)},
            {"stoodOnBy", needs},
            {"chainLength", node.length ? Json(*node.length) : Json(nullptr)},
            {"takesMore", node.length ? Json(RoomLeft(node)) : Json(nullptr)},
            {"consolidatedBytes", IsEndToConsolidate(node) ? Json(ConsolidatedBytes(node)) : Json(nullptr)}};
}

// ---- As lines ----

static std::string BaseText(const std::vector<Node> &nodes, const Node &node)
{
    std::string text;
    if (node.base == BaseState::Missing) {
        text = "; its base " + node.facts.trailer->baseName + " is MISSING";
    } else if (node.base == BaseState::Replaced) {
        text = "; its base " + node.facts.trailer->baseName + " was REPLACED by another file";
    } else if (node.base == BaseState::Damaged) {
        text = "; its base " + node.facts.trailer->baseName + " is DAMAGED";
    } else if (node.base == BaseState::Unreadable) {
        text = "; its base " + node.facts.trailer->baseName + " can't be looked at";
    } else if (node.base == BaseState::OtherGeometry) {
        text = "; its base " + node.facts.trailer->baseName + " is of ANOTHER DISK";
    }
    if (node.sameAsBase != noNode) {
        text += ", but lies here as " + host::NameOf(nodes[node.sameAsBase].facts.path);
    }
    return text;
}

// isAllKnown: no file is there of which nobody can tell what it stands on.
static std::string NeedText(const std::vector<Node> &nodes, const Node &node, bool isAllKnown)
{
    std::string text;
    if (node.sameFileAs != noNode) {
        text = "; the same file as " + host::NameOf(nodes[node.sameFileAs].facts.path);
    }
    for (const size_t other : node.neededBy) {
        if (nodes[other].standsOn == noNode) {
            text += "; " + host::NameOf(nodes[other].facts.path) + " stands on it, but looks for it as " +
                    nodes[other].facts.trailer->baseName.c_str();
        }
    }
    if (node.neededBy.empty()) {
        text += isAllKnown ? "; nothing stands on it" : "; nothing that can be read stands on it";
    }
    return text;
}

static std::string NodeText(const std::vector<Node> &nodes, const Node &node, bool isAllKnown)
{
    const ImageHeader &header = node.facts.header;
    std::string text = host::NameOf(node.facts.path) + ": " + (reader::IsThin(header) ? "thin" : "full") +
                       (reader::IsSealed(header) ? ", sealed" : "") + ", disk of " + SizeText(header.diskSize) +
                       ", stores " + Counted(node.facts.storedChunks, "chunk") + ", file of " +
                       SizeText(node.facts.fileBytes);
    if (node.facts.bytesMissing != 0) {
        text += ", " + Counted(node.facts.bytesMissing, "byte") + " MISSING";
    } else if (node.facts.bytesTooMany != 0) {
        text += ", " + Counted(node.facts.bytesTooMany, "byte") + " TOO MANY";
    }
    if (IsTooLong(node)) {
        text += "; its chain is TOO LONG: " + Counted(*node.length, "image");
    } else if (node.length) {
        text += "; chain of " + std::to_string(*node.length) + ", takes " + std::to_string(RoomLeft(node)) + " more";
    }
    text += BaseText(nodes, node) + NeedText(nodes, node, isAllKnown);
    return text + (IsEndToConsolidate(node) ? "; consolidated: " + SizeText(ConsolidatedBytes(node)) : "");
}

static void PrintForest(const std::vector<Node> &nodes, bool isAllKnown)
{
    std::vector<std::pair<size_t, size_t>> toDo; // index and depth, the next one last
    for (size_t i = nodes.size(); i > 0; --i) {
        if (nodes[i - 1].standsOn == noNode) {
            toDo.emplace_back(i - 1, 1);
        }
    }
    while (!toDo.empty()) {
        const auto [index, depth] = toDo.back();
        toDo.pop_back();
        PrintLine(std::string(2 * depth, ' ') + NodeText(nodes, nodes[index], isAllKnown));
        const std::vector<size_t> &children = nodes[index].children;
        for (auto child = children.rbegin(); child != children.rend(); ++child) {
            toDo.emplace_back(*child, depth + 1);
        }
    }
}

// ---- The report ----

struct FolderContent {
    std::vector<Node> nodes;
    std::vector<ImageFacts> unfinished;
    std::vector<ImageFacts> damaged;
    std::vector<ImageFacts> unreadable;
    std::vector<ImageFacts> others;
};

static FolderContent SortFiles(std::vector<ImageFacts> files)
{
    FolderContent content;
    std::vector<ImageFacts> images;
    for (ImageFacts &facts : files) {
        std::vector<ImageFacts> *place = &content.others;
        if (IsUnfinished(facts)) {
            place = &content.unfinished;
        } else if (facts.kind == FileKind::Image) {
            place = &images;
        } else if (facts.kind == FileKind::Damaged) {
            place = &content.damaged;
        } else if (facts.kind == FileKind::Unreadable) {
            place = &content.unreadable;
        }
        place->push_back(std::move(facts));
    }
    std::vector<ImageFacts> none;
    for (const auto *place : {&content.unfinished, &content.damaged, &content.unreadable, &content.others}) {
        none.insert(none.end(), place->begin(), place->end());
    }
    content.nodes = MakeForest(std::move(images), none, IdentityOfBase);
    return content;
}

static void ReportFiles(JsonOutput &output, const char *name, const std::vector<ImageFacts> &files)
{
    output.BeginList(name);
    for (const ImageFacts &facts : files) {
        const std::string file = host::NameOf(facts.path);
        output.Item({{"file", file}, {"says", facts.fault ? Json(facts.fault->text) : Json(nullptr)}});
        if (!output.wanted) {
            PrintLine(std::string(name) + ": " +
                      (facts.fault && facts.kind != FileKind::Other ? facts.fault->text : file));
        }
    }
    output.End();
}

// Whether of each file it is known on which image it stands.
static bool IsAllKnown(const FolderContent &content)
{
    const auto isUnknown = [](const ImageFacts &facts) { return facts.hasStrayTrailer; };
    return content.damaged.empty() && content.unreadable.empty() &&
           std::none_of(content.unfinished.begin(), content.unfinished.end(), isUnknown) &&
           std::none_of(content.nodes.begin(), content.nodes.end(),
                        [&isUnknown](const Node &node) { return isUnknown(node.facts); });
}

static int ReportFolder(JsonOutput &output, const std::string &folder, const FolderContent &content)
{
    const auto broken = static_cast<uint64_t>(std::count_if(content.nodes.begin(), content.nodes.end(), IsBroken));
    const auto misfit = static_cast<uint64_t>(std::count_if(content.nodes.begin(), content.nodes.end(), HasOtherSize));
    const bool isGood = broken == 0 && misfit == 0 && content.damaged.empty();
    output.Member("result", !isGood ? "broken" : content.unreadable.empty() ? "whole" : "unreadable");
    output.BeginList("images");
    for (const Node &node : content.nodes) {
        output.Item(output.wanted ? NodeJson(content.nodes, node) : Json());
    }
    output.End();
    if (!output.wanted) {
        PrintLine(folder + ": " + Counted(content.nodes.size(), "image") + ", " +
                  (isGood ? content.unreadable.empty() ? "every chain is there"
                                                       : Counted(content.unreadable.size(), "file") + " UNREADABLE"
                          : std::to_string(broken) + " with a BROKEN chain, " +
                                std::to_string(misfit + content.damaged.size()) + " DAMAGED"));
        PrintForest(content.nodes, IsAllKnown(content));
    }
    ReportFiles(output, "damaged", content.damaged);
    ReportFiles(output, "unreadable", content.unreadable);
    ReportFiles(output, "unfinished", content.unfinished);
    ReportFiles(output, "other", content.others);
    return !content.unreadable.empty() ? exitImpossible : isGood ? exitGood : exitFound;
}

// Whatever the kind of fault, it is the folder that could not be told of.
static int ReportImpossible(JsonOutput &output, const std::string &text)
{
    return ReportFault(output, "impossible", {reader::FaultKind::Unavailable, text});
}

int Tree(const CommonOptions &common, const std::string &folder)
{
    JsonOutput output(common.json);
    output.Member("folder", folder);
    std::vector<std::string> names;
    if (const host::Trouble trouble = host::ListFiles(folder, &names)) {
        return ReportImpossible(output, folder + ": the folder can't be read: " + *trouble);
    }
    std::optional<reader::Fault> fault;
    std::vector<ImageFacts> files = ReadFolder(common, folder + "/", names, &fault);
    return fault ? ReportImpossible(output, fault->text) : ReportFolder(output, folder, SortFiles(std::move(files)));
}
