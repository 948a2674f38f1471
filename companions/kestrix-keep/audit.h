// Reading images back from the medium.
#pragma once

#include "kestrix-keep/job_folder.h"

#include <functional>
#include <optional>
#include <string>

struct AuditOptions {
    std::string passwordFile;
    uint32_t threads = 1;
    bool showsProgress = false;
};

// What an audit found: nothing, or a fault: damage, or that it could not be done.
using AuditFault = std::optional<reader::Fault>;

// Reads and checks every chunk that the image at path stores itself.
AuditFault AuditOwnChunks(const std::string &path, const AuditOptions &options);

// Reads and checks every chunk that the image at path depends on, in whichever file it lies.
AuditFault AuditChain(const std::string &path, const AuditOptions &options);

// What came of opening sealed chunks with a password.
struct PasswordTrial {
    AuditFault fault;           // none: all were opened
    bool mayBePassword = false; // what is wrong: it is another one, or the chunk is damaged
    std::string image;          // path of the one to blame, where it may be the password
};

// Opens the chain of the image at path, and of each sealed image in it one chunk that is needed, the deepest first.
PasswordTrial TryPassword(const std::string &path, const AuditOptions &options);

// The SHA-256 of the file at path, as hexadecimal digits, and its length. onBytes hears of each part that was read.
struct FileDigest {
    std::string sha256;
    uint64_t bytes = 0;
};
reader::Result<FileDigest> DigestFile(const std::string &path, host::Caching caching,
                                      const std::function<void(uint64_t bytes)> &onBytes = nullptr);
