// Hand-made images: their sizes, and the cryptography behind them.
#include "simulator/images.h"

#include "simulator/run_command.h"

#include <gtest/gtest.h>

TEST(HandMadeImages, HaveTheSizesOfTheFormat)
{
    ImagePlan plan;
    plan.disk = PatternBytes(10 * MiB, 1);
    const Bytes full = BuildImage(plan);
    EXPECT_EQ(full.size(), 10486040U);
    EXPECT_EQ(DataStartOf(full), 280U);
    EXPECT_EQ(memcmp(full.data(), "KSTXDSK2\x02\0\0\0\0\0\xA0\0\0\0\0\0\0\x02\0\0\0\0\x40\0\x03\0\0\0\0\0\0\0", 36), 0);
    Bytes changed = plan.disk;
    changed[0] ^= 1;
    changed[9 * MiB] ^= 1;
    const ImagePlan thinPlan = ThinPlan(plan, "a.kstx", changed);
    EXPECT_EQ(thinPlan.references, std::set<uint64_t>{1});
    EXPECT_EQ(BuildImage(thinPlan).size(), 6291790U);
}

TEST(HandMadeImages, UsePublishedCryptography)
{
    const Bytes abc = {'a', 'b', 'c'};
    const std::array<uint8_t, 32> abcDigest = {0xBA, 0x78, 0x16, 0xBF, 0x8F, 0x01, 0xCF, 0xEA, 0x41, 0x41, 0x40,
                                               0xDE, 0x5D, 0xAE, 0x22, 0x23, 0xB0, 0x03, 0x61, 0xA3, 0x96, 0x17,
                                               0x7A, 0x9C, 0xB4, 0x10, 0xFF, 0x61, 0xF2, 0x00, 0x15, 0xAD};
    EXPECT_EQ(Sha256Of(abc), abcDigest); // FIPS 180-2, B.1
    const std::array<uint8_t, 16> zeroTag = {0xD0, 0xD1, 0xC8, 0xA7, 0x99, 0x99, 0x6B, 0xF0,
                                             0x26, 0x5B, 0x98, 0xB5, 0xD4, 0x8A, 0xB9, 0x19};
    std::array<uint8_t, 16> tag = {};
    const Bytes cipher = Seal({}, {}, Bytes(16), &tag); // the GCM submission's test case 14
    EXPECT_EQ(cipher,
              (Bytes{0xCE, 0xA7, 0x40, 0x3D, 0x4D, 0x60, 0x6B, 0x6E, 0x07, 0x4E, 0xC5, 0xD3, 0xBA, 0xF3, 0x9D, 0x18}));
    EXPECT_EQ(tag, zeroTag);
    Bytes plain;
    EXPECT_TRUE(Unseal({}, {}, cipher, tag, &plain));
    EXPECT_EQ(plain, Bytes(16));
    tag[0] ^= 1;
    EXPECT_FALSE(Unseal({}, {}, cipher, tag, &plain));
}
