// What each command can't do without, and nothing else: per chunk one read, one SHA-256 or AES-256-GCM of libcrypto,
// one write, on one thread and with one buffer on huge pages. The measure for the program's own cost.
//
//   bare_loop capture DISK FILE [KEY]      read unbuffered, digest, seal, write
//   bare_loop digest DISK                  read unbuffered, digest: a thin capture of a disk that did not change
//   bare_loop digest-cached DISK           read through the page cache, digest
//   bare_loop verify IMAGE [KEY]           read, open, digest
//   bare_loop restore IMAGE DISK [KEY]     read, open or else digest, write unbuffered
//   bare_loop consolidate IMAGE FILE       read, digest, write; then read what was written, digest
//   bare_loop tables IMAGE [IMAGE]...      read header and table, digest: what listing images can't do without
//   bare_loop memory BYTES                 digest so much, of memory alone
//
// IMAGE is a full image; its records are taken as they stand. KEY is that of the image, in hexadecimal digits: deriving
// it is no matter of chunks. FILE gets the chunks alone, since header and table are no matter of chunks either.
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

static constexpr size_t chunkBytes = 4 * 1024 * 1024;
static constexpr size_t hugePageBytes = 2 * 1024 * 1024;
static constexpr size_t headerBytes = 64;
static constexpr size_t countOffset = 28; // of the number of chunks in the header

#pragma pack(push, 1)
struct Entry {
    uint64_t diskOffset;
    uint32_t storedLength;
    uint8_t hash[32];
    uint8_t nonce[12];
    uint8_t tag[16];
};
#pragma pack(pop)
static_assert(sizeof(Entry) == 72, "an entry of an image's table");

struct Loop {
    uint8_t *chunk = nullptr;
    EVP_CIPHER_CTX *cipher = nullptr; // none for a plain image
};

static void Require(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "bare_loop: %s (errno %d)\n", what, errno);
        exit(1);
    }
}

static int Open(const char *path, int flags)
{
    const int file = open(path, flags, 0666);
    Require(file >= 0, path);
    return file;
}

static Loop MakeLoop(const char *key, bool seals)
{
    Loop loop;
    loop.chunk = static_cast<uint8_t *>(aligned_alloc(hugePageBytes, chunkBytes));
    Require(loop.chunk != nullptr, "memory");
    madvise(loop.chunk, chunkBytes, MADV_HUGEPAGE);
    if (key != nullptr) {
        long keyBytes = 0;
        unsigned char *raw = OPENSSL_hexstr2buf(key, &keyBytes);
        loop.cipher = EVP_CIPHER_CTX_new();
        Require(raw != nullptr && keyBytes == 32 && loop.cipher != nullptr &&
                    EVP_CipherInit_ex(loop.cipher, EVP_aes_256_gcm(), nullptr, raw, nullptr, seals ? 1 : 0) == 1,
                "key");
        OPENSSL_free(raw);
    }
    return loop;
}

static void Digest(const Loop &loop, size_t length, uint8_t *digest)
{
    Require(EVP_Digest(loop.chunk, length, digest, nullptr, EVP_sha256(), nullptr) == 1, "digest");
}

static void Compare(const Loop &loop, const Entry &entry)
{
    uint8_t digest[32];
    Digest(loop, entry.storedLength, digest);
    Require(memcmp(digest, entry.hash, sizeof(digest)) == 0, "the chunk has another digest");
}

static void Seal(const Loop &loop, size_t length)
{
    uint8_t nonce[12], tag[16];
    int written = 0;
    Require(RAND_bytes(nonce, sizeof(nonce)) == 1 &&
                EVP_EncryptInit_ex(loop.cipher, nullptr, nullptr, nullptr, nonce) == 1 &&
                EVP_EncryptUpdate(loop.cipher, loop.chunk, &written, loop.chunk, static_cast<int>(length)) == 1 &&
                EVP_EncryptFinal_ex(loop.cipher, loop.chunk + written, &written) == 1 &&
                EVP_CIPHER_CTX_ctrl(loop.cipher, EVP_CTRL_GCM_GET_TAG, sizeof(tag), tag) == 1,
            "seal");
}

static void Unseal(const Loop &loop, Entry &entry)
{
    const auto length = static_cast<int>(entry.storedLength);
    int written = 0;
    Require(EVP_DecryptInit_ex(loop.cipher, nullptr, nullptr, nullptr, entry.nonce) == 1 &&
                EVP_DecryptUpdate(loop.cipher, loop.chunk, &written, loop.chunk, length) == 1 &&
                EVP_CIPHER_CTX_ctrl(loop.cipher, EVP_CTRL_GCM_SET_TAG, sizeof(entry.tag), entry.tag) == 1 &&
                EVP_DecryptFinal_ex(loop.cipher, loop.chunk + written, &written) == 1,
            "the chunk does not open");
}

static void ReadChunk(const Loop &loop, int file, const Entry &entry)
{
    Require(entry.storedLength != 0 && entry.storedLength <= chunkBytes, "not a full image");
    Require(read(file, loop.chunk, entry.storedLength) == static_cast<ssize_t>(entry.storedLength), "read");
}

// The number of chunks of an image, whose file is then at its table.
static uint64_t ReadCount(int image)
{
    uint8_t header[headerBytes];
    uint64_t count = 0;
    Require(read(image, header, sizeof(header)) == static_cast<ssize_t>(sizeof(header)), "header");
    memcpy(&count, header + countOffset, sizeof(count));
    return count;
}

