// The configuration, from its bytes to records.
//
// 1. The bytes: not too many, UTF-8, no keys of so many parts that the tables they make could not be taken apart again.
// 2. The TOML, by a parser that ends at the first fault of its grammar.
// 3. The keys: each table is held against the list of those it may have, each value against what it has to be. All
//    faults are gathered and told in the order of their lines.
// 4. The jobs beside one another, and on a file's reading who can change what it trusts.
#include "kestrix-keep/configuration.h"

#include "report/report.h"

// Of the packaged library only the headers are used, which then throw nothing. The depth is far above what is needed.
#define TOML_HEADER_ONLY 1
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_ENABLE_WINDOWS_COMPAT 0
#define TOML_MAX_NESTED_VALUES 16
#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <map>
#include <string_view>

static constexpr size_t largestFile = size_t{1} << 20; // bytes
static constexpr uint32_t mostKeyDots = 32;
static constexpr size_t mostFaults = 1000;

namespace
{

struct Fault {
    uint32_t line = 0; // 0: of the whole file
    std::string key;   // may be empty
    std::string sentence;
};

// A file that a job relies on.
struct ReliedOn {
    uint32_t line = 0;
    std::string key;
    std::string path;
    bool isSecret = false;
};

struct Reading {
    host::PathRules rules = host::PathRules::Linux;
    Configuration configuration;
    std::vector<Fault> faults;
    std::vector<ReliedOn> reliedOn;
};

// A value and where it stands.
struct Value {
    const toml::node *node = nullptr; // none: the key is not there
    std::string key;                  // dotted
    uint32_t line = 0;
    std::string name; // the key's last part, as it is
};

} // namespace

// ---- Words ----

// Of what may be long.
static std::string Shortened(const std::string &text)
{
    constexpr size_t longest = 80;
    if (text.size() <= longest) {
        return text;
    }
    size_t end = 0;
    for (size_t step = 1; end < longest && step != 0; end += step) {
        step = host::SequenceAt(text, end);
    }
    return text.substr(0, end) + "...";
}

static std::string Quoted(const std::string &text)
{
    return "\"" + Shortened(text) + "\"";
}

// A key as it has to be written in TOML.
static std::string ShownKey(const std::string &key)
{
    const bool isBare =
        !key.empty() &&
        key.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-") == std::string::npos;
    return isBare ? Shortened(key) : Quoted(key);
}

static void AddFault(Reading &reading, const Value &value, const std::string &sentence)
{
    reading.faults.push_back({value.line, value.key, sentence});
}

static std::string Lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

// ---- The bytes ----

namespace
{

// A way through the text that knows strings, comments and brackets, and nothing else of TOML.
struct Scan {
    std::string_view text;
    size_t at = 0;
    uint32_t line = 1;
    std::string_view header; // of the table that the statement is in
    std::string_view key;    // of the statement
    uint32_t dots = 0;       // since what could begin a key
    uint32_t deepLine = 0;   // the first line with a key of too many parts; 0: none
};

} // namespace

static char Next(const Scan &scan, size_t ahead = 0)
{
    return ahead < scan.text.size() - scan.at ? scan.text[scan.at + ahead] : '\0';
}

static bool IsTriple(const Scan &scan, char quote)
{
    return Next(scan) == quote && Next(scan, 1) == quote && Next(scan, 2) == quote;
}

static void SkipLongString(Scan &scan, char quote)
{
    scan.at += 3;
    while (scan.at < scan.text.size() && !IsTriple(scan, quote)) {
        scan.line += Next(scan) == '\n' ? 1 : 0;
        const bool isEscape = quote == '"' && Next(scan) == '\\' && Next(scan, 1) != '\n';
        scan.at += isEscape ? 2 : 1;
    }
    scan.at += 3;
    for (int i = 0; i < 2 && scan.at < scan.text.size() && Next(scan) == quote; ++i) {
        ++scan.at; // quotes before the last three are the string's own
    }
    scan.at = std::min(scan.at, scan.text.size());
}

// From its first quote; one that does not end ends with its line.
static void SkipString(Scan &scan)
{
    const char quote = Next(scan);
    if (IsTriple(scan, quote)) {
        SkipLongString(scan, quote);
        return;
    }
    ++scan.at;
    while (scan.at < scan.text.size() && Next(scan) != quote && Next(scan) != '\n') {
        const bool isEscape = quote == '"' && Next(scan) == '\\' && Next(scan, 1) != '\n';
        scan.at += isEscape ? 2 : 1;
    }
    scan.at = std::min(scan.at, scan.text.size());
    scan.at += Next(scan) == quote ? 1 : 0;
}

static bool IsQuote(char c)
{
    return c == '"' || c == '\'';
}

// One step over what is no string.
static void StepOver(Scan &scan)
{
    const char c = Next(scan);
    if (c == '#') {
        scan.at = std::min(scan.text.find('\n', scan.at), scan.text.size());
        return;
    }
    ++scan.at;
    scan.line += c == '\n' ? 1 : 0;
    if (c == '.') {
        ++scan.dots;
    } else if (std::string_view("=,[]{}\n").find(c) != std::string_view::npos) {
        scan.dots = 0;
    }
    if (scan.dots > mostKeyDots && scan.deepLine == 0) {
        scan.deepLine = scan.line;
    }
}

