// Paths of image files: narrow strings as the user typed them.
#pragma once

#include <string>

// path for CreateFileW: each byte becomes one unit, with its sign and without a code page, so only plain ASCII names
// the file that was typed on every system.
std::wstring WidenPath(const std::string &path);

// path up to and including its last \ or /, or empty when it has neither. A colon is no separator.
std::string ParentFolder(const std::string &path);

// Two paths made absolute and tidy, without a look at what they name. Fatal if either can't be.
struct ResolvedPaths {
    std::string first;
    std::string second;
};
ResolvedPaths ResolvePaths(const std::string &first, const std::string &second);

// What stands behind the ParentFolder of path.
std::string BareFileName(const std::string &path);
