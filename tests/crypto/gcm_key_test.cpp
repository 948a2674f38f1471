// The life of a GcmKey: what making one calls and in which order, what its end gives back, and that a key which was
// moved from, or never was, gives back nothing.
//
// The log shows all of it, since each provider and each key there has a name of its own.
#include "crypto/primitives.h"

#include "crypto/known_bytes.h"

#include <optional>
#include <type_traits>
#include <utility>

static_assert(!std::is_copy_constructible_v<GcmKey> && !std::is_copy_assignable_v<GcmKey>);
static_assert(std::is_nothrow_move_constructible_v<GcmKey> && std::is_nothrow_move_assignable_v<GcmKey>);

namespace
{
std::string Making(const std::string &n)
{
    return "BCryptOpenAlgorithmProvider AES flags=0x0 -> aes#" + n + "\nBCryptSetProperty aes#" + n +
           " ChainingMode 32\nBCryptGetProperty aes#" + n + " ObjectLength 4\nBCryptGenerateSymmetricKey aes#" + n +
           " secret=32 -> key#" + n + "\n";
}

std::string Ending(const std::string &n)
{
    return "BCryptDestroyKey key#" + n + "\nBCryptCloseAlgorithmProvider aes#" + n + "\n";
}

void ExpectEmpty(const GcmKey &key)
{
    EXPECT_EQ(key.algorithm, nullptr);
    EXPECT_EQ(key.keyHandle, nullptr);
    EXPECT_TRUE(key.keyObject.empty());
}

bool OpensThePublishedSeal(const GcmKey &key)
{
    Bytes plain(64);
    return OpenChunk(key, gcmCipher.data(), 64, gcmNonce.data(), gcmTag.data(), plain.data()) && plain == gcmPlain;
}

// Runs body, which must misuse nothing, and gives the log of its calls.
std::string LogOfRun(const std::function<void()> &body)
{
    Machine machine;
    EXPECT_EQ(RunCode(machine, body).exitStatus, 0);
    EXPECT_EQ(machine.misuses, std::vector<std::string>());
    return LogText(machine);
}
} // namespace

TEST(GcmKey, IsMadeOnAProviderOfItsOwnAndEndsTheKeyAheadOfTheProvider)
{
    EXPECT_EQ(LogOfRun([] { const GcmKey key(gcmKey.data()); }), Making("1") + Ending("1"));
}

TEST(GcmKey, PutsItsProviderIntoGcmModeBy16Utf16Units)
{
    Machine machine;
    RunCode(machine, [] { const GcmKey key(gcmKey.data()); });
    Bytes expected;
    for (const char c : std::string("ChainingModeGCM")) {
        expected.push_back(static_cast<uint8_t>(c));
        expected.push_back(0);
    }
    expected.resize(32);
    EXPECT_EQ(CallsOf(machine, "BCryptSetProperty").at(0).input, expected);
    for (const Call &call : machine.calls) {
        EXPECT_EQ(call.fields.count("flags") == 0 ? 0 : Field(call, "flags"), 0U) << call.text;
    }
}

TEST(GcmKey, KeepsItsMemoryWhereItWasWhenTheKeyWasMade)
{
    Machine machine;
    size_t zeros = 0;
    machine.onCall = [&zeros](Machine &, const Call &call) {
        if (call.name == "BCryptGenerateSymmetricKey") {
            const auto *memory = static_cast<const uint8_t *>(call.buffer);
            zeros = static_cast<size_t>(std::count(memory, memory + Field(call, "length"), 0));
        }
    };
    RunCode(machine, [&] {
        GcmKey key(gcmKey.data());
        EXPECT_EQ(zeros, key.keyObject.size());
        const uint8_t *memory = key.keyObject.data();
        const size_t length = key.keyObject.size();
        const GcmKey moved(std::move(key));
        EXPECT_EQ(moved.keyObject.data(), memory);
        EXPECT_EQ(moved.keyObject.size(), length);
        EXPECT_EQ(CallsOf(machine, "BCryptGenerateSymmetricKey").at(0).buffer, memory);
        EXPECT_EQ(Field(CallsOf(machine, "BCryptGenerateSymmetricKey").at(0), "length"), length);
    });
    EXPECT_GT(zeros, 0U);
}

