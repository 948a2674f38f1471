// Passwords, and the life of an image's key. Each sealed image has one key of its own, from a password file and the
// image's salt and iteration count. No image holds anything to tell a right password from a wrong one.
#pragma once

#include "crypto/primitives.h"
#include "image/image_format.h"

#include <optional>
#include <string>

// The bytes of the file at path without the CR and LF bytes at its end; nothing else is taken off or understood. Fatal
// if the file does not open or nothing is left. A read error counts as the end of the file.
std::string ReadPasswordFile(const std::string &path);

// For an image about to be written: draws header.salt, sets header.kdfIterations and fills key from the password file.
// Failures are fatal.
void MakeKeyOfNewImage(ImageHeader &header, const std::string &passwordFile, std::optional<GcmKey> &key);

// For a sealed image being opened: fills key from the password file and the header's salt and count as they stand. An
// empty path, and every other failure, is fatal.
void MakeKeyOfImage(const ImageHeader &header, const std::string &passwordFile, std::optional<GcmKey> &key);