static std::string_view Trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of("[ \t\r");
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of("] \t\r") + 1 - begin);
}

// Up to one of the ends or a comment, all in one line.
static std::string_view ScanWords(Scan &scan, const char *ends)
{
    const size_t begin = scan.at;
    while (scan.at < scan.text.size() && std::string_view(ends).find(Next(scan)) == std::string_view::npos) {
        if (IsQuote(Next(scan))) {
            SkipString(scan);
        } else {
            StepOver(scan);
        }
    }
    return Trimmed(scan.text.substr(begin, scan.at - begin));
}

// To the end of the line in which all brackets are closed again.
static void ScanValue(Scan &scan)
{
    int64_t depth = 0;
    while (scan.at < scan.text.size() && (Next(scan) != '\n' || depth > 0)) {
        const char c = Next(scan);
        depth += c == '[' || c == '{' ? 1 : 0;
        depth -= c == ']' || c == '}' ? 1 : 0;
        if (IsQuote(c)) {
            SkipString(scan);
        } else {
            StepOver(scan);
        }
    }
}

static void ScanStatement(Scan &scan)
{
    if (Next(scan) == '[') {
        scan.key = {};
        scan.header = ScanWords(scan, "#\n");
    } else {
        scan.key = ScanWords(scan, "=#\n");
    }
    ScanValue(scan);
}

// Past blanks, line ends and comments.
static void SkipToStatement(Scan &scan)
{
    while (scan.at < scan.text.size() && std::string_view(" \t\r\n#").find(Next(scan)) != std::string_view::npos) {
        StepOver(scan);
    }
}

// Goes through the statements that begin in line lastLine or before.
static Scan ScanText(std::string_view text, uint32_t lastLine)
{
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    Scan scan;
    scan.text = text.substr(text.substr(0, byteOrderMark.size()) == byteOrderMark ? byteOrderMark.size() : 0);
    for (SkipToStatement(scan); scan.at < scan.text.size() && scan.line <= lastLine; SkipToStatement(scan)) {
        ScanStatement(scan);
    }
    return scan;
}

// The key at which the text stands in a line, for faults that have only that.
static Value ValueAt(std::string_view text, uint32_t line)
{
    const Scan scan = ScanText(text, line);
    const std::string separator = scan.header.empty() || scan.key.empty() ? "" : ".";
    return {nullptr, Shortened(std::string(scan.header)) + separator + Shortened(std::string(scan.key)), line, ""};
}

// True if the text can be given to the parser.
static bool CheckText(Reading &reading, const std::string &text)
{
    if (text.size() > largestFile) {
        AddFault(reading, Value(),
                 "it has more than " + std::to_string(largestFile) + " bytes, as no configuration needs");
        return false;
    }
    uint32_t line = 1;
    for (size_t i = 0, length = 0; i < text.size(); i += length) {
        length = host::SequenceAt(text, i);
        if (length == 0) {
            AddFault(reading, ValueAt(text, line), "this line is no UTF-8: save the file in that encoding");
            return false;
        }
        line += text[i] == '\n' ? 1 : 0;
    }
    const uint32_t deepLine = ScanText(text, UINT32_MAX).deepLine;
    if (deepLine != 0) {
        AddFault(reading, ValueAt(text, deepLine), "a key here has more parts than any that is known");
    }
    return deepLine == 0;
}

static void AddParserFault(Reading &reading, const std::string &text, const toml::parse_error &error)
{
    const std::string description(error.description());
    const Value value = ValueAt(text, error.source().begin.line);
    AddFault(reading, value,
             description.find("redefine") != std::string::npos ? "this stands in the file twice"
                                                               : "this is no TOML: " + Shortened(description));
}

// ---- Tables ----

static Value RootOf(const toml::table &table)
{
    return {&table, "", 1, ""};
}

static Value MemberAt(const Value &table, const toml::key &key, const toml::node &node)
{
    const std::string name(key.str());
    return {&node, table.key + (table.key.empty() ? "" : ".") + ShownKey(name), key.source().begin.line, name};
}

static Value Member(const Value &table, const char *name)
{
    const toml::table &members = *table.node->as_table();
    const auto found = members.find(name);
    return found == members.end() ? Value() : MemberAt(table, found->first, found->second);
}

// In the order of their lines.
static std::vector<Value> MembersOf(const Value &table)
{
    std::vector<Value> members;
    for (const auto &[key, node] : *table.node->as_table()) {
        members.push_back(MemberAt(table, key, node));
    }
    std::stable_sort(members.begin(), members.end(),
                     [](const Value &left, const Value &right) { return left.line < right.line; });
    return members;
}

static std::vector<Value> ItemsOf(const Value &list)
{
    std::vector<Value> items;
    for (const toml::node &item : *list.node->as_array()) {
        items.push_back({&item, list.key + "[" + std::to_string(items.size() + 1) + "]", item.source().begin.line, ""});
    }
    return items;
}

static const char *TypeText(toml::node_type type)
{
    switch (type) {
    case toml::node_type::string:
        return "text in quotes";
    case toml::node_type::integer:
        return "a whole number";
    case toml::node_type::floating_point:
        return "a number with a fraction";
    case toml::node_type::boolean:
        return "true or false";
    case toml::node_type::array:
        return "a list in square brackets";
    case toml::node_type::table:
        return "a table of keys";
    default:
        return "a date or time";
    }
}

