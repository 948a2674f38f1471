// Whatever was said has arrived before a question is shown, since the two may go to different streams.
#include "kestrix-keep/questions.h"

#include "report/report.h"

#include <algorithm>

void Say(Conversation &talk, const std::string &line)
{
    talk.lines.push_back(line);
    if (talk.speaks) {
        PrintLine(line);
        FlushOutput();
    }
}

static std::optional<std::string> AskEither(Conversation &talk, const std::string &question, host::Echo echo)
{
    std::string answer;
    std::string trouble;
    if (!talk.ended.empty()) {
        return std::nullopt;
    }
    if (!talk.asks) {
        talk.ended = "it would have to be asked: " + question;
        return std::nullopt;
    }
    switch (host::AskLine(Printable(question) + " ", echo, &answer, &trouble)) {
    case host::AnswerEnd::Line:
        return answer;
    case host::AnswerEnd::EndOfInput:
        talk.ended = "the input ended before an answer";
        break;
    case host::AnswerEnd::Interrupted:
        talk.ended = "it was interrupted";
        break;
    case host::AnswerEnd::Failed:
        talk.ended = "an answer can't be read: " + trouble;
        break;
    }
    return std::nullopt;
}

std::optional<std::string> Ask(Conversation &talk, const std::string &question)
{
    static const char blanks[] = " \t\r";
    const std::optional<std::string> answer = AskEither(talk, question, host::Echo::Shown);
    if (!answer) {
        return std::nullopt;
    }
    const size_t first = answer->find_first_not_of(blanks);
    return first == std::string::npos ? std::string()
                                      : answer->substr(first, answer->find_last_not_of(blanks) + 1 - first);
}

std::optional<std::string> AskSecret(Conversation &talk, const std::string &question)
{
    return AskEither(talk, question, host::Echo::Hidden);
}

static std::string Listed(const std::vector<std::string> &words)
{
    std::string text;
    for (size_t i = 0; i < words.size(); ++i) {
        text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
    }
    return text;
}

std::optional<std::string> Choose(Conversation &talk, const std::string &question,
                                  const std::vector<std::string> &allowed)
{
    while (std::optional<std::string> answer = Ask(talk, question)) {
        if (std::find(allowed.begin(), allowed.end(), *answer) != allowed.end()) {
            return answer;
        }
        Say(talk, "That is no answer here. " +
                      (allowed.size() > 8 ? "A number from the list is wanted." : Listed(allowed) + " is wanted."));
    }
    return std::nullopt;
}

std::vector<std::string> NumbersUpTo(size_t count)
{
    std::vector<std::string> numbers;
    for (size_t i = 1; i <= count; ++i) {
        numbers.push_back(std::to_string(i));
    }
    return numbers;
}
