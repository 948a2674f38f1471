// An image with all that it stands on.
//
// Each base is looked up beside the image, and compared with its pin as soon as it is open: a chain that was put
// together wrongly is left at the first image that does not belong to it, and one that loops at the first file that
// comes a second time. Whoever wants what is left of a chain gets the part above such an image: what that part stores
// is as sound as ever, and its first table has the digest of every chunk. Keys cost time, so only those are derived
// without which a chunk of the disk can't be opened.
#include "reader/reader.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>

namespace reader
{

Result<std::string> ReadPassword(const std::string &path)
{
    std::string password;
    if (const host::Trouble trouble = host::ReadSmallFile(path, &password)) {
        return Fault{FaultKind::Unavailable, path + ": the password file can't be opened: " + *trouble};
    }
    password.erase(password.find_last_not_of("\r\n") + 1);
    if (password.empty()) {
        return Fault{FaultKind::Unavailable, path + ": the password file is empty"};
    }
    return password;
}

std::optional<Fault> DeriveImageKey(ImageFile *image, const std::optional<std::string> &password)
{
    const ImageHeader &header = image->facts.header;
    if (!IsSealed(header)) {
        return {};
    }
    if (!password) {
        return Fault{FaultKind::Unavailable, image->facts.path + ": it is sealed, and no password file is named"};
    }
    image->key = std::make_unique<host::Key>();
    if (const host::Trouble trouble = host::DeriveKey(*password, header.salt, header.kdfIterations, image->key.get())) {
        const FaultKind kind = header.kdfIterations == 0 ? FaultKind::Damaged : FaultKind::Unavailable;
        return Fault{kind, image->facts.path + ": " + *trouble};
    }
    return {};
}

static bool IsSameGeometry(const ImageHeader &left, const ImageHeader &right)
{
    return left.diskSize == right.diskSize && left.chunkSize == right.chunkSize && left.chunkCount == right.chunkCount;
}

// Opens what the last image of the chain stands on.
static std::optional<Fault> OpenBase(Chain *chain, const OpenOptions &options)
{
    const ImageFacts &above = chain->images.back().facts;
    if (above.fault) {
        return above.fault; // its trailer, which was let pass
    }
    const host::BasePlace place = host::FindBase(above.path, above.trailer->baseName);
    if (!place.exists) {
        return Fault{FaultKind::Damaged, above.path + ": the image that it stands on is missing: " + place.path};
    }
    host::FileIdentity identity;
    const bool isKnown = !host::IdentityOf(place.path, &identity);
    const bool isLoop = isKnown && std::any_of(chain->images.begin(), chain->images.end(), [&](const ImageFile &image) {
                            return image.facts.identity == identity;
                        });
    if (isLoop || chain->images.size() == mostImages) {
        return Fault{FaultKind::Damaged, above.path + (isLoop ? ": its chain comes back to " + place.path
                                                              : ": its chain has more than 65 images")};
    }
    Result<ImageFile> base = OpenImageFile(place.path, options.caching, options.keepsGoing);
    if (!base) {
        return base.fault;
    }
    if (base->facts.id != above.trailer->basePin) {
        return Fault{FaultKind::Damaged, place.path + ": it is not the image that " + above.path +
                                             " was made against: it was modified or replaced"};
    }
    if (!IsSameGeometry(base->facts.header, above.header)) {
        return Fault{FaultKind::Damaged, place.path + ": it is of another disk size or chunk size than " + above.path};
    }
    chain->images.push_back(std::move(*base));
    return {};
}

static void SettleChunks(Chain *chain)
{
    chain->storedIn.assign(static_cast<size_t>(chain->ChunkCount()), storedNowhere);
    for (size_t level = chain->images.size(); level > 0; --level) {
        const std::vector<ChunkEntry> &table = chain->images[level - 1].table;
        for (size_t i = 0; i < table.size(); ++i) {
            if (table[i].storedLength != 0) {
                chain->storedIn[i] = static_cast<uint8_t>(level - 1);
            }
        }
    }
}

// Unless told otherwise a sealed image wants a password even where nothing of it is needed, and one whose key nobody
// could derive is refused: that is how the program that restores it sees it.
static std::optional<Fault> DeriveKeys(Chain *chain, const OpenOptions &options)
{
    std::optional<std::string> password;
    std::vector<ImageFile *> toDerive;
    for (size_t level = 0; level < chain->images.size(); ++level) {
        ImageFile &image = chain->images[level];
        const bool isNeeded = std::find(chain->storedIn.begin(), chain->storedIn.end(), level) != chain->storedIn.end();
        if (!IsSealed(image.facts.header) || (options.needsOnly && !isNeeded)) {
            continue;
        }
        if (!password && !options.passwordFile.empty()) {
            Result<std::string> given = ReadPassword(options.passwordFile);
            if (!given) {
                return given.fault;
            }
            password = *given;
        }
        if (isNeeded || !password || image.facts.header.kdfIterations == 0) {
            toDerive.push_back(&image);
        }
    }
    std::atomic<size_t> next = 0;
    std::mutex mutex;
    std::optional<Fault> first;
    const auto threads = static_cast<uint32_t>(std::min<size_t>(options.threads, toDerive.size()));
    std::optional<Fault> broken = OnThreads(threads, [&] {
        for (size_t i = next++; i < toDerive.size(); i = next++) {
            std::optional<Fault> fault = DeriveImageKey(toDerive[i], password);
            const std::lock_guard<std::mutex> lock(mutex);
            if (fault && !first) {
                first = std::move(fault);
            }
        }
    });
    return broken ? broken : first;
}

Chain MakeAlone(ImageFile image)
{
    Chain chain;
    chain.images.push_back(std::move(image));
    SettleChunks(&chain);
    return chain;
}

static Result<Chain> OpenImages(const std::string &path, const OpenOptions &options)
{
    Chain chain;
    Result<ImageFile> image = OpenImageFile(path, options.caching, options.keepsGoing);
    if (!image) {
        return image.fault;
    }
    chain.images.push_back(std::move(*image));
    while (!options.isAlone && !chain.endsBy && IsThin(chain.images.back().facts.header)) {
        std::optional<Fault> fault = OpenBase(&chain, options);
        if (fault && (!options.keepsGoing || fault->kind == FaultKind::Unavailable)) {
            return *fault;
        }
        chain.endsBy = std::move(fault);
    }
    SettleChunks(&chain);
    if (std::optional<Fault> fault = DeriveKeys(&chain, options)) {
        return *fault;
    }
    return chain;
}

Result<Chain> OpenChain(const std::string &path, const OpenOptions &options)
{
    try {
        return OpenImages(path, options);
    } catch (const std::bad_alloc &) {
        return Fault{FaultKind::Unavailable, path + ": there is not enough memory for the tables of its chain"};
    }
}

} // namespace reader