// Whether the key is there with a value of the type. Another type is a fault.
static bool Is(Reading &reading, const Value &value, toml::node_type type)
{
    if (value.node != nullptr && value.node->type() != type) {
        AddFault(reading, value, std::string(TypeText(type)) + " is wanted, not " + TypeText(value.node->type()));
    }
    return value.node != nullptr && value.node->type() == type;
}

// ---- Known keys ----

namespace
{

// The keys of a table; where, seen from the job, it stands.
struct KnownKeys {
    const char *table;
    std::vector<const char *> keys;
};

} // namespace

static const KnownKeys &JobKeys()
{
    static const KnownKeys known = {"the job itself",
                                    {"disk", "machine", "folder", "folder-must-be", "folder-without-locks",
                                     "password-file", "snapshots", "every", "base", "new-full", "keep", "check",
                                     "copies", "before", "after", "on-success", "on-failure"}};
    return known;
}

static const KnownKeys &NewFullKeys()
{
    static const KnownKeys known = {"new-full", {"every", "when-thin-exceeds", "chain"}};
    return known;
}

static const KnownKeys &KeepKeys()
{
    static const KnownKeys known = {"keep", {"last", "daily", "weekly", "monthly"}};
    return known;
}

static const KnownKeys &CheckKeys()
{
    static const KnownKeys known = {"check", {"each", "whole-every"}};
    return known;
}

static const KnownKeys &CopyKeys()
{
    static const KnownKeys known = {"a place in copies", {"to", "must-be", "plain-ok", "keep"}};
    return known;
}

