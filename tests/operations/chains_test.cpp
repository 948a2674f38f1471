// The three readers over chains of images, from a single full one to the longest that opens, plain and sealed levels
// mixed: what comes out, and how often each chunk is read, opened and hashed on the way.
//
// A chunk is read once, from the image that stores it, and hashed once at each level that it passes. The levels of a
// chain and where its chunks lie are told in operations_fixture.h.
#include "operations/operations_fixture.h"

using namespace operations;

namespace
{
struct Mixture {
    const char *name;
    bool (*isSealed)(size_t level);
};

const Mixture mixtures[] = {
    {"plain", [](size_t) { return false; }},
    {"sealed", [](size_t) { return true; }},
    {"plain on sealed", [](size_t level) { return level % 2 == 0; }},
    {"sealed on plain", [](size_t level) { return level % 2 == 1; }},
};

struct ReadersOfChains : OperationsTest {
    RunResult Run(const Arguments &arguments)
    {
        Arguments all = arguments;
        all.insert(all.end(), {"--password-file", "pw"});
        return RunCommand(machine, all);
    }

    void ForEachChain(const std::function<void(const Chain &chain)> &test)
    {
        for (const size_t images : {size_t{1}, size_t{2}, size_t{3}, size_t{64}, size_t{65}}) {
            for (const Mixture &mixture : mixtures) {
                SCOPED_TRACE(std::to_string(images) + " images, " + mixture.name);
                test(MakeChain(images, mixture.isSealed));
            }
        }
    }

    void ExpectSuccess(const RunResult &result)
    {
        EXPECT_EQ(result.errorText, "");
        EXPECT_EQ(result.exitStatus, 0);
        ExpectNoMisuse();
    }

    // Each chunk was read once, where it is stored, and nothing else was read of any data area.
    void ExpectOneReadOfEachChunk(const Chain &chain) const
    {
        size_t readsOfData = 0;
        for (size_t level = 0; level < chain.names.size(); ++level) {
            const Bytes image = ReadBytes(chain.names[level]);
            const size_t dataEnd = DataAt(image, chain.homes.size());
            for (const Call &call : CallsOf(machine, "ReadFile", "file:" + chain.names[level])) {
                const uint64_t offset = Field(call, "offset");
                readsOfData += offset >= DataStartOf(image) && offset < dataEnd ? 1 : 0;
            }
        }
        EXPECT_EQ(readsOfData, chain.homes.size());
        for (size_t i = 0; i < chain.homes.size(); ++i) {
            const std::string &home = chain.names[chain.homes[i]];
            const std::string length = std::to_string(i == 5 ? chainLastBytes : chainChunkBytes);
            const std::string read = "ReadFile file:" + home + "#1 " + length + " at " +
                                     std::to_string(DataAt(ReadBytes(home), i)) + " -> " + length;
            const std::vector<Call> calls = CallsOf(machine, "ReadFile");
            EXPECT_EQ(std::count_if(calls.begin(), calls.end(), [&](const Call &call) { return call.text == read; }), 1)
                << read;
        }
    }

    size_t ChunkDigests() const
    {
        return CountOfLength(machine, "BCryptHashData", {chainChunkBytes, chainLastBytes});
    }

    static size_t SealedChunks(const Chain &chain)
    {
        size_t count = 0;
        for (const size_t home : chain.homes) {
            count += chain.plans[home].encrypted ? 1 : 0;
        }
        return count;
    }

    // Those of the top image that are sealed and its own.
    static size_t SealedChunksOfTop(const Chain &chain)
    {
        const size_t top = chain.plans.size() - 1;
        const auto own = std::count(chain.homes.begin(), chain.homes.end(), top);
        return chain.plans[top].encrypted ? static_cast<size_t>(own) : 0;
    }
};
} // namespace

TEST_F(ReadersOfChains, VerifyFindsEveryLengthAndMixtureSound)
{
    ForEachChain([this](const Chain &chain) {
        const RunResult result = Run({"verify", "--in", chain.Top()});
        ExpectSuccess(result);
        const size_t images = chain.names.size();
        const std::string link =
            images > 1 ? "  thin image: chain continues with " + chain.names[images - 2] + "\n" : "";
        EXPECT_EQ(result.outputText, "Verifying " + chain.Top() + "  (6 chunks, 0.00 GiB source disk)\n" + link +
                                         ProgressLine(1024, 5632) + ProgressLine(5632, 5632) +
                                         "\nVerify OK - all 6 chunks match their recorded hash.\n");
        ExpectOneReadOfEachChunk(chain);
        EXPECT_EQ(ChunkDigests(), 6 + chain.AllReferences());
        EXPECT_EQ(CountCalls(machine, "BCryptDecrypt"), SealedChunks(chain));
        EXPECT_EQ(LogOf(machine, {"CloseHandle"}), "CloseHandle file:" + chain.Top() + "#1\n");
    });
}

TEST_F(ReadersOfChains, RestoreWritesTheDiskOfTheTopImage)
{
    ForEachChain([this](const Chain &chain) {
        machine.disks[1].bytes = Bytes(chain.Disk().size());
        const RunResult result = Run({"restore", "--in", chain.Top(), "--disk", "1", "--confirm", "YES"});
        ExpectSuccess(result);
        EXPECT_TRUE(machine.disks[1].bytes == chain.Disk());
        ExpectOneReadOfEachChunk(chain);
        EXPECT_EQ(ChunkDigests(), 6 + chain.AllReferences() - SealedChunksOfTop(chain));
        EXPECT_EQ(CountCalls(machine, "BCryptDecrypt"), SealedChunks(chain));
        EXPECT_EQ(CountCalls(machine, "WriteFile"), 6U);
        EXPECT_EQ(LogOf(machine, {"CloseHandle"}),
                  "CloseHandle volume:C#1\nCloseHandle disk1#1\nCloseHandle file:" + chain.Top() + "#1\n");
    });
}

