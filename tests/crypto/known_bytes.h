// What the tests of the cryptography share: published values, written in hexadecimal.
//
// The buffer that is sealed and opened throughout is the submission's own, so that no expected byte is the program's.
#pragma once

#include "simulator/expectations.h"
#include "simulator/images.h"
#include "simulator/run_command.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

// Unnamed, because the tests of other subsystems have helpers of the same names.
namespace
{
inline Bytes FromHex(const std::string &digits)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

template <size_t count>
std::array<uint8_t, count> ArrayFromHex(const std::string &digits)
{
    const Bytes bytes = FromHex(digits);
    EXPECT_EQ(bytes.size(), count);
    std::array<uint8_t, count> array = {};
    std::copy_n(bytes.begin(), std::min(bytes.size(), count), array.begin());
    return array;
}

// Test case 15 of the GCM submission: AES-256, a 12-byte nonce, 64 bytes, no additional data.
const std::array<uint8_t, 32> gcmKey =
    ArrayFromHex<32>("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308");
const std::array<uint8_t, 12> gcmNonce = ArrayFromHex<12>("cafebabefacedbaddecaf888");
const Bytes gcmPlain = FromHex("d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
                               "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255");
const Bytes gcmCipher = FromHex("522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
                                "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad");
const std::array<uint8_t, 16> gcmTag = ArrayFromHex<16>("b094dac5d93471bdec1a502270e3cc6c");
} // namespace
