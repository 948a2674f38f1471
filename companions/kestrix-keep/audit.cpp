// The reader's verdicts, as one sentence.
#include "kestrix-keep/audit.h"

#include "reader/audit.h"
#include "report/report.h"

#include <algorithm>

// The first fault of a chunk, damage before what could not be read: a medium that fails tells nothing of the image.
static AuditFault ChunkFaultOf(const reader::Chain &chain, const reader::Verdicts &verdicts)
{
    const uint64_t bad = verdicts.CountBad();
    AuditFault first;
    for (uint64_t i = 0; i < chain.ChunkCount(); ++i) {
        const reader::ChunkFault *fault = verdicts.FaultOf(i);
        const bool isUnread = fault != nullptr && fault->cause == reader::ChunkCause::Unreadable;
        if (fault == nullptr || (first && isUnread)) {
            continue;
        }
        first = reader::DescribeChunkFault(chain, i, *fault);
        first->text += bad == 1 ? "" : "; " + std::to_string(bad) + " chunks are bad";
        first->kind = isUnread ? reader::FaultKind::Unavailable : reader::FaultKind::Damaged;
        if (!isUnread) {
            break;
        }
    }
    return first;
}

static AuditFault FaultOf(const reader::Chain &chain, const reader::Verdicts &verdicts)
{
    if (AuditFault fault = ChunkFaultOf(chain, verdicts)) {
        return fault;
    }
    for (const reader::ImageFile &image : chain.images) {
        if (image.facts.bytesTooMany != 0) {
            return reader::Fault{reader::FaultKind::Damaged,
                                 image.facts.path + ": " + Counted(image.facts.bytesTooMany, "byte") + " too many"};
        }
    }
    const uint64_t unknown = reader::UncoveredBytes(chain.Header());
    return unknown == 0 ? AuditFault()
                        : reader::Fault{reader::FaultKind::Damaged, chain.images[0].facts.path +
                                                                        ": it has no chunks for the last " +
                                                                        Counted(unknown, "byte") + " of its disk"};
}

static AuditFault Audit(const std::string &path, const AuditOptions &options, bool isAlone)
{
    reader::Result<reader::Chain> chain =
        reader::OpenChain(path, {options.passwordFile, host::Caching::Medium, options.threads, isAlone});
    if (!chain) {
        return chain.fault;
    }
    const std::optional<uint8_t> level = isAlone ? std::optional<uint8_t>(0) : std::nullopt;
    reader::Verdicts verdicts(chain->ChunkCount());
    reader::ChunkFeeder feeder(*chain, level);
    Progress progress(options.showsProgress, path, BytesToRead(*chain, level));
    const std::optional<reader::Fault> fault =
        ReadChunks(options.threads, feeder, verdicts,
                   [](reader::ChunkReader &reader, uint64_t chunk) { return reader.Read(chunk); },
                   {[&progress](uint64_t bytes) { progress.Add(bytes); }});
    if (fault) {
        return reader::Fault{fault->kind, path + ": " + fault->text};
    }
    return FaultOf(*chain, verdicts);
}

AuditFault AuditOwnChunks(const std::string &path, const AuditOptions &options)
{
    return Audit(path, options, true);
}

AuditFault AuditChain(const std::string &path, const AuditOptions &options)
{
    return Audit(path, options, false);
}

PasswordTrial TryPassword(const std::string &path, const AuditOptions &options)
{
    reader::Result<reader::Chain> chain =
        reader::OpenChain(path, {options.passwordFile, host::Caching::Cached, options.threads, false});
    if (!chain) {
        return {chain.fault, false, {}};
    }
    reader::ChunkReader reader(*chain);
    for (size_t level = chain->images.size(); level-- > 0;) {
        const reader::ImageFacts &facts = chain->images[level].facts;
        const auto stored = std::find(chain->storedIn.begin(), chain->storedIn.end(), level);
        if (stored == chain->storedIn.end() || !reader::IsSealed(facts.header)) {
            continue;
        }
        const auto chunk = static_cast<uint64_t>(stored - chain->storedIn.begin());
        const std::optional<reader::ChunkFault> fault = reader.Read(chunk);
        if (fault && fault->cause == reader::ChunkCause::Seal) {
            return {reader::Fault{reader::FaultKind::Unavailable,
                                  facts.path + ": the password does not open it, or it is damaged in its chunk " +
                                      std::to_string(chunk)},
                    true, facts.path};
        }
    }
    return {};
}

reader::Result<FileDigest> DigestFile(const std::string &path, host::Caching caching,
                                      const std::function<void(uint64_t bytes)> &onBytes)
{
    constexpr size_t blockBytes = size_t{4} << 20;
    host::Source source;
    if (const host::Trouble trouble = host::OpenFileToRead(path, caching, &source)) {
        return reader::Fault{reader::FaultKind::Unavailable, path + ": it can't be opened: " + *trouble};
    }
    const host::Pages block = host::MakePages(blockBytes);
    host::Digesting digesting;
    for (uint64_t offset = 0; offset < source.sizeBytes;) {
        const size_t step = std::min<uint64_t>(blockBytes, source.sizeBytes - offset);
        if (const host::Trouble trouble = host::ReadAt(source, offset, block.get(), step)) {
            return reader::Fault{reader::FaultKind::Unavailable,
                                 path + ": it can't be read at byte " + std::to_string(offset) + ": " + *trouble};
        }
        digesting.Add(block.get(), step);
        offset += step;
        if (onBytes) {
            onBytes(step);
        }
    }
    const host::Digest digest = digesting.Finish();
    return FileDigest{HexText(digest.data(), digest.size()), source.sizeBytes};
}
