// Text that came from elsewhere, made fit to be shown.
#include "host/host.h"

#include <algorithm>

namespace host
{

// Bytes of the UTF-8 sequence that text has at i; 0 if there is none that is well formed (RFC 3629).
size_t SequenceAt(const std::string &text, size_t i)
{
    const auto byteAt = [&text](size_t k) { return k < text.size() ? static_cast<unsigned char>(text[k]) : 0U; };
    const unsigned int first = byteAt(i);
    const size_t length = first < 0x80   ? 1
                          : first < 0xC2 ? 0
                          : first < 0xE0 ? 2
                          : first < 0xF0 ? 3
                          : first < 0xF5 ? 4
                                         : 0;
    for (size_t k = 1; k < length; ++k) {
        if ((byteAt(i + k) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const unsigned int second = byteAt(i + 1);
    const bool isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool isNoCharacter = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    return isOverlong || isNoCharacter ? 0 : length;
}

std::string PrintableText(const std::string &text)
{
    std::string printable;
    for (size_t i = 0; i < text.size();) {
        const size_t length = SequenceAt(text, i);
        const auto first = static_cast<unsigned char>(text[i]);
        const bool isControl =
            (length == 1 && (first < 0x20 || first == 0x7F)) ||
            (length == 2 && first == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0); // U+0080 to U+009F
        const size_t step = std::max<size_t>(length, 1);
        printable += length == 0 || isControl ? std::string(step, '?') : text.substr(i, length);
        i += step;
    }
    return printable;
}

std::string FieldText(const std::string &bytes)
{
    static const char whiteSpace[] = " \t\n\v\f\r";
    const std::string text = bytes.substr(0, bytes.find('\0'));
    const size_t first = text.find_first_not_of(whiteSpace);
    return first == std::string::npos
               ? std::string()
               : PrintableText(text.substr(first, text.find_last_not_of(whiteSpace) + 1 - first));
}

} // namespace host
