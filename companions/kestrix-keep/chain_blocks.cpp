// A branch follows the first image that stands on each; what else stands on it begins a block of its own.
#include "kestrix-keep/chain_blocks.h"

#include <map>

// An image stands on one that was made before it. Sidecars can claim anything, circles too.
static size_t BaseOf(const JobFolder &folder, size_t image)
{
    const size_t base = folder.images[image].base;
    return base < image ? base : noImage;
}

static std::vector<std::vector<size_t>> StandingOn(const JobFolder &folder)
{
    std::vector<std::vector<size_t>> standing(folder.images.size());
    for (size_t i = 0; i < folder.images.size(); ++i) {
        const size_t base = BaseOf(folder, i);
        if (base != noImage) {
            standing[base].push_back(i);
        }
    }
    return standing;
}

// Follows a branch from its first image on. Where more than one image stands on one, that is noted in forks.
static std::vector<size_t> Follow(const std::vector<std::vector<size_t>> &standing, size_t image,
                                  std::vector<size_t> *forks)
{
    std::vector<size_t> branch = {image};
    while (!standing[image].empty()) {
        if (standing[image].size() > 1) {
            forks->push_back(image);
        }
        image = standing[image].front();
        branch.push_back(image);
    }
    return branch;
}

// The blocks of all that stands on the base of the first one, which has no branches yet.
static void AddBlocks(const std::vector<std::vector<size_t>> &standing, ChainBlock first,
                      const std::vector<size_t> &branches, std::vector<ChainBlock> *blocks)
{
    std::vector<size_t> forks;
    for (const size_t image : branches) {
        first.branches.push_back(Follow(standing, image, &forks));
    }
    blocks->push_back(std::move(first));
    while (!forks.empty()) {
        ChainBlock block;
        block.base = forks.back();
        block.standsOnNothing = false;
        forks.pop_back();
        for (size_t i = 1; i < standing[block.base].size(); ++i) { // the first one went on in the branch
            block.branches.push_back(Follow(standing, standing[block.base][i], &forks));
        }
        blocks->push_back(std::move(block));
    }
}

static std::string BaseName(const KeptImage &image)
{
    return image.sidecar ? image.sidecar->base : std::string();
}

std::vector<ChainBlock> BlocksOf(const JobFolder &folder)
{
    const std::vector<std::vector<size_t>> standing = StandingOn(folder);
    std::map<std::string, std::vector<size_t>> orphans; // by the name of the base that is not there
    for (size_t i = 0; i < folder.images.size(); ++i) {
        if (BaseOf(folder, i) == noImage && !IsFull(folder.images[i])) {
            orphans[BaseName(folder.images[i])].push_back(i);
        }
    }
    std::vector<ChainBlock> blocks;
    for (size_t i = 0; i < folder.images.size(); ++i) {
        if (BaseOf(folder, i) != noImage) {
            continue;
        }
        ChainBlock block;
        if (IsFull(folder.images[i])) {
            block.base = i;
            AddBlocks(standing, block, standing[i], &blocks);
            continue;
        }
        block.missingBase = BaseName(folder.images[i]);
        const std::vector<size_t> &all = orphans[block.missingBase];
        if (all.front() == i) {
            AddBlocks(standing, block, all, &blocks);
        }
    }
    return blocks;
}