TEST_F(ReadersOfChains, ConsolidateWritesOneFullImageWithoutAReference)
{
    ForEachChain([this](const Chain &chain) {
        std::filesystem::remove("out.kstx");
        ExpectSuccess(Run({"consolidate", "--in", chain.Top(), "--out", "out.kstx"}));
        ImagePlan full = SmallPlan();
        full.disk = chain.Disk();
        full.chunkSize = chainChunkBytes;
        EXPECT_TRUE(ReadBytes("out.kstx") == BuildImage(full));
        ExpectOneReadOfEachChunk(chain);
        EXPECT_EQ(ChunkDigests(), 6 + chain.AllReferences() + 6); // six more in the closing verify
        EXPECT_EQ(CountCalls(machine, "BCryptDecrypt"), SealedChunks(chain));
    });
}

TEST_F(ReadersOfChains, ConsolidateSealsALongMixedChainUnderOneNewKey)
{
    const Chain chain = MakeChain(65, [](size_t level) { return level % 3 == 0; });
    ExpectSuccess(Run({"consolidate", "--in", chain.Top(), "--out", "out.kstx", "--encrypt"}));
    const Bytes image = ReadBytes("out.kstx");
    const auto key = Pbkdf2Of("password", HeaderOf(image).salt, 200000);
    EXPECT_EQ(HeaderOf(image).version, 2U);
    for (size_t i = 0; i < 6; ++i) {
        const EntryFields entry = EntriesOf(image)[i];
        const uint32_t length = i == 5 ? chainLastBytes : chainChunkBytes;
        EXPECT_EQ(entry.storedLength, length);
        const auto start = image.begin() + static_cast<std::ptrdiff_t>(DataAt(image, i));
        Bytes plain;
        EXPECT_TRUE(Unseal(key, entry.nonce, Bytes(start, start + length), entry.tag, &plain));
        EXPECT_TRUE(std::equal(plain.begin(), plain.end(), &chain.Disk()[i * chainChunkBytes]));
    }
    EXPECT_EQ(image.size(), 64 + 6 * 72 + chain.Disk().size());
    EXPECT_EQ(CountCalls(machine, "BCryptEncrypt"), 6U);
    EXPECT_EQ(CountCalls(machine, "BCryptDecrypt"), SealedChunks(chain) + 6);
    EXPECT_EQ(CountCalls(machine, "BCryptDeriveKeyPBKDF2"), 22U + 2U); // levels 0, 3, ... 63; the new key twice
}

TEST_F(ReadersOfChains, NoneTakesAChainOf66Images)
{
    const Chain chain = MakeChain(66, [](size_t) { return false; });
    machine.disks[1].bytes = PatternBytes(8192, 4);
    for (const Arguments &arguments :
         std::vector<Arguments>{{"verify", "--in", chain.Top()},
                                {"restore", "--in", chain.Top(), "--disk", "1", "--confirm", "YES"},
                                {"consolidate", "--in", chain.Top(), "--out", "out.kstx"}}) {
        const RunResult result = Run(arguments);
        EXPECT_EQ(result.errorText, FatalLine("image chain is too deep (or loops back on itself)"));
        EXPECT_EQ(result.outputText, "");
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(CountCalls(machine, "CreateFileW", "disk1"), 0U);
    }
    EXPECT_FALSE(FileExists("out.kstx"));
    EXPECT_EQ(Run({"verify", "--in", chain.names[64]}).exitStatus, 0);
}

// Damage is found at the level that stores the chunk, however deep, and only by who refers to it.
TEST_F(ReadersOfChains, FailAtDamageInTheDeepestImage)
{
    for (const bool sealed : {false, true}) {
        const Chain chain = MakeChain(65, [sealed](size_t) { return sealed; });
        const Bytes full = ReadBytes(chain.names[0]);
        FlipByte(chain.names[0], DataAt(full, 2)); // overridden by later levels
        EXPECT_EQ(Run({"verify", "--in", chain.Top()}).exitStatus, 0);
        FlipByte(chain.names[0], DataAt(full, 5));
        const std::string error = FatalLine(sealed ? "chunk failed authentication (corrupt or tampered image)"
                                                   : "chunk failed its hash check (corrupt image or base)");
        machine.disks[1].bytes = Bytes(chain.Disk().size());
        EXPECT_EQ(Run({"verify", "--in", chain.Top()}).errorText, error);
        EXPECT_EQ(Run({"restore", "--in", chain.Top(), "--disk", "1", "--confirm", "YES"}).errorText, error);
        Bytes restored = chain.Disk();
        std::fill(restored.end() - chainLastBytes, restored.end(), uint8_t{0});
        EXPECT_TRUE(machine.disks[1].bytes == restored);
        std::filesystem::remove("out.kstx");
        EXPECT_EQ(Run({"consolidate", "--in", chain.Top(), "--out", "out.kstx"}).errorText, error);
        EXPECT_EQ(ReadBytes("out.kstx").size(), 64 + 6 * 72 + 5 * chainChunkBytes);
    }
}

TEST_F(ReadersOfChains, FailAtALevelThatDisagreesWithASoundBase)
{
    MakeChain(3, [](size_t) { return false; });
    FlipByte("level2.kstx", EntryAt(0) + hashAt);
    EXPECT_EQ(Run({"verify", "--in", "level1.kstx"}).exitStatus, 0);
    EXPECT_EQ(Run({"verify", "--in", "level2.kstx"}).errorText,
              FatalLine("chunk failed its hash check (corrupt image or base)"));
    EXPECT_EQ(ChunkDigests(), 3U); // the base's two levels passed
}
