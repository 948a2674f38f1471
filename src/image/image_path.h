// Paths of image files: narrow strings as the user typed them.
#pragma once

#include <string>

// path for CreateFileW: each byte becomes one unit, with its sign and without a code page, so only plain ASCII names
// the file that was typed on every system.
std::wstring WidenPath(const std::string &path);

// path up to and including its last \ or /, or empty when it has neither. A colon is no separator.
std::string ParentFolder(const std::string &path);

// What stands behind the ParentFolder of path.
std::string BareFileName(const std::string &path);