TEST(GcmKey, HandsEverythingOverInAMoveAndIsThenEmpty)
{
    EXPECT_EQ(LogOfRun([] {
                  GcmKey source(gcmKey.data());
                  const GcmKey target(std::move(source));
                  ExpectEmpty(source);
                  EXPECT_TRUE(OpensThePublishedSeal(target));
              }),
              Making("1") + "BCryptDecrypt key#1 64\n" + Ending("1"));
}

TEST(GcmKey, EndsWhatItHeldAheadOfTakingOver)
{
    EXPECT_EQ(LogOfRun([] {
                  GcmKey target(Bytes(32).data());
                  GcmKey source(gcmKey.data());
                  target = std::move(source);
                  ExpectEmpty(source);
                  EXPECT_TRUE(OpensThePublishedSeal(target));
              }),
              Making("1") + Making("2") + Ending("1") + "BCryptDecrypt key#2 64\n" + Ending("2"));
}

TEST(GcmKey, StaysWhatItIsWhenItIsMovedIntoItself)
{
    EXPECT_EQ(LogOfRun([] {
                  GcmKey key(gcmKey.data());
                  GcmKey &same = key;
                  key = std::move(same);
                  EXPECT_TRUE(OpensThePublishedSeal(key));
              }),
              Making("1") + "BCryptDecrypt key#1 64\n" + Ending("1"));
}

TEST(GcmKey, TakesOverIntoAnEmptyKeyAndFromOneWithoutFurtherCalls)
{
    EXPECT_EQ(LogOfRun([] {
                  GcmKey first(gcmKey.data());
                  GcmKey second(std::move(first));
                  first = std::move(second);
                  EXPECT_TRUE(OpensThePublishedSeal(first));
                  first = std::move(second);
                  ExpectEmpty(first);
              }),
              Making("1") + "BCryptDecrypt key#1 64\n" + Ending("1"));
}

TEST(GcmKey, InASlotIsNoCallUntilTheSlotIsFilled)
{
    EXPECT_EQ(LogOfRun([] { const std::optional<GcmKey> slot; }), "");
    EXPECT_EQ(LogOfRun([] {
                  std::optional<GcmKey> slot;
                  slot.emplace(gcmKey.data());
              }),
              Making("1") + Ending("1"));
}

TEST(GcmKey, InASlotGoesBeforeItsSuccessorIsMade)
{
    EXPECT_EQ(LogOfRun([] {
                  std::optional<GcmKey> slot;
                  slot.emplace(gcmKey.data());
                  slot.emplace(gcmKey.data());
              }),
              Making("1") + Ending("1") + Making("2") + Ending("2"));
}

TEST(GcmKey, GivesBackBothHandlesWhateverTheResults)
{
    Machine machine;
    FailCall(machine, "BCryptDestroyKey", 1, 0xC0000008);
    FailCall(machine, "BCryptCloseAlgorithmProvider", 1, 0xC0000008);
    const RunResult result = RunCode(machine, [] { const GcmKey key(gcmKey.data()); });
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(result.errorText, "");
    EXPECT_EQ(machine.faultsFired, 2U);
}

TEST(GcmKey, DoesNotLookAtTheResultOfAskingForItsLength)
{
    Machine machine;
    FailCall(machine, "BCryptGetProperty", 1, 0xC0000005).afterEffect = true;
    EXPECT_EQ(RunCode(machine, [] { EXPECT_TRUE(OpensThePublishedSeal(GcmKey(gcmKey.data()))); }).exitStatus, 0);
    machine.faults.clear();
    FailCall(machine, "BCryptGetProperty", 1, 0xC0000005);
    const RunResult result = RunCode(machine, [] { const GcmKey key(gcmKey.data()); });
    EXPECT_EQ(Field(CallsOf(machine, "BCryptGenerateSymmetricKey").at(0), "length"), 0U);
    ExpectFatal(result, "FATAL: BCryptGenerateSymmetricKey (NTSTATUS 0xC0000023)\n");
}