// The table of an image, whose file is then at its first chunk.
static std::vector<Entry> ReadTable(int image)
{
    const uint64_t count = ReadCount(image);
    std::vector<Entry> table(count);
    const auto tableBytes = static_cast<ssize_t>(count * sizeof(Entry));
    Require(read(image, table.data(), count * sizeof(Entry)) == tableBytes, "table");
    return table;
}

static void Capture(const char *disk, int flags, const char *file, const char *key)
{
    const Loop loop = MakeLoop(key, true);
    const int source = Open(disk, O_RDONLY | flags);
    const int image = file != nullptr ? Open(file, O_WRONLY | O_CREAT | O_TRUNC) : -1;
    for (;;) {
        uint8_t digest[32];
        const ssize_t length = read(source, loop.chunk, chunkBytes);
        Require(length >= 0, "read");
        if (length == 0) {
            return;
        }
        Digest(loop, static_cast<size_t>(length), digest);
        if (loop.cipher != nullptr) {
            Seal(loop, static_cast<size_t>(length));
        }
        Require(image < 0 || write(image, loop.chunk, static_cast<size_t>(length)) == length, "write");
    }
}

static void Verify(const char *path, const char *key)
{
    const Loop loop = MakeLoop(key, false);
    const int image = Open(path, O_RDONLY);
    for (Entry &entry : ReadTable(image)) {
        ReadChunk(loop, image, entry);
        if (loop.cipher != nullptr) {
            Unseal(loop, entry);
        }
        Compare(loop, entry);
    }
}

static void Restore(const char *path, const char *disk, const char *key)
{
    const Loop loop = MakeLoop(key, false);
    const int image = Open(path, O_RDONLY);
    const int target = Open(disk, O_WRONLY | O_DIRECT | O_EXCL);
    for (Entry &entry : ReadTable(image)) {
        ReadChunk(loop, image, entry);
        if (loop.cipher != nullptr) {
            Unseal(loop, entry);
        } else {
            Compare(loop, entry);
        }
        Require(pwrite(target, loop.chunk, entry.storedLength, static_cast<off_t>(entry.diskOffset)) ==
                    static_cast<ssize_t>(entry.storedLength),
                "write");
    }
}

static void Consolidate(const char *path, const char *file)
{
    const Loop loop = MakeLoop(nullptr, false);
    const int image = Open(path, O_RDONLY);
    const int output = Open(file, O_RDWR | O_CREAT | O_EXCL);
    const std::vector<Entry> table = ReadTable(image);
    for (const Entry &entry : table) {
        ReadChunk(loop, image, entry);
        Compare(loop, entry);
        Require(write(output, loop.chunk, entry.storedLength) == static_cast<ssize_t>(entry.storedLength), "write");
    }
    Require(lseek(output, 0, SEEK_SET) == 0, "seek");
    for (const Entry &entry : table) {
        ReadChunk(loop, output, entry);
        Compare(loop, entry);
    }
}

static void Tables(char **paths)
{
    const Loop loop = MakeLoop(nullptr, false);
    for (char **path = paths; *path != nullptr; ++path) {
        const int image = Open(*path, O_RDONLY);
        for (uint64_t left = ReadCount(image) * sizeof(Entry); left != 0;) {
            uint8_t digest[32];
            const auto length = static_cast<size_t>(std::min<uint64_t>(left, chunkBytes));
            Require(read(image, loop.chunk, length) == static_cast<ssize_t>(length), "table");
            Digest(loop, length, digest);
            left -= length;
        }
        close(image);
    }
}

static void Memory(const char *bytes)
{
    const Loop loop = MakeLoop(nullptr, false);
    memset(loop.chunk, 0x5A, chunkBytes);
    for (uint64_t left = strtoull(bytes, nullptr, 10); left != 0;) {
        uint8_t digest[32];
        const auto length = static_cast<size_t>(std::min<uint64_t>(left, chunkBytes));
        Digest(loop, length, digest);
        left -= length;
    }
}

int main(int argc, char **argv)
{
    const std::string mode = argc > 2 ? argv[1] : "";
    const char *third = argc > 3 ? argv[3] : nullptr;
    const char *fourth = argc > 4 ? argv[4] : nullptr;
    if (mode == "capture" && third != nullptr) {
        Capture(argv[2], O_DIRECT, third, fourth);
    } else if (mode == "digest") {
        Capture(argv[2], O_DIRECT, nullptr, nullptr);
    } else if (mode == "digest-cached") {
        Capture(argv[2], 0, nullptr, nullptr);
    } else if (mode == "verify") {
        Verify(argv[2], third);
    } else if (mode == "restore" && third != nullptr) {
        Restore(argv[2], third, fourth);
    } else if (mode == "consolidate" && third != nullptr) {
        Consolidate(argv[2], third);
    } else if (mode == "tables") {
        Tables(argv + 2);
    } else if (mode == "memory") {
        Memory(argv[2]);
    } else {
        fprintf(stderr, "usage: bare_loop capture|digest|digest-cached|verify|restore|consolidate PATH [PATH] [KEY]\n"
                        "       bare_loop tables PATH [PATH]...\n"
                        "       bare_loop memory BYTES\n");
        return 1;
    }
    return 0;
}
