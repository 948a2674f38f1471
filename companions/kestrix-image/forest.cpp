// Links by name and by pin. A name is where kestrix looks, a pin is what must lie there.
#include "kestrix-image/forest.h"

#include <algorithm>
#include <map>

using reader::ImageFacts;

static bool IsSameGeometry(const ImageHeader &left, const ImageHeader &right)
{
    return left.diskSize == right.diskSize && left.chunkSize == right.chunkSize && left.chunkCount == right.chunkCount;
}

static BaseState JudgeBase(const std::vector<Node> &nodes, const ImageFacts &facts, size_t named)
{
    if (nodes[named].facts.id != facts.trailer->basePin) {
        return BaseState::Replaced;
    }
    return IsSameGeometry(nodes[named].facts.header, facts.header) ? BaseState::Present : BaseState::OtherGeometry;
}

// Of a base that is none of the images: it is one of the others, unless nobody could look at it.
static BaseState JudgeOther(const std::vector<ImageFacts> &others, const ImageFacts &facts,
                            const host::FileIdentity &identity)
{
    const auto named = std::find_if(others.begin(), others.end(), [&identity](const ImageFacts &other) {
        return other.kind != reader::FileKind::Unreadable && other.identity == identity;
    });
    if (named == others.end()) {
        return BaseState::Unreadable;
    }
    const bool isDamaged =
        named->kind == reader::FileKind::Damaged && (!named->hasTable || named->id == facts.trailer->basePin);
    const bool hasLostItsHead = named->kind == reader::FileKind::Unfinished; // nothing stands on what never had one
    return isDamaged || hasLostItsHead ? BaseState::Damaged : BaseState::Replaced;
}

// From each image that stands on nothing of the folder up to the ends. Pins make a loop impossible.
static void MeasureChains(std::vector<Node> &nodes)
{
    std::vector<size_t> toDo;
    for (size_t i = 0; i < nodes.size(); ++i) {
        if (nodes[i].base == BaseState::None) {
            nodes[i].length = 1;
            toDo.push_back(i);
        }
    }
    while (!toDo.empty()) {
        const size_t below = toDo.back();
        toDo.pop_back();
        for (const size_t child : nodes[below].children) {
            nodes[child].length = *nodes[below].length + 1;
            toDo.push_back(child);
        }
    }
}

using FileNames = std::multimap<host::FileIdentity, size_t>;

// Of the names of one file the one that the image names, or else the first.
static size_t NamedNode(const std::vector<Node> &nodes, const FileNames &files, const host::FileIdentity &identity,
                        const std::string &name)
{
    const auto [begin, end] = files.equal_range(identity);
    const auto exact = std::find_if(
        begin, end, [&](const auto &entry) { return host::NameOf(nodes[entry.second].facts.path) == name; });
    return begin == end ? noNode : exact == end ? begin->second : exact->second;
}

static void NoteOtherNames(std::vector<Node> &nodes, const FileNames &files)
{
    for (const auto &[identity, index] : files) {
        const auto [begin, end] = files.equal_range(identity);
        const size_t own = index;
        const auto other = std::find_if(begin, end, [own](const auto &entry) { return entry.second != own; });
        nodes[index].sameFileAs = other == end ? noNode : other->second;
    }
}

// All names of a file share what stands on it, whichever of them an image has.
static void NoteNeeds(std::vector<Node> &nodes, const FileNames &files, const std::multimap<ImageId, size_t> &byId)
{
    for (size_t i = 0; i < nodes.size(); ++i) {
        if (nodes[i].standsOn != noNode) {
            const auto [begin, end] = files.equal_range(nodes[nodes[i].standsOn].facts.identity);
            std::for_each(begin, end, [&](const auto &entry) { nodes[entry.second].neededBy.push_back(i); });
        } else if (nodes[i].sameAsBase != noNode) {
            const auto [begin, end] = byId.equal_range(nodes[i].facts.trailer->basePin);
            std::for_each(begin, end, [&](const auto &entry) { nodes[entry.second].neededBy.push_back(i); });
        }
    }
}

std::vector<Node> MakeForest(std::vector<ImageFacts> images, const std::vector<ImageFacts> &others,
                             FindIdentity identityOfBase)
{
    std::vector<Node> nodes;
    FileNames files;
    std::multimap<ImageId, size_t> byId;
    for (ImageFacts &facts : images) {
        files.emplace(facts.identity, nodes.size());
        byId.emplace(facts.id, nodes.size());
        nodes.emplace_back();
        nodes.back().facts = std::move(facts);
    }
    for (size_t i = 0; i < nodes.size(); ++i) {
        Node &node = nodes[i];
        if (!node.facts.trailer) {
            continue;
        }
        const std::optional<host::FileIdentity> identity = identityOfBase(node.facts);
        const size_t below =
            identity ? NamedNode(nodes, files, *identity, node.facts.trailer->baseName.c_str()) : noNode;
        if (!identity) {
            node.base = BaseState::Missing;
        } else if (below == noNode) {
            node.base = JudgeOther(others, node.facts, *identity);
        } else {
            node.base = JudgeBase(nodes, node.facts, below);
        }
        if (node.base == BaseState::Present) {
            node.standsOn = below;
            nodes[below].children.push_back(i);
        } else if (const auto same = byId.find(node.facts.trailer->basePin); same != byId.end()) {
            node.sameAsBase = same->second;
        }
    }
    NoteOtherNames(nodes, files);
    NoteNeeds(nodes, files, byId);
    MeasureChains(nodes);
    return nodes;
}

uint64_t RoomLeft(const Node &node)
{
    return reader::mostImages - std::min<uint64_t>(node.length.value_or(reader::mostImages), reader::mostImages);
}

uint64_t ConsolidatedBytes(const Node &node)
{
    return reader::StartOfData(node.facts.header.chunkCount) + node.facts.header.diskSize;
}
