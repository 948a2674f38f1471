// A conversation: lines that are said, and questions that have an answer or end it.
#pragma once

#include "host/host.h"

#include <optional>
#include <string>
#include <vector>

struct Conversation {
    bool speaks = true; // prints each line as it comes
    bool asks = true;   // false: nobody is there to answer
    std::vector<std::string> lines;
    std::string ended; // why it has come to its end, as words; empty: it goes on
};

// Says a line, and keeps it for the report.
void Say(Conversation &talk, const std::string &line);

// Asks, and gives the line that was typed, without blanks around it. None: the conversation has ended.
std::optional<std::string> Ask(Conversation &talk, const std::string &question);

// The same without echo, and with every blank.
std::optional<std::string> AskSecret(Conversation &talk, const std::string &question);

// Asks until the answer is one of those that are allowed. There is no answer that is taken for another.
std::optional<std::string> Choose(Conversation &talk, const std::string &question,
                                  const std::vector<std::string> &allowed);

// "1" to "count".
std::vector<std::string> NumbersUpTo(size_t count);
