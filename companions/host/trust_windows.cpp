// Who can change a file, by owners and access lists.
//
// Each folder on the way, and the file, has to belong to those who administrate the machine, and its list must give
// nobody else a right to change it or to put something else in its place. What a list denies is left out of account.
// Making new files in a folder replaces none that is there; only beside a program it counts, which would load them.
//
// A link on the way is refused: what is checked is then what is opened.
#include "host/open_handle_windows.h"

#include <aclapi.h>
#include <sddl.h>
#include <shlobj.h>

#include <algorithm>
#include <filesystem>

namespace host
{

namespace
{

struct FreeLocal {
    void operator()(void *memory) const
    {
        LocalFree(memory);
    }
};

// Of a file or folder: what its owner and list point into.
struct Security {
    std::unique_ptr<void, FreeLocal> memory;
    PSID owner = nullptr;
    PACL list = nullptr; // none: everyone has every right
};

} // namespace

// What changes a file, or takes it away.
static constexpr DWORD changingFile =
    FILE_WRITE_DATA | FILE_APPEND_DATA | DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
// What takes an entry out of a folder, or the folder away.
static constexpr DWORD changingFolder = FILE_DELETE_CHILD | DELETE | WRITE_DAC | WRITE_OWNER | GENERIC_ALL;
static constexpr DWORD addingFile = FILE_ADD_FILE | GENERIC_WRITE;
static constexpr DWORD readingFile = FILE_READ_DATA | GENERIC_READ | GENERIC_ALL;

static constexpr wchar_t installer[] = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

PathRules OwnPathRules()
{
    return PathRules::Windows;
}

// The environment could name another one.
std::string ConfigurationFolder()
{
    wchar_t folder[MAX_PATH] = {};
    if (SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder) != S_OK) {
        return "C:\\ProgramData\\Kestrix\\";
    }
    return Narrow(folder) + "\\Kestrix\\";
}

// ---- Accounts ----

static bool IsAccount(PSID account, const wchar_t *text)
{
    PSID other = nullptr;
    if (!ConvertStringSidToSidW(text, &other)) {
        return false;
    }
    const std::unique_ptr<void, FreeLocal> memory(other);
    return EqualSid(account, other) != 0;
}

static bool RunsAsAdministrator()
{
    BOOL isMember = FALSE;
    BYTE account[SECURITY_MAX_SID_SIZE] = {};
    DWORD byteCount = sizeof(account);
    return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, account, &byteCount) &&
           CheckTokenMembership(nullptr, account, &isMember) && isMember;
}

static bool IsOwnAccount(PSID account)
{
    HANDLE token = nullptr;
    alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE] = {};
    DWORD byteCount = 0;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        return false;
    }
    const bool isKnown = GetTokenInformation(token, TokenUser, user, sizeof(user), &byteCount) != 0;
    CloseHandle(token);
    return isKnown && EqualSid(account, reinterpret_cast<const TOKEN_USER *>(user)->User.Sid) != 0;
}

// What an administrator's own account may change is not trusted: the next run may be another's, or SYSTEM's, and would
// say so only then.
static bool IsTrusted(PSID account)
{
    return IsWellKnownSid(account, WinBuiltinAdministratorsSid) || IsWellKnownSid(account, WinLocalSystemSid) ||
           IsAccount(account, installer) || (!RunsAsAdministrator() && IsOwnAccount(account));
}

static std::string AccountNumber(PSID account)
{
    wchar_t *text = nullptr;
    if (!ConvertSidToStringSidW(account, &text)) {
        return "unknown";
    }
    const std::unique_ptr<void, FreeLocal> memory(text);
    return Narrow(text);
}

static std::string AccountText(PSID account)
{
    wchar_t name[256] = {};
    wchar_t domain[256] = {};
    DWORD nameUnits = 256;
    DWORD domainUnits = 256;
    SID_NAME_USE use = SidTypeUnknown;
    if (!LookupAccountSidW(nullptr, account, name, &nameUnits, domain, &domainUnits, &use)) {
        return "the account " + AccountNumber(account);
    }
    return Narrow(domain) + (domain[0] == L'\0' ? "" : "\\") + Narrow(name);
}

// ---- One file or folder ----

static Trouble SecurityOf(const std::string &path, Security *security)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    const DWORD error = GetNamedSecurityInfoW(Widen(path).c_str(), SE_FILE_OBJECT,
                                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &security->owner,
                                              nullptr, &security->list, nullptr, &descriptor);
    security->memory.reset(descriptor);
    if (error != ERROR_SUCCESS) {
        return path + " can't be looked at: " + SystemText(error);
    }
    return {};
}

static Trouble CheckOwner(const std::string &path, PSID owner)
{
    if (owner != nullptr && IsTrusted(owner)) {
        return {};
    }
    return (owner == nullptr ? "nobody known" : AccountText(owner)) + " owns " + path +
           " and can change it: icacls \"" + path + "\" /setowner *S-1-5-32-544";
}

static Trouble RightText(const std::string &path, const std::string &who, const char *what, const std::string &account)
{
    return who + " can " + what + " " + path + ": icacls \"" + path + "\" /inheritance:d, and then icacls \"" + path +
           "\" /remove:g *" + account;
}

