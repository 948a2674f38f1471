// Reading a password and turning it into a key.
//
// The 32 raw key bytes live in one local buffer from the derivation to the wipe right behind the making of the key. The
// wipe goes through a volatile pointer, so that no compiler drops it as a dead store. The password string is released
// without a wipe.
#include "crypto/password.h"

#include "cli/console.h"

#include <cstdio>

std::string ReadPasswordFile(const std::string &path)
{
    FILE *file = nullptr;
    if (fopen_s(&file, path.c_str(), "rb") != 0 || file == nullptr) {
        Fatal("could not open password file", 0);
    }
    std::string password;
    char block[256];
    size_t bytesRead = 0;
    while ((bytesRead = fread(block, 1, sizeof(block), file)) != 0) {
        password.append(block, bytesRead);
    }
    fclose(file);
    while (!password.empty() && (password.back() == '\n' || password.back() == '\r')) {
        password.pop_back();
    }
    if (password.empty()) {
        Fatal("password file is empty", 0);
    }
    return password;
}

static void WipeKey(uint8_t *rawKey)
{
    volatile uint8_t *bytes = rawKey;
    for (uint32_t i = 0; i < keyBytes; ++i) {
        bytes[i] = 0;
    }
}

static void MakeKey(const ImageHeader &header, const std::string &passwordFile, std::optional<GcmKey> &key)
{
    const std::string password = ReadPasswordFile(passwordFile);
    uint8_t rawKey[keyBytes];
    DeriveKey(password, header.salt, header.kdfIterations, rawKey);
    key.emplace(rawKey);
    WipeKey(rawKey);
}

void MakeKeyOfNewImage(ImageHeader &header, const std::string &passwordFile, std::optional<GcmKey> &key)
{
    RandomBytes(header.salt, saltBytes);
    header.kdfIterations = newImageIterations;
    MakeKey(header, passwordFile, key);
}

void MakeKeyOfImage(const ImageHeader &header, const std::string &passwordFile, std::optional<GcmKey> &key)
{
    if (passwordFile.empty()) {
        Fatal("this image is encrypted - pass --password-file", 0);
    }
    MakeKey(header, passwordFile, key);
}
