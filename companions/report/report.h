// How the companions speak: lines for a person, JSON, faults, progress.
#pragma once

#include "image/image_format.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

using Json = nlohmann::ordered_json;

// ---- Words ----

// Text for a terminal: what could steer one is replaced.
std::string Printable(const std::string &text);

// "1.50 GiB"; and the same with the exact count behind it.
std::string SizeText(uint64_t bytes);

std::string HexText(const uint8_t *bytes, size_t byteCount);
std::string IdText(const ImageId &id);

// "1 chunk", "2 chunks".
std::string Counted(uint64_t count, const char *singular);

// The program's name, as its lines on the error stream begin with it. Set first of all.
extern const char *programName;

// Prints a line, which is made printable, to standard output, or to the error stream with the program's name in front.
void PrintLine(const std::string &line);
void PrintFault(const std::string &text);

// Adds a sentence to those that are told of a run, once. There are no more than a thousand: the last one then says so.
void AddSentence(std::vector<std::string> &sentences, const std::string &sentence);

// False if not everything that was printed has arrived.
bool FlushOutput();

// ---- JSON ----

// One JSON object on standard output, member by member, so that a long list takes no memory. Does nothing unless it is
// wanted. Bytes that are no UTF-8 are replaced.
struct JsonOutput {
    explicit JsonOutput(bool isWanted);
    JsonOutput(const JsonOutput &) = delete;
    JsonOutput &operator=(const JsonOutput &) = delete;
    ~JsonOutput(); // ends the object, and all that is open in it

    void Member(const char *name, const Json &value);
    void BeginList(const char *name); // a member that is a list
    void Item(const Json &value);
    void BeginItem(); // an item that is an object
    void End();       // of what was begun last

    void Begin(char bracket);
    void Separate(const char *name); // from what stands before, with the member's name or null

    bool wanted;
    std::vector<char> open;   // what ends each level
    std::vector<bool> filled; // whether the level has something in it
};

// ---- Progress ----

// What progress is counted in.
enum class Unit { Bytes, Files };

// A bar on the error stream, where that is a terminal and the bar is wanted. Any thread may add to it.
struct Progress {
    Progress(bool isWanted, const std::string &titleToShow, uint64_t totalToDo, Unit unitOfTotal = Unit::Bytes);
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    ~Progress();

    void Add(uint64_t amount);
    void Hide(); // takes the bar away; whoever prints calls it before

    uint32_t columns = 0; // 0: nothing is shown
    std::string title;
    uint64_t total = 0;
    Unit unit = Unit::Bytes;
    std::atomic<uint64_t> done = 0;
    std::chrono::steady_clock::time_point begin;
    std::mutex mutex;
    std::chrono::steady_clock::time_point shown;
};

// The line that such a bar shows: at most columns characters.
std::string ProgressLine(const std::string &title, uint64_t done, uint64_t total, double seconds, uint32_t columns,
                         Unit unit = Unit::Bytes);
