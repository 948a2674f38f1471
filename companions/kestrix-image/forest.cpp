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
    const bool mayBeIt = !named->hasTable || named->id == facts.trailer->basePin;
    return named->kind == reader::FileKind::Damaged && mayBeIt ? BaseState::Damaged : BaseState::Replaced;
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

std::vector<Node> MakeForest(std::vector<ImageFacts> images, const std::vector<ImageFacts> &others,
                             FindIdentity identityOfBase)
{
    std::vector<Node> nodes;
    std::map<host::FileIdentity, size_t> byIdentity;
    std::map<ImageId, size_t> byId;
    for (ImageFacts &facts : images) {
        byIdentity.emplace(facts.identity, nodes.size());
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
        const auto named = identity ? byIdentity.find(*identity) : byIdentity.end();
        const size_t below = named == byIdentity.end() ? noNode : named->second;
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
