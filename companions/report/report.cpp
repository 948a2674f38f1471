// Lines, JSON and the progress bar.
#include "report/report.h"

#include "host/host.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

const char *programName = "";

// ---- Words ----

std::string Printable(const std::string &text)
{
    return host::PrintableText(text);
}

std::string SizeText(uint64_t bytes)
{
    static const char *const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return Counted(bytes, "byte");
    }
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(units)) {
        value /= 1024;
        ++unit;
    }
    char text[64];
    snprintf(text, sizeof(text), "%.2f %s", value, units[unit]);
    return text;
}

std::string HexText(const uint8_t *bytes, size_t byteCount)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < byteCount; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

std::string IdText(const ImageId &id)
{
    return HexText(id.data(), id.size());
}

std::string Counted(uint64_t count, const char *singular)
{
    return std::to_string(count) + " " + singular + (count == 1 ? "" : "s");
}

void PrintLine(const std::string &line)
{
    const std::string text = Printable(line) + "\n";
    fwrite(text.data(), 1, text.size(), stdout);
}

void PrintFault(const std::string &text)
{
    const std::string line = std::string(programName) + ": " + Printable(text) + "\n";
    fwrite(line.data(), 1, line.size(), stderr);
}

void AddSentence(std::vector<std::string> &sentences, const std::string &sentence)
{
    constexpr size_t mostSentences = 1000;
    const bool isKnown = std::find(sentences.begin(), sentences.end(), sentence) != sentences.end();
    if (!isKnown && sentences.size() < mostSentences) {
        sentences.push_back(sentences.size() + 1 == mostSentences ? "and more, which is not told one by one"
                                                                  : sentence);
    }
}

bool FlushOutput()
{
    return fflush(stdout) == 0 && ferror(stdout) == 0;
}

// ---- JSON ----

JsonOutput::JsonOutput(bool isWanted) : wanted(isWanted)
{
    if (wanted) {
        Begin('{');
    }
}

JsonOutput::~JsonOutput()
{
    while (!open.empty()) {
        End();
    }
    if (wanted) {
        fputs("\n", stdout);
    }
}

static std::string Dump(const Json &value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void JsonOutput::Separate(const char *name)
{
    fputs(filled.back() ? ",\n" : "\n", stdout);
    fputs(std::string(open.size(), ' ').c_str(), stdout);
    if (name != nullptr) {
        fputs((Dump(name) + ": ").c_str(), stdout);
    }
    filled.back() = true;
}

void JsonOutput::Member(const char *name, const Json &value)
{
    if (wanted) {
        const std::string text = Dump(value); // which may find no memory
        Separate(name);
        fputs(text.c_str(), stdout);
    }
}

void JsonOutput::Begin(char bracket)
{
    fputc(bracket, stdout);
    open.push_back(bracket == '[' ? ']' : '}');
    filled.push_back(false);
}

void JsonOutput::BeginList(const char *name)
{
    if (wanted) {
        Separate(name);
        Begin('[');
    }
}

void JsonOutput::Item(const Json &value)
{
    if (wanted) {
        const std::string text = Dump(value);
        Separate(nullptr);
        fputs(text.c_str(), stdout);
    }
}

void JsonOutput::BeginItem()
{
    if (wanted) {
        Separate(nullptr);
        Begin('{');
    }
}

void JsonOutput::End()
{
    if (wanted) {
        fputc(open.back(), stdout);
        open.pop_back();
        filled.pop_back();
    }
}

// ---- Progress ----

static std::string TimeText(double seconds)
{
    const auto whole = static_cast<uint64_t>(seconds);
    char text[64];
    snprintf(text, sizeof(text), "%" PRIu64 ":%02" PRIu64 ":%02" PRIu64, whole / 3600, whole / 60 % 60, whole % 60);
    return text;
}

static std::string RateText(double rate, Unit unit)
{
    char text[64];
    snprintf(text, sizeof(text), unit == Unit::Bytes ? "%.1f MiB/s" : "%.1f files/s",
             unit == Unit::Bytes ? rate / 1048576 : rate);
    return text;
}

std::string ProgressLine(const std::string &title, uint64_t done, uint64_t total, double seconds, uint32_t columns,
                         Unit unit)
{
    constexpr uint32_t barWidth = 20;
    const double share = total == 0 ? 1 : static_cast<double>(done) / static_cast<double>(total);
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    const double left = rate > 0 ? static_cast<double>(total - std::min(total, done)) / rate : 0;
    const auto filled = static_cast<size_t>(std::min(1.0, share) * barWidth);
    char percent[32];
    snprintf(percent, sizeof(percent), "] %3.0f %%  ", share * 100);
    std::string line = "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + percent +
                       RateText(rate, unit) + "  " + (rate > 0 ? TimeText(left) : "-:--:--") + " left  " +
                       Printable(title);
    return line.substr(0, columns);
}

Progress::Progress(bool isWanted, const std::string &titleToShow, uint64_t totalToDo, Unit unitOfTotal)
    : columns(isWanted ? host::ErrorTerminalColumns() : 0), title(titleToShow), total(totalToDo), unit(unitOfTotal),
      begin(std::chrono::steady_clock::now()), shown(begin)
{
}

Progress::~Progress()
{
    Hide();
}

void Progress::Hide()
{
    if (columns != 0) {
        fprintf(stderr, "\r%s\r", std::string(columns - 1, ' ').c_str());
    }
    columns = 0;
}

void Progress::Add(uint64_t amount)
{
    constexpr auto pause = std::chrono::milliseconds(200);
    const uint64_t doneNow = done += amount;
    const std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
    const auto now = std::chrono::steady_clock::now();
    if (columns == 0 || !lock.owns_lock() || now - shown < pause) {
        return;
    }
    shown = now;
    const double seconds = std::chrono::duration<double>(now - begin).count();
    fprintf(stderr, "\r%s", ProgressLine(title, doneNow, total, seconds, columns - 1, unit).c_str());
    fflush(stderr);
}
