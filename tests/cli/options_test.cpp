// The three lookups over an argument vector, as tables.
//
// Each row is one command line, argv[0] included, and what the lookup finds in it: the asymmetry between values and
// flags at the end of the line, and names that stand where another option's value stands, are rows like all others.
#include "cli/options.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{
using Words = std::vector<std::string>;

// Calls lookup with the words as main would get them.
template <typename Result>
Result With(Words words, const std::function<Result(int argc, char **argv)> &lookup)
{
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return lookup(static_cast<int>(words.size()), argv.data());
}

std::string ValueIn(const Words &words, const char *name = "--out", const char *defaultValue = "default")
{
    return With<std::string>(words, [&](int argc, char **argv) { return OptionValue(argc, argv, name, defaultValue); });
}

bool FlagIn(const Words &words, const char *name = "--vss")
{
    return With<bool>(words, [&](int argc, char **argv) { return HasFlag(argc, argv, name); });
}

template <typename Exception>
std::string RefusalOf(const std::string &text)
{
    try {
        ParseDiskNumber(text);
    } catch (const Exception &refusal) {
        return refusal.what();
    }
    return "taken";
}
} // namespace

TEST(OptionValue, IsTheArgumentBehindTheFirstMatch)
{
    const struct {
        Words words;
        std::string value;
    } rows[] = {
        {{"kestrix", "capture", "--out", "x"}, "x"},
        {{"kestrix", "capture", "--disk", "1", "--out", "x", "--vss"}, "x"},
        {{"kestrix", "capture", "--out", "first", "--out", "second"}, "first"},
        {{"kestrix", "capture", "--out", ""}, ""},
        {{"kestrix", "capture", "--out", "--vss"}, "--vss"},
        {{"kestrix", "capture", "--out", "--out", "x"}, "--out"},
        {{"kestrix", "capture", "--base", "--out", "--out", "x"}, "--out"},
        {{"kestrix", "--out", "x"}, "x"}, // the command's own place is looked at too
    };
    for (const auto &row : rows) {
        EXPECT_EQ(ValueIn(row.words), row.value) << testing::PrintToString(row.words);
    }
}

TEST(OptionValue, IsTheDefaultWhereNoNameHasAnArgumentBehindIt)
{
    const Words rows[] = {
        {},
        {"kestrix"},
        {"kestrix", "--out"},
        {"kestrix", "capture"},
        {"kestrix", "capture", "--disk", "1", "--out"}, // the last argument is nobody's name
        {"--out", "x", "y"},                            // the program's own name is not looked at
        {"kestrix", "capture", "--outx", "x"},
        {"kestrix", "capture", "--ou", "x"},
        {"kestrix", "capture", "-out", "x"},
        {"kestrix", "capture", "--out=x", "y"},
        {"kestrix", "capture", " --out", "x"},
        {"kestrix", "capture", "", "x"},
    };
    for (const Words &words : rows) {
        EXPECT_EQ(ValueIn(words), "default") << testing::PrintToString(words);
    }
    EXPECT_EQ(ValueIn({"kestrix", "capture"}, "--disk", "-1"), "-1");
}

TEST(OptionValue, TakesItsNameInAnyCaseOfTheLettersAToZ)
{
    for (const char *name : {"--OUT", "--Out", "--oUt"}) {
        EXPECT_EQ(ValueIn({"kestrix", "capture", name, "X y"}), "X y") << name;
    }
    EXPECT_EQ(ValueIn({"kestrix", "capture", "--out", "x"}, "--OUT"), "x");
    // Signs that differ from each other as a large letter does from its small one.
    EXPECT_EQ(ValueIn({"kestrix", "capture", "[out", "x"}, "{out"), "default");
    EXPECT_EQ(ValueIn({"kestrix", "capture", "@out", "x"}, "`out"), "default");
    EXPECT_EQ(ValueIn({"kestrix", "capture", "\xC4out", "x"}, "\xE4out"), "default");
}

TEST(HasFlag, SeesTheWholeLineBehindTheProgramsName)
{
    EXPECT_TRUE(FlagIn({"kestrix", "capture", "--vss"}));
    EXPECT_TRUE(FlagIn({"kestrix", "--vss"}));
    EXPECT_TRUE(FlagIn({"kestrix", "capture", "--VsS", "--out", "x"}));
    EXPECT_TRUE(FlagIn({"kestrix", "capture", "--out", "--vss"})); // a value is looked at as a name all the same
    EXPECT_FALSE(FlagIn({"--vss", "capture"}));
    EXPECT_FALSE(FlagIn({"kestrix", "capture", "--vssx", "--vs", "vss", "", "--vss "}));
    EXPECT_FALSE(FlagIn({"kestrix"}));
    EXPECT_FALSE(FlagIn({}));
}

TEST(ParseDiskNumber, ReadsTheDecimalNumberThatTheTextBeginsWith)
{
    const struct {
        const char *text;
        int32_t number;
    } rows[] = {
        {"0", 0},
        {"3", 3},
        {"3abc", 3},
        {"3 4", 3},
        {"1.9", 1},
        {"007", 7},
        {"0x10", 0},
        {" 5", 5},
        {"\t\n\v\f\r 6", 6},
        {"+4", 4},
        {"-1", -1},
        {"-5x", -5},
        {"-0", 0},
        {"2147483647", 2147483647},
        {"00000000000000000000000000002147483647", 2147483647},
        {"-2147483648", -2147483647 - 1},
    };
    for (const auto &row : rows) {
        errno = ERANGE; // what an earlier call may have left
        EXPECT_EQ(ParseDiskNumber(row.text), row.number) << row.text;
    }
}

TEST(ParseDiskNumber, RefusesATextWithoutANumber)
{
    for (const char *text : {"", " ", "abc", "x3", "-", "+", "--1", "- 1", "--out"}) {
        EXPECT_EQ(RefusalOf<std::invalid_argument>(text), "invalid stoi argument") << text;
    }
}

TEST(ParseDiskNumber, RefusesANumberOfMoreThan32SignedBits)
{
    for (const char *text : {"2147483648", "-2147483649", "4294967296", "99999999999", "9223372036854775808",
                             "-9223372036854775809", "99999999999999999999999999"}) {
        EXPECT_EQ(RefusalOf<std::out_of_range>(text), "stoi argument out of range") << text;
    }
}