// How many letters have to be put in, taken out or exchanged to get from one to the other.
static size_t Distance(const std::string &left, const std::string &right)
{
    std::vector<size_t> row(right.size() + 1);
    for (size_t j = 0; j <= right.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= left.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= right.size(); ++j) {
            const size_t exchanged = diagonal + (left[i - 1] == right[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({exchanged, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[right.size()];
}

// The key that was most likely meant; null if none is near.
static const char *NearestKey(const std::string &mistyped, const KnownKeys &known)
{
    constexpr size_t longestKey = 40;
    const char *nearest = nullptr;
    std::string plain = Lowered(mistyped.substr(0, longestKey));
    std::replace(plain.begin(), plain.end(), '_', '-');
    size_t least = std::max<size_t>(3, plain.size() / 2 + 1); // one too many
    for (const char *key : known.keys) {
        const bool isBeginning = plain.size() > 2 && std::string_view(key).substr(0, plain.size()) == plain;
        const size_t distance = isBeginning ? 1 : Distance(plain, key);
        if (distance < least && distance < std::max<size_t>(plain.size(), 2)) {
            least = distance;
            nearest = key;
        }
    }
    return nearest;
}

static std::string UnknownKeyText(const std::string &key, const KnownKeys &known)
{
    for (const KnownKeys *other : {&JobKeys(), &NewFullKeys(), &KeepKeys(), &CheckKeys(), &CopyKeys()}) {
        if (other != &known && std::find(other->keys.begin(), other->keys.end(), key) != other->keys.end()) {
            return std::string("this key belongs to ") + other->table + ", not here";
        }
    }
    if (const char *nearest = NearestKey(key, known)) {
        return std::string("there is no such key; did you mean ") + nearest + "?";
    }
    std::string all;
    for (const char *one : known.keys) {
        all += (all.empty() ? "" : ", ") + std::string(one);
    }
    return "there is no such key; here there can be " + all;
}

static void RefuseUnknownKeys(Reading &reading, const Value &table, const KnownKeys &known)
{
    for (const auto &[key, node] : *table.node->as_table()) {
        const std::string name(key.str());
        if (std::find(known.keys.begin(), known.keys.end(), name) == known.keys.end()) {
            AddFault(reading, MemberAt(table, key, node), UnknownKeyText(name, known));
        }
    }
}

// ---- Values ----

// Empty if the key is not there or its value is not one; that is then a fault.
static std::string TextOf(Reading &reading, const Value &value)
{
    if (!Is(reading, value, toml::node_type::string)) {
        return "";
    }
    std::string text = value.node->as_string()->get();
    const bool hasControl = std::any_of(text.begin(), text.end(),
                                        [](char c) { return (static_cast<unsigned char>(c) < 0x20) || c == 0x7F; });
    if (text.empty()) {
        AddFault(reading, value, "this is empty: give it a value, or leave the key out");
    } else if (hasControl) {
        AddFault(reading, value, "a line end, a tab or another control character stands in this");
        text.clear();
    }
    return text;
}

static bool TruthOf(Reading &reading, const Value &value)
{
    return Is(reading, value, toml::node_type::boolean) && value.node->as_boolean()->get();
}

static int NumberOf(Reading &reading, const Value &value, int least, int most, int otherwise)
{
    if (!Is(reading, value, toml::node_type::integer)) {
        return otherwise;
    }
    const int64_t number = value.node->as_integer()->get();
    if (number < least || number > most) {
        AddFault(reading, value,
                 "a number from " + std::to_string(least) + " to " + std::to_string(most) + " is wanted, not " +
                     std::to_string(number));
        return otherwise;
    }
    return static_cast<int>(number);
}

// The number that text begins with, if digits and then the ending are all it has; less than 0 if not. Not above most.
static int64_t NumberBefore(const std::string &text, size_t endingBytes, int64_t most)
{
    const std::string digits = text.substr(0, text.size() - std::min(text.size(), endingBytes));
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
        return -1;
    }
    int64_t number = 0;
    for (const char digit : digits) {
        number = std::min<int64_t>(number * 10 + (digit - '0'), most);
    }
    return number;
}

static int64_t DurationOf(Reading &reading, const Value &value, int64_t otherwise)
{
    constexpr int64_t longest = 36500 * secondsOfDay;
    static const std::map<char, int64_t> units = {{'m', 60}, {'h', 3600}, {'d', secondsOfDay}, {'w', 7 * secondsOfDay}};
    const std::string text = TextOf(reading, value);
    if (text.empty()) {
        return otherwise;
    }
    const auto unit = units.find(text.back());
    const int64_t count = NumberBefore(text, 1, longest);
    if (unit == units.end() || count <= 0) {
        AddFault(reading, value,
                 Quoted(text) +
                     " is no time: a number from 1 up and m, h, d or w is wanted, such as \"12h\" or \"30d\"");
        return otherwise;
    }
    if (count > longest / unit->second) {
        AddFault(reading, value, Quoted(text) + " is more than 100 years");
        return otherwise;
    }
    return count * unit->second;
}

static int PercentageOf(Reading &reading, const Value &value, int otherwise)
{
    const std::string text = TextOf(reading, value);
    if (text.empty()) {
        return otherwise;
    }
    const int64_t number = text.back() == '%' ? NumberBefore(text, 1, 101) : -1;
    if (number < 1 || number > 100) {
        AddFault(reading, value, Quoted(text) + " is no share: \"1%\" to \"100%\" is wanted");
        return otherwise;
    }
    return static_cast<int>(number);
}

// One of two words: whether it is the second.
static bool IsSecondWord(Reading &reading, const Value &value, const char *first, const char *second)
{
    const std::string text = TextOf(reading, value);
    if (!text.empty() && text != first && text != second) {
        AddFault(reading, value, "\"" + std::string(first) + "\" or \"" + second + "\" is wanted, not " + Quoted(text));
    }
    return text == second;
}

// ---- Paths ----

static bool IsSeparator(char c, host::PathRules rules)
{
    return c == '/' || (c == '\\' && rules == host::PathRules::Windows);
}

// Bytes of path before its first part: "/", "C:\" or "\\"; 0 if it is not absolute.
static size_t RootBytes(const std::string &path, host::PathRules rules)
{
    const auto isSeparator = [&](size_t i) { return i < path.size() && IsSeparator(path[i], rules); };
    if (rules == host::PathRules::Linux) {
        return isSeparator(0) ? 1 : 0;
    }
    const char drive = Lowered(path.substr(0, 1))[0];
    if (drive >= 'a' && drive <= 'z' && path.size() > 2 && path[1] == ':' && isSeparator(2)) {
        return 3;
    }
    return isSeparator(0) && isSeparator(1) && path.size() > 2 && !isSeparator(2) ? 2 : 0;
}

// Those behind the root; none is empty or a single dot.
static std::vector<std::string> PartsOf(const std::string &path, host::PathRules rules)
{
    std::vector<std::string> parts;
    std::string part;
    for (size_t i = RootBytes(path, rules); i <= path.size(); ++i) {
        if (i < path.size() && !IsSeparator(path[i], rules)) {
            part += path[i];
            continue;
        }
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        part.clear();
    }
    return parts;
}

// The same for two ways to write one place.
static std::string PlaceText(const std::string &path, host::PathRules rules)
{
    std::string text = path.substr(0, RootBytes(path, rules));
    for (const std::string &part : PartsOf(path, rules)) {
        text += part + "/";
    }
    std::replace_if(
        text.begin(), text.end(), [rules](char c) { return IsSeparator(c, rules); }, '/');
    return rules == host::PathRules::Windows ? Lowered(text) : text;
}

// What is wrong with a path on Windows; empty if nothing is.
static std::string WindowsPathFault(const std::string &path, const std::vector<std::string> &parts)
{
    const bool isShare = path[1] != ':';
    const bool isDevice = isShare && path.size() > 3 && (path[2] == '.' || path[2] == '?') &&
                          IsSeparator(path[3], host::PathRules::Windows);
    if (isDevice || (isShare && parts.size() < 2)) {
        return Quoted(path) + " names no share: \\\\SERVER\\SHARE\\FOLDER is wanted";
    }
    if (path.find_first_of("<>:\"|?*", isShare ? 0 : 2) != std::string::npos) {
        return Quoted(path) + " has one of the characters < > : \" | ? * in it, which no name on Windows has";
    }
    return "";
}

static std::string PathFault(const std::string &path, host::PathRules rules)
{
    const bool isWindows = rules == host::PathRules::Windows;
    if (RootBytes(path, rules) == 0) {
        return Quoted(path) + " is no absolute path: " +
               (isWindows ? "it has to begin with a drive and a backslash, or with \\\\SERVER\\SHARE"
                          : "it has to begin with /");
    }
    const std::vector<std::string> parts = PartsOf(path, rules);
    if (std::find(parts.begin(), parts.end(), "..") != parts.end()) {
        return Quoted(path) + " has .. in it: write the path without";
    }
    return isWindows ? WindowsPathFault(path, parts) : "";
}

static std::string PathOf(Reading &reading, const Value &value, const std::string &path)
{
    const std::string fault = path.empty() ? "" : PathFault(path, reading.rules);
    if (!fault.empty()) {
        AddFault(reading, value, fault);
    }
    return fault.empty() ? path : "";
}

// kestrix takes the bytes of a path for units of 16 bits there, so that only ASCII leads anywhere.
static std::string PathForKestrix(Reading &reading, const Value &value, const std::string &text)
{
    std::string path = PathOf(reading, value, text);
    const bool isAscii =
        std::all_of(path.begin(), path.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (isAscii || reading.rules == host::PathRules::Linux) {
        return path;
    }
    AddFault(reading, value, Quoted(path) + " is not all ASCII, and kestrix on Windows can't open such a path");
    return "";
}

// What stands behind the prefix, if text begins with it; else nothing.
static std::optional<std::string> Behind(const std::string &prefix, const std::string &text)
{
    return text.compare(0, prefix.size(), prefix) == 0 ? std::optional<std::string>(text.substr(prefix.size()))
                                                       : std::nullopt;
}

// ---- The parts of a job ----

static std::string DiskTextFault(const std::string &text, host::PathRules rules)
{
    const bool isLinux = rules == host::PathRules::Linux;
    for (const char *prefix : {"serial:", "wwn:"}) {
        if (const std::optional<std::string> name = Behind(prefix, text)) {
            return name->empty() ? std::string("the disk's own name is missing behind ") + prefix : "";
        }
    }
    if (text.find_first_not_of("0123456789") == std::string::npos) {
        return "a disk's number stands without quotes: disk = " + Shortened(text);
    }
    if (isLinux && Behind("/dev/disk/", text)) {
        const std::string fault = PathFault(text, rules);
        return fault.empty() && PartsOf(text, rules).size() < 4 ? Quoted(text) + " names no disk" : fault;
    }
    if (isLinux && Behind("/dev/", text)) {
        return Quoted(text) + " may be another disk tomorrow: use serial:, wwn: or a path under /dev/disk/by-id";
    }
    return Quoted(text) + " names no disk: a number, \"serial:...\"" +
           (isLinux ? ", \"wwn:...\" or a path under /dev/disk" : " or \"wwn:...\"") + " is wanted";
}

static std::string ReadDisk(Reading &reading, const Value &value)
{
    constexpr int largestNumber = 999999999;
    if (value.node->is_integer()) {
        return std::to_string(NumberOf(reading, value, 0, largestNumber, 0));
    }
    if (!value.node->is_string()) {
        AddFault(reading, value,
                 std::string("a disk's number, or its name in quotes, is wanted, not ") + TypeText(value.node->type()));
        return "";
    }
    std::string text = TextOf(reading, value);
    const std::string fault = text.empty() ? "" : DiskTextFault(text, reading.rules);
    if (!fault.empty()) {
        AddFault(reading, value, fault);
    }
    return text;
}

static void RequireKey(Reading &reading, const Value &table, const char *name, const char *meaning)
{
    if (Member(table, name).node == nullptr) {
        AddFault(reading, {nullptr, table.key + "." + name, table.line, ""},
                 std::string("this key is missing: ") + meaning);
    }
}

// "libvirt:URI/DOMAIN/DISK" or "qmp:SOCKET/DOMAIN/DISK". Names of domains and disks have no slash, both of the others
// may.
static std::optional<GuestDisk> GuestDiskOf(const std::string &text)
{
    const std::optional<std::string> connection = Behind("libvirt:", text);
    const std::optional<std::string> socket = Behind("qmp:", text);
    const std::string &all = connection ? *connection : socket ? *socket : text;
    const size_t beforeDisk = all.rfind('/');
    const size_t beforeDomain =
        beforeDisk == std::string::npos || beforeDisk == 0 ? std::string::npos : all.rfind('/', beforeDisk - 1);
    if ((!connection && !socket) || beforeDomain == std::string::npos) {
        return std::nullopt;
    }
    GuestDisk guest;
    (connection ? guest.connection : guest.socket) = all.substr(0, beforeDomain);
    guest.domain = all.substr(beforeDomain + 1, beforeDisk - beforeDomain - 1);
    guest.disk = all.substr(beforeDisk + 1);
    const bool isWhole = !guest.domain.empty() && !guest.disk.empty() && guest.domain[0] != '-' &&
                         guest.disk[0] != '-' && guest.connection.size() + guest.socket.size() != 0 &&
                         (connection || guest.socket[0] == '/');
    return isWhole ? std::optional<GuestDisk>(guest) : std::nullopt;
}

static void ReadGuest(Reading &reading, const Value &value, Job &job)
{
    const std::string text = TextOf(reading, value);
    job.guest = GuestDiskOf(text);
    if (!text.empty() && reading.rules == host::PathRules::Windows) {
        AddFault(reading, value, "disks of virtual machines are captured from a host with Linux alone");
    } else if (!text.empty() && !job.guest) {
        AddFault(reading, value,
                 "\"libvirt:URI/DOMAIN/DISK\" or \"qmp:/SOCKET/DOMAIN/DISK\" is wanted, not " + Quoted(text));
    }
}

// Which disk, of this machine or of a virtual one.
static void ReadWhatToImage(Reading &reading, const Value &table, Job &job)
{
    const Value disk = Member(table, "disk");
    const Value machine = Member(table, "machine");
    if (machine.node == nullptr) {
        RequireKey(reading, table, "disk", "which disk to image");
    } else {
        ReadGuest(reading, machine, job);
    }
    if (machine.node != nullptr && disk.node != nullptr) {
        AddFault(reading, disk, "the job has machine already, and one disk is all that it images");
    } else if (disk.node != nullptr) {
        job.disk = ReadDisk(reading, disk);
    }
    job.snapshots = TruthOf(reading, Member(table, "snapshots"));
    if (job.snapshots && machine.node != nullptr) {
        AddFault(reading, Member(table, "snapshots"),
                 "this is for disks of this machine: a guest's file systems are frozen by its own agent");
    }
}

static FileSystemName ReadFileSystem(Reading &reading, const Value &value)
{
    const std::string text = TextOf(reading, value);
    FileSystemName name = {Behind("uuid:", text).value_or(""), Behind("source:", text).value_or("")};
    if (!text.empty() && name.uuid.empty() && name.source.empty()) {
        AddFault(reading, value, "\"uuid:...\" or \"source:...\" is wanted, not " + Quoted(text));
    }
    return name;
}

static NewFullRules ReadNewFull(Reading &reading, const Value &table)
{
    constexpr int longestChain = 65; // no command opens more
    NewFullRules rules;
    if (Is(reading, table, toml::node_type::table)) {
        RefuseUnknownKeys(reading, table, NewFullKeys());
        rules.everySeconds = DurationOf(reading, Member(table, "every"), rules.everySeconds);
        rules.whenThinExceedsPercent =
            PercentageOf(reading, Member(table, "when-thin-exceeds"), rules.whenThinExceedsPercent);
        rules.chain = NumberOf(reading, Member(table, "chain"), 1, longestChain, rules.chain);
    }
    return rules;
}

static std::optional<KeepRules> ReadKeep(Reading &reading, const Value &table)
{
    constexpr int most = 10000;
    if (!Is(reading, table, toml::node_type::table)) {
        return {};
    }
    const size_t faultsBefore = reading.faults.size();
    RefuseUnknownKeys(reading, table, KeepKeys());
    KeepRules rules;
    rules.last = NumberOf(reading, Member(table, "last"), 0, most, 0);
    rules.daily = NumberOf(reading, Member(table, "daily"), 0, most, 0);
    rules.weekly = NumberOf(reading, Member(table, "weekly"), 0, most, 0);
    rules.monthly = NumberOf(reading, Member(table, "monthly"), 0, most, 0);
    const bool keepsSome = rules.last > 0 || rules.daily > 0 || rules.weekly > 0 || rules.monthly > 0;
    if (!keepsSome && reading.faults.size() == faultsBefore) {
        AddFault(reading, table,
                 "this would keep no image at all: one of last, daily, weekly and monthly has to be 1 or "
                 "more; to keep every image leave keep out");
    }
    return rules;
}

static CheckRules ReadCheck(Reading &reading, const Value &table)
{
    CheckRules rules;
    if (Is(reading, table, toml::node_type::table)) {
        RefuseUnknownKeys(reading, table, CheckKeys());
        rules.each = IsSecondWord(reading, Member(table, "each"), "own", "whole") ? CheckDepth::Whole : CheckDepth::Own;
        rules.wholeEverySeconds = DurationOf(reading, Member(table, "whole-every"), rules.wholeEverySeconds);
    }
    return rules;
}

// The remote must not be taken for an option or, by rclone, for a backend or a drive.
std::string RcloneFault(const std::string &place, host::PathRules rules)
{
    const std::string remote = place.substr(0, place.find(':'));
    if (remote.empty() || remote.size() + 1 >= place.size()) {
        return "rclone:REMOTE:PATH is wanted, not " + Quoted("rclone:" + place);
    }
    if (remote.front() == '-' || remote.front() == ' ' || remote.find_first_of("/\\,\"'") != std::string::npos) {
        return Quoted(remote) + " is no name of a remote as rclone has them";
    }
    return rules == host::PathRules::Windows && remote.size() == 1
               ? Quoted(remote) + " is a drive to rclone on Windows: give the remote a longer name"
               : "";
}

static void ReadCopyTarget(Reading &reading, const Value &value, CopyPlace &place)
{
    const std::string text = TextOf(reading, value);
    const std::optional<std::string> rclone = Behind("rclone:", text);
    if (!rclone) {
        place.folder = PathForKestrix(reading, value, text);
        return;
    }
    const std::string fault = RcloneFault(*rclone, reading.rules);
    if (fault.empty()) {
        place.rclone = *rclone;
    } else {
        AddFault(reading, value, fault);
    }
}

// One file system, or a list of those that take turns.
static void ReadMustBe(Reading &reading, const Value &value, CopyPlace &place)
{
    if (value.node == nullptr) {
        return;
    }
    const bool isList = value.node->is_array();
    for (const Value &item : isList ? ItemsOf(value) : std::vector<Value>{value}) {
        place.mustBe.push_back(ReadFileSystem(reading, item));
    }
    if (place.mustBe.empty()) {
        AddFault(reading, value, "the list is empty: name a file system, or leave the key out");
    } else if (!place.rclone.empty()) {
        AddFault(reading, value, "this is for folders: a place of rclone lies on no file system of this machine");
    }
}

static CopyPlace ReadCopyPlace(Reading &reading, const Value &table)
{
    CopyPlace place;
    RefuseUnknownKeys(reading, table, CopyKeys());
    const Value target = Member(table, "to");
    if (target.node == nullptr) {
        AddFault(reading, {nullptr, table.key + ".to", table.line, ""}, "this key is missing: where the copies go");
    }
    ReadCopyTarget(reading, target, place);
    ReadMustBe(reading, Member(table, "must-be"), place);
    place.plainIsFine = TruthOf(reading, Member(table, "plain-ok"));
    place.keep = ReadKeep(reading, Member(table, "keep"));
    return place;
}

// Images that are not sealed leave the machine only where that was said.
static void RefusePlainCopy(Reading &reading, const Value &table, const CopyPlace &place, bool isSealed)
{
    if (!place.rclone.empty() && !place.plainIsFine && !isSealed) {
        AddFault(reading, Member(table, "to"),
                 "without a password-file the images are not sealed: set one, or allow it here with plain-ok = true");
    }
}

static void ReadCopies(Reading &reading, const Value &list, Job &job, bool isSealed)
{
    if (!Is(reading, list, toml::node_type::array)) {
        return;
    }
    for (const Value &item : ItemsOf(list)) {
        if (Is(reading, item, toml::node_type::table)) {
            job.copies.push_back(ReadCopyPlace(reading, item));
            RefusePlainCopy(reading, item, job.copies.back(), isSealed);
        }
    }
}

// A program and its arguments.
static std::vector<std::string> ReadHook(Reading &reading, const Value &list)
{
    std::vector<std::string> words;
    if (!Is(reading, list, toml::node_type::array)) {
        return words;
    }
    for (const Value &item : ItemsOf(list)) {
        const std::string word = TextOf(reading, item);
        words.push_back(words.empty() ? PathOf(reading, item, word) : word);
    }
    if (words.empty()) {
        AddFault(reading, list, "the list is empty: a program and its arguments are wanted");
    } else if (!words.front().empty()) {
        const Value program = ItemsOf(list).front();
        reading.reliedOn.push_back({program.line, program.key, words.front(), false});
    }
    return words;
}

static void ReadPasswordFile(Reading &reading, const Value &value, Job &job)
{
    job.passwordFile = PathForKestrix(reading, value, TextOf(reading, value));
    if (!job.passwordFile.empty()) {
        reading.reliedOn.push_back({value.line, value.key, job.passwordFile, true});
    }
}

// ---- Jobs ----

// What is wrong with a job's name, which stands in names of files and of tasks on every system; empty if nothing is.
static std::string JobNameFault(const std::string &name)
{
    constexpr size_t longest = 64;
    static const std::array<const char *, 4> devices = {"con", "prn", "aux", "nul"};
    if (name.empty() || name.size() > longest) {
        return "the name of a job has 1 to " + std::to_string(longest) + " characters";
    }
    if (name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") !=
        std::string::npos) {
        return "the name of a job is made of the letters A to Z, digits, dot, underscore and dash";
    }
    if (name.front() == '.' || name.front() == '-') {
        return "the name of a job begins with a letter, a digit or an underscore";
    }
    const std::string stem = Lowered(name.substr(0, name.find('.')));
    const bool isPort = stem.size() == 4 && (stem.compare(0, 3, "com") == 0 || stem.compare(0, 3, "lpt") == 0) &&
                        stem[3] >= '0' && stem[3] <= '9';
    return isPort || std::find(devices.begin(), devices.end(), stem) != devices.end()
               ? "Windows keeps this name for a device: choose another"
               : "";
}

static Job ReadJob(Reading &reading, const Value &table)
{
    Job job;
    job.name = table.name;
    RefuseUnknownKeys(reading, table, JobKeys());
    ReadWhatToImage(reading, table, job);
    RequireKey(reading, table, "folder", "where the images go");
    const Value folder = Member(table, "folder");
    job.folder = PathForKestrix(reading, folder, TextOf(reading, folder));
    const FileSystemName mustBe = ReadFileSystem(reading, Member(table, "folder-must-be"));
    job.fileSystemUuid = mustBe.uuid;
    job.fileSystemSource = mustBe.source;
    job.folderWithoutLocks = TruthOf(reading, Member(table, "folder-without-locks"));
    ReadPasswordFile(reading, Member(table, "password-file"), job);
    job.everySeconds = DurationOf(reading, Member(table, "every"), job.everySeconds);
    job.base = IsSecondWord(reading, Member(table, "base"), "full", "newest") ? BaseScheme::Newest : BaseScheme::Full;
    job.newFull = ReadNewFull(reading, Member(table, "new-full"));
    job.keep = ReadKeep(reading, Member(table, "keep"));
    job.check = ReadCheck(reading, Member(table, "check"));
    ReadCopies(reading, Member(table, "copies"), job, Member(table, "password-file").node != nullptr);
    job.before = ReadHook(reading, Member(table, "before"));
    job.after = ReadHook(reading, Member(table, "after"));
    job.onSuccess = ReadHook(reading, Member(table, "on-success"));
    job.onFailure = ReadHook(reading, Member(table, "on-failure"));
    return job;
}

namespace
{

// What the jobs read so far have taken, and who took it: the dotted key of each.
struct Taken {
    std::map<std::string, std::string> names;  // lowered
    std::map<std::string, std::string> places; // of images and copies
};

} // namespace

static void TakePlace(Reading &reading, const Value &value, const std::string &place, Taken &taken)
{
    const auto [first, isNew] = taken.places.emplace(place, value.key);
    if (!isNew) {
        AddFault(reading, value, first->second + " is this place already: give each a folder of its own");
    }
}

static void TakePlaces(Reading &reading, const Value &table, const Job &job, Taken &taken)
{
    if (!job.folder.empty()) {
        TakePlace(reading, Member(table, "folder"), PlaceText(job.folder, reading.rules), taken);
    }
    if (job.copies.empty()) {
        return;
    }
    const std::vector<Value> items = ItemsOf(Member(table, "copies"));
    for (size_t i = 0; i < items.size() && items.size() == job.copies.size(); ++i) {
        const CopyPlace &copy = job.copies[i];
        if (!copy.folder.empty() || !copy.rclone.empty()) {
            TakePlace(reading, Member(items[i], "to"),
                      copy.folder.empty() ? "rclone:" + copy.rclone : PlaceText(copy.folder, reading.rules), taken);
        }
    }
}

static void ReadNamedJob(Reading &reading, const Value &value, Taken &taken)
{
    const std::string fault = JobNameFault(value.name);
    if (!fault.empty()) {
        AddFault(reading, value, fault);
    }
    const auto [first, isNew] = taken.names.emplace(Lowered(value.name), value.key);
    if (!isNew) {
        AddFault(reading, value,
                 first->second + " has this name but for capital letters, which Windows does not tell apart");
    }
    if (Is(reading, value, toml::node_type::table)) {
        reading.configuration.jobs.push_back(ReadJob(reading, value));
        TakePlaces(reading, value, reading.configuration.jobs.back(), taken);
    }
}

static void ReadJobs(Reading &reading, const toml::table &root)
{
    static const KnownKeys known = {"the file itself", {"job"}};
    RefuseUnknownKeys(reading, RootOf(root), known);
    const Value jobs = Member(RootOf(root), "job");
    if (jobs.node == nullptr || (jobs.node->is_table() && jobs.node->as_table()->empty())) {
        AddFault(reading, {nullptr, "job", jobs.node == nullptr ? 1 : jobs.line, ""},
                 "there is no job: the first begins with a line like [job.server]");
        return;
    }
    if (!Is(reading, jobs, toml::node_type::table)) {
        return;
    }
    Taken taken;
    for (const Value &job : MembersOf(jobs)) {
        ReadNamedJob(reading, job, taken);
    }
}

// ---- All of it ----

static Reading ReadText(const std::string &text, host::PathRules rules)
{
    Reading reading;
    reading.rules = rules;
    if (!CheckText(reading, text)) {
        return reading;
    }
    const toml::parse_result parsed = toml::parse(std::string_view(text));
    if (parsed) {
        ReadJobs(reading, parsed.table());
    } else {
        AddParserFault(reading, text, parsed.error());
    }
    return reading;
}

static std::string FaultText(const Fault &fault, const std::string &path)
{
    return path + (fault.line == 0 ? "" : ":" + std::to_string(fault.line)) + ": " +
           (fault.key.empty() ? "" : fault.key + ": ") + fault.sentence;
}

static ReadingResult Finish(Reading &reading, const std::string &path)
{
    ReadingResult result;
    std::stable_sort(reading.faults.begin(), reading.faults.end(),
                     [](const Fault &left, const Fault &right) { return left.line < right.line; });
    for (size_t i = 0; i < std::min(reading.faults.size(), mostFaults); ++i) {
        result.faults.push_back(FaultText(reading.faults[i], path));
    }
    if (reading.faults.size() > mostFaults) {
        result.faults.push_back(path + ": and " + Counted(reading.faults.size() - mostFaults, "fault") + " more");
    }
    result.configuration = std::move(reading.configuration);
    return result;
}

ReadingResult ParseConfiguration(const std::string &text, const std::string &path, host::PathRules rules)
{
    Reading reading = ReadText(text, rules);
    return Finish(reading, path);
}

// One byte more than there may be is enough to refuse it.
static host::Trouble ReadConfigurationFile(const std::string &path, std::string *text)
{
    host::Source source;
    if (host::Trouble trouble = host::CheckTrusted(path)) {
        return trouble;
    }
    if (host::Trouble trouble = host::OpenFileToRead(path, host::Caching::Cached, &source)) {
        return trouble;
    }
    text->resize(std::min<uint64_t>(source.sizeBytes, largestFile + 1));
    return text->empty() ? host::Trouble() : host::ReadAt(source, 0, text->data(), text->size());
}

ReadingResult ReadConfiguration(const std::string &path)
{
    std::string text;
    if (const host::Trouble trouble = ReadConfigurationFile(path, &text)) {
        return {{}, {path + ": " + *trouble}};
    }
    Reading reading = ReadText(text, host::OwnPathRules());
    for (const ReliedOn &file : reading.reliedOn) {
        if (const host::Trouble trouble =
                file.isSecret ? host::CheckSecret(file.path) : host::CheckTrusted(file.path)) {
            reading.faults.push_back({file.line, file.key, *trouble});
        }
    }
    return Finish(reading, path);
}

std::string DefaultConfigurationPath()
{
    return host::ConfigurationFolder() + "keep.toml";
}
