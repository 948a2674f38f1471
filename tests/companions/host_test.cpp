// What differs by platform: known answers of the cryptography, reads at an offset, files that come into being complete.
#include "host/host.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

namespace
{

using Bytes = std::vector<uint8_t>;

Bytes FromHex(const std::string &hex)
{
    Bytes bytes;
    for (size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

template <size_t Count>
void Fill(uint8_t (&place)[Count], const Bytes &bytes)
{
    ASSERT_EQ(bytes.size(), Count);
    memcpy(place, bytes.data(), Count);
}

Bytes BytesOf(const host::Digest &digest)
{
    return {digest.begin(), digest.end()};
}

// A folder of its own for each test.
struct HostFiles : testing::Test {
    HostFiles()
    {
        std::random_device random;
        folder = std::filesystem::temp_directory_path() / ("kestrix-host-" + std::to_string(random()));
        std::filesystem::create_directory(folder);
    }

    ~HostFiles() override
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    std::string Path(const std::string &name) const
    {
        return (folder / name).string();
    }

    void Write(const std::string &name, const std::string &content) const
    {
        std::ofstream(Path(name), std::ios::binary) << content;
    }

    std::string Read(const std::string &name) const
    {
        std::ifstream file(Path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    size_t CountFiles() const
    {
        const std::filesystem::directory_iterator files(folder);
        return static_cast<size_t>(std::distance(begin(files), end(files)));
    }

    std::filesystem::path folder;
};

} // namespace

// ---- Cryptography, by published vectors ----

TEST(HostCryptography, DigestIsThatOfThePublishedExample)
{
    const host::Digest digest = host::DigestOf("abc", 3);
    EXPECT_EQ(BytesOf(digest), FromHex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    host::Digesting pieces;
    pieces.Add("a", 1);
    pieces.Add("", 0);
    pieces.Add("bc", 2);
    EXPECT_EQ(pieces.Finish(), digest);
}

TEST(HostCryptography, KeyIsThatOfAnotherLibrary)
{
    host::Key key;
    uint8_t salt[16];
    for (uint8_t i = 0; i < sizeof(salt); ++i) {
        salt[i] = i;
    }
    ASSERT_FALSE(host::DeriveKey("secret", salt, 3, &key));
    EXPECT_EQ(Bytes(key.bytes.begin(), key.bytes.end()),
              FromHex("d0e89b80c47fe1b78110cc73f7877a34e3d8a7878f283d20a66a572ad6e38931"));
    EXPECT_TRUE(host::DeriveKey("secret", salt, 0, &key));
}

namespace
{

struct PublishedSeal : testing::Test {
    PublishedSeal()
    {
        const Bytes keyBytes = FromHex("feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308");
        memcpy(key.bytes.data(), keyBytes.data(), keyBytes.size());
        Fill(nonce, FromHex("cafebabefacedbaddecaf888"));
        Fill(tag, FromHex("b094dac5d93471bdec1a502270e3cc6c"));
    }

    host::Key key;
    uint8_t nonce[12];
    uint8_t tag[16];
    const Bytes plain = FromHex("d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
                                "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b391aafd255");
    const Bytes sealed = FromHex("522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
                                 "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662898015ad");
};

} // namespace

TEST_F(PublishedSeal, OpensInOnePieceInPlace)
{
    Bytes bytes = sealed;
    host::Opening opening(key, nonce, tag, bytes.size());
    EXPECT_TRUE(opening.Add(bytes.data(), bytes.size()));
    EXPECT_TRUE(opening.Finish());
    EXPECT_EQ(bytes, plain);
}

TEST_F(PublishedSeal, DoesNotOpenWithAnotherTagOrOtherBytes)
{
    for (const bool changesTag : {true, false}) {
        Bytes bytes = sealed;
        uint8_t otherTag[16];
        memcpy(otherTag, tag, sizeof(tag));
        (changesTag ? otherTag[15] : bytes[63]) ^= 1;
        host::Opening opening(key, nonce, otherTag, bytes.size());
        EXPECT_FALSE(opening.Add(bytes.data(), bytes.size()) && opening.Finish());
    }
}

TEST_F(PublishedSeal, IsMadeAgainFromKeyAndNonce)
{
    Bytes bytes = plain;
    uint8_t made[16] = {};
    host::Sealing sealing(key, nonce, bytes.size());
    EXPECT_TRUE(sealing.Add(bytes.data(), bytes.size()));
    EXPECT_TRUE(sealing.Finish(made));
    EXPECT_EQ(bytes, sealed);
    EXPECT_EQ(memcmp(made, tag, sizeof(tag)), 0);
}

TEST_F(PublishedSeal, OfNothingHasATagToo)
{
    // The first example of AES-256 in the standard's paper.
    const host::Key zeroKey;
    const uint8_t zeroNonce[12] = {};
    uint8_t emptyTag[16];
    Fill(emptyTag, FromHex("530f8afbc74536b9a963b4f1c4cb738b"));
    EXPECT_TRUE(host::Opening(zeroKey, zeroNonce, emptyTag, 0).Finish());
    emptyTag[0] ^= 1;
    EXPECT_FALSE(host::Opening(zeroKey, zeroNonce, emptyTag, 0).Finish());
}

// ---- Reading ----

TEST_F(HostFiles, AreReadAtAnyOffsetFromTheMediumAndFromTheCache)
{
    std::string content(100000, '\0');
    for (size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 7 + i / 256);
    }
    Write("a", content);
    for (const host::Caching caching : {host::Caching::Medium, host::Caching::Cached}) {
        host::Source source;
        host::Source again;
        ASSERT_FALSE(host::OpenFileToRead(Path("a"), caching, &source));
        ASSERT_FALSE(host::OpenAgain(source, &again));
        EXPECT_EQ(source.sizeBytes, content.size());
        for (const auto &[offset, count] :
             {std::pair<size_t, size_t>{0, 1}, {1, 4096}, {4096, 8192}, {99999, 1}, {7, 99993}}) {
            std::string got(count, 'x');
            EXPECT_FALSE(host::ReadAt(source, offset, got.data(), count));
            EXPECT_EQ(got, content.substr(offset, count));
            EXPECT_FALSE(host::ReadAt(again, offset, got.data(), count));
            EXPECT_EQ(got, content.substr(offset, count));
        }
        char byte = 0;
        EXPECT_TRUE(host::ReadAt(source, 100000, &byte, 1));
        EXPECT_TRUE(host::ReadAt(source, UINT64_MAX, &byte, 1));
        EXPECT_TRUE(host::ReadAt(source, 99999, &byte, 2));
    }
}

TEST_F(HostFiles, ThatAreNoneAreRefusedInWords)
{
    host::Source source;
    EXPECT_NE(host::OpenFileToRead(Path("absent"), host::Caching::Cached, &source).value_or(""), "");
    EXPECT_NE(host::OpenFileToRead(folder.string(), host::Caching::Cached, &source).value_or(""), "");
}

TEST_F(HostFiles, AreOneByTheirIdentityUnderTwoNames)
{
    host::FileIdentity first;
    host::FileIdentity second;
    host::FileIdentity other;
    Write("a", "1");
    Write("b", "1");
    std::filesystem::create_hard_link(Path("a"), Path("c"));
    ASSERT_FALSE(host::IdentityOf(Path("a"), &first) || host::IdentityOf(Path("c"), &second) ||
                 host::IdentityOf(Path("b"), &other));
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first == other);
    EXPECT_TRUE(host::IdentityOf(Path("absent"), &other));
}

TEST_F(HostFiles, AreInAFolderThatIsOneUnderTwoNames)
{
    host::FileIdentity first;
    host::FileIdentity second;
    host::FileIdentity other;
    for (const char *name : {"one", "two"}) {
        std::filesystem::create_directory(folder / name);
    }
    const std::string roundabout = (folder / "two" / ".." / "one").string();
    ASSERT_EQ(host::IdentityOf(Path("one"), &first), std::nullopt);
    ASSERT_EQ(host::IdentityOf(roundabout, &second), std::nullopt);
    ASSERT_EQ(host::IdentityOf(Path("two"), &other), std::nullopt);
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first == other);
}

TEST_F(HostFiles, AreListedSortedAndWithoutFolders)
{
    Write("b", "");
    Write("a", "");
    std::filesystem::create_directory(folder / "folder");
    std::vector<std::string> names;
    ASSERT_FALSE(host::ListFiles(folder.string(), &names));
    EXPECT_EQ(names, (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(host::ListFiles(Path("absent"), &names));
}

TEST(HostPaths, BothSeparatorsEndAFolderAndAColonDoesNot)
{
    EXPECT_EQ(host::FolderOf("a/b\\c.kstx"), "a/b\\");
    EXPECT_EQ(host::NameOf("a/b\\c.kstx"), "c.kstx");
    EXPECT_EQ(host::FolderOf("C:c.kstx"), "");
    EXPECT_EQ(host::NameOf("a/"), "");
}

TEST_F(HostFiles, ABaseLiesBesideItsImageAndAZeroByteEndsItsName)
{
    Write("base", "1");
    EXPECT_TRUE(host::FindBase(Path("image"), "base").exists);
    EXPECT_TRUE(host::FindBase(Path("image"), std::string("base\0x", 6)).exists);
    EXPECT_FALSE(host::FindBase(Path("image"), "absent").exists);
}

// ---- New files ----

TEST_F(HostFiles, AppearUnderTheirNameOnlyWhenTheyAreFinished)
{
    {
        host::NewFile file;
        ASSERT_FALSE(host::CreateNewFile(Path("new"), host::Existing::IsTrouble, &file));
        ASSERT_FALSE(host::SetLength(file, 10));
        ASSERT_FALSE(host::WriteAt(file, 3, "abc", 3));
        EXPECT_FALSE(std::filesystem::exists(Path("new")));
        EXPECT_EQ(CountFiles(), 1U);
        ASSERT_FALSE(host::FinishNewFile(&file));
    }
    EXPECT_EQ(Read("new"), std::string("\0\0\0abc\0\0\0\0", 10));
    EXPECT_EQ(CountFiles(), 1U);
}

TEST_F(HostFiles, ThatAreNotFinishedLeaveNothing)
{
    {
        host::NewFile file;
        ASSERT_FALSE(host::CreateNewFile(Path("new"), host::Existing::IsTrouble, &file));
        ASSERT_FALSE(host::WriteAt(file, 0, "abc", 3));
    }
    EXPECT_EQ(CountFiles(), 0U);
}

TEST_F(HostFiles, ReplaceNothingThatIsThereOrComesMeanwhile)
{
    host::NewFile refused;
    Write("there", "mine");
    EXPECT_TRUE(host::CreateNewFile(Path("there"), host::Existing::IsTrouble, &refused));
    {
        host::NewFile file;
        ASSERT_FALSE(host::CreateNewFile(Path("new"), host::Existing::IsTrouble, &file));
        Write("new", "faster");
        EXPECT_TRUE(host::FinishNewFile(&file));
    }
    EXPECT_EQ(Read("new"), "faster");
    EXPECT_EQ(Read("there"), "mine");
    EXPECT_EQ(CountFiles(), 2U);
}

TEST_F(HostFiles, BeyondTwoGibibytesKeepTheirLengthAndTheirPlaces)
{
    constexpr uint64_t beyond = (uint64_t{5} << 30) + 1;
    host::NewFile file;
    ASSERT_FALSE(host::CreateNewFile(Path("far"), host::Existing::IsTrouble, &file));
    ASSERT_FALSE(host::SetLength(file, beyond + 1));
    ASSERT_FALSE(host::WriteAt(file, beyond, "x", 1));
    ASSERT_FALSE(host::FinishNewFile(&file));
    host::Source source;
    char byte = 0;
    ASSERT_FALSE(host::OpenFileToRead(Path("far"), host::Caching::Cached, &source));
    EXPECT_EQ(source.sizeBytes, beyond + 1);
    EXPECT_FALSE(host::ReadAt(source, beyond, &byte, 1));
    EXPECT_EQ(byte, 'x');
}
