// What is only of Linux: seals over several pieces, as for a chunk that is larger than a buffer, which Wine doesn't
// know, and standard streams that were closed.
#include "host/host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <sys/wait.h>
#include <unistd.h>

TEST(HostCryptography, PiecesGiveWhatOnePieceGives)
{
    host::Key key;
    const uint8_t nonce[12] = {1, 2, 3};
    std::vector<uint8_t> whole(100, 7);
    std::vector<uint8_t> pieces = whole;
    uint8_t tagOfWhole[16] = {};
    uint8_t tagOfPieces[16] = {};
    host::Sealing once(key, nonce, whole.size());
    ASSERT_TRUE(once.Add(whole.data(), whole.size()) && once.Finish(tagOfWhole));
    host::Sealing thrice(key, nonce, pieces.size());
    ASSERT_TRUE(thrice.Add(pieces.data(), 16) && thrice.Add(pieces.data() + 16, 64) &&
                thrice.Add(pieces.data() + 80, 20));
    ASSERT_TRUE(thrice.Finish(tagOfPieces));
    EXPECT_EQ(pieces, whole);
    EXPECT_TRUE(std::equal(std::begin(tagOfWhole), std::end(tagOfWhole), std::begin(tagOfPieces)));
    host::Opening opening(key, nonce, tagOfPieces, pieces.size());
    ASSERT_TRUE(opening.Add(pieces.data(), 48) && opening.Add(pieces.data() + 48, 52));
    EXPECT_TRUE(opening.Finish());
    EXPECT_EQ(pieces, std::vector<uint8_t>(100, 7));
}

TEST(HostProcess, StreamsThatWereClosedAreOpenOnNothing)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        for (const int descriptor : {0, 1, 2}) {
            close(descriptor);
        }
        host::PrepareProcess();
        char byte = 0;
        const bool refusesAll = read(0, &byte, 1) < 0 && errno == EBADF && write(1, "x", 1) < 0 && errno == EBADF &&
                                write(2, "x", 1) < 0 && errno == EBADF;
        const int next = dup(0);
        _exit(refusesAll && next == 3 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}