// The trouble of the first entry that gives one of the rights to somebody who is not trusted.
static Trouble CheckList(const std::string &path, PACL list, DWORD rights, const char *what)
{
    if (list == nullptr) {
        return "everyone can " + std::string(what) + " " + path +
               ", which has no access list: keep it on NTFS, and give it one with icacls";
    }
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void *entry = nullptr;
        if (!GetAce(list, i, &entry)) {
            return path + " has an access list that can't be read";
        }
        const auto *header = static_cast<const ACE_HEADER *>(entry);
        const bool denies =
            header->AceType == ACCESS_DENIED_ACE_TYPE || header->AceType == ACCESS_DENIED_CALLBACK_ACE_TYPE;
        if (denies || (header->AceFlags & INHERIT_ONLY_ACE) != 0) {
            continue;
        }
        if (header->AceType != ACCESS_ALLOWED_ACE_TYPE && header->AceType != ACCESS_ALLOWED_CALLBACK_ACE_TYPE) {
            return path + " has an entry in its access list whose kind is not known";
        }
        auto *allowed = static_cast<ACCESS_ALLOWED_ACE *>(entry);
        PSID account = &allowed->SidStart;
        const bool isOwner = IsWellKnownSid(account, WinCreatorOwnerRightsSid) != 0; // who was looked at
        if ((allowed->Mask & rights) != 0 && !isOwner && !IsTrusted(account)) {
            return RightText(path, AccountText(account), what, AccountNumber(account));
        }
    }
    return {};
}

static bool IsLink(const std::string &path)
{
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW(Widen(path).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return false; // the root of a drive, or what the next call tells of
    }
    FindClose(search);
    return (found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && IsReparseTagNameSurrogate(found.dwReserved0);
}

static Trouble CheckOne(const std::string &path, DWORD rights, const char *what)
{
    Security security;
    if (IsLink(path)) {
        return path + " is a link: name the place that it leads to";
    }
    if (Trouble trouble = SecurityOf(path, &security)) {
        return trouble;
    }
    if (Trouble trouble = CheckOwner(path, security.owner)) {
        return trouble;
    }
    return CheckList(path, security.list, rights, what);
}

// ---- The way to a file ----

// Absolute, and without dots and slashes.
static Trouble FullPath(const std::string &path, std::string *full)
{
    wchar_t buffer[32768] = {};
    const DWORD units = GetFullPathNameW(Widen(path).c_str(), 32768, buffer, nullptr);
    if (units == 0 || units >= 32768) {
        return path + " can't be looked at: " + SystemText(units == 0 ? GetLastError() : ERROR_FILENAME_EXCED_RANGE);
    }
    *full = Narrow(buffer);
    return {};
}

static bool IsProgram(const std::string &path)
{
    std::string ending = path.substr(std::min(path.size(), path.find_last_of('.')));
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return ending == ".exe" || ending == ".com" || ending == ".bat" || ending == ".cmd";
}

// The folders that path lies in, the outermost first: C:\ or \\server\share\ and so on.
static std::vector<std::string> FoldersOf(const std::string &path)
{
    std::vector<std::string> folders;
    const bool isShare = path.compare(0, 2, "\\\\") == 0;
    size_t end = path.find('\\', isShare ? path.find('\\', 2) + 1 : 0);
    for (; end != std::string::npos; end = path.find('\\', end + 1)) {
        folders.push_back(path.substr(0, folders.empty() ? end + 1 : end));
    }
    return folders;
}

static Trouble CheckFolders(const std::string &path)
{
    const std::vector<std::string> folders = FoldersOf(path);
    for (size_t i = 0; i < folders.size(); ++i) {
        const bool isBesideProgram = i + 1 == folders.size() && IsProgram(path);
        if (Trouble trouble =
                CheckOne(folders[i], changingFolder | (isBesideProgram ? addingFile : 0), "change the folder")) {
            return trouble;
        }
    }
    return {};
}

static Trouble CheckWay(const std::string &path, std::string *full)
{
    if (Trouble trouble = FullPath(path, full)) {
        return trouble;
    }
    const DWORD attributes = GetFileAttributesW(Widen(*full).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return *full + " can't be looked at: " + SystemText(GetLastError());
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return *full + " is no ordinary file";
    }
    if (Trouble trouble = CheckFolders(*full)) {
        return trouble;
    }
    return CheckOne(*full, changingFile, "change");
}

Trouble CheckTrusted(const std::string &path)
{
    std::string full;
    return CheckWay(path, &full);
}

static Trouble CheckTree(const std::string &folder)
{
    if (Trouble trouble = CheckOne(folder, changingFolder | addingFile, "change the folder")) {
        return trouble;
    }
    std::error_code error;
    std::filesystem::directory_iterator entry(Widen(folder), error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        const std::string one = Narrow(entry->path().c_str());
        const DWORD attributes = GetFileAttributesW(Widen(one).c_str());
        const bool isFolder =
            attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && !IsLink(one);
        if (Trouble trouble = isFolder ? CheckTree(one) : CheckOne(one, changingFile, "change")) {
            return trouble;
        }
        entry.increment(error);
    }
    return error ? Trouble(folder + " can't be looked at: " + SystemText(static_cast<DWORD>(error.value())))
                 : Trouble();
}

Trouble CheckTrustedTree(const std::string &path)
{
    std::string full;
    if (Trouble trouble = FullPath(path, &full)) {
        return trouble;
    }
    if (Trouble trouble = CheckFolders(full)) {
        return trouble;
    }
    return CheckTree(full);
}

Trouble CheckSecret(const std::string &path)
{
    Security security;
    std::string full;
    if (Trouble trouble = CheckWay(path, &full)) {
        return trouble;
    }
    if (Trouble trouble = SecurityOf(full, &security)) {
        return trouble;
    }
    return CheckList(full, security.list, readingFile, "read");
}

} // namespace host
