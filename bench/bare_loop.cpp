// What a capture can't do without, and nothing else: read 4 MiB unbuffered, take its SHA-256 with libcrypto, write it;
// from the first byte of a disk to its last, on one thread. The measure for the capture's own cost.
//
// Usage: bare_loop DISK FILE
#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

static constexpr size_t chunkBytes = 4 * 1024 * 1024;
static constexpr size_t hugePageBytes = 2 * 1024 * 1024;

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: bare_loop DISK FILE\n");
        return 1;
    }
    const int disk = open(argv[1], O_RDONLY | O_DIRECT);
    const int file = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0666);
    void *chunk = aligned_alloc(hugePageBytes, chunkBytes);
    if (disk < 0 || file < 0 || chunk == nullptr) {
        perror("bare_loop");
        return 1;
    }
    madvise(chunk, chunkBytes, MADV_HUGEPAGE);
    for (;;) {
        unsigned char digest[32];
        const ssize_t length = read(disk, chunk, chunkBytes);
        if (length == 0) {
            return 0;
        }
        if (length < 0 || EVP_Digest(chunk, static_cast<size_t>(length), digest, nullptr, EVP_sha256(), nullptr) != 1 ||
            write(file, chunk, static_cast<size_t>(length)) != length) {
            perror("bare_loop");
            return 1;
        }
    }
}
