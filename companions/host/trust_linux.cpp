// Who can change a file, by owners and modes.
//
// The way to a file is gone part by part, from the root, as the system would go it: what a link leads to is gone the
// same way. Each folder, link and file on it has to be root's or the user's own, and a folder or file must not be
// writable for a group or for everyone. In a sticky folder others may make files, but not replace what is another's.
//
// Access lists of POSIX need no look of their own: where there is one, the mode's bits of the group are its mask, which
// bounds what it gives to any other user or group. Lists of other kinds, as NFS has them, don't show in the mode.
#include "host/open_handle_linux.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <deque>
#include <filesystem>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host
{

static constexpr int mostLinks = 40; // as the system has it

namespace
{

// The way that is left, and where it has come to: a path without links.
struct Way {
    std::deque<std::string> parts;
    std::string place; // empty: the root
    int links = 0;
};

} // namespace

PathRules OwnPathRules()
{
    return PathRules::Linux;
}

std::string ConfigurationFolder()
{
    return "/etc/kestrix/";
}

static bool IsTrustedUser(uid_t user)
{
    return user == 0 || user == geteuid();
}

static std::string UserText(uid_t user)
{
    const passwd *entry = getpwuid(user);
    return entry == nullptr ? "the user " + std::to_string(user) : std::string("the user ") + entry->pw_name;
}

static std::string GroupText(gid_t group)
{
    const struct group *entry = getgrgid(group);
    return entry == nullptr ? "the group " + std::to_string(group) : std::string("the group ") + entry->gr_name;
}

static Trouble CheckOwner(const std::string &path, const struct stat &found)
{
    if (IsTrustedUser(found.st_uid)) {
        return {};
    }
    return UserText(found.st_uid) + " owns " + path + " and can change it: chown " +
           (S_ISLNK(found.st_mode) ? "-h " : "") + "root " + path;
}

// Who has one of the rights of others that mode names, as group bit and bit of everyone; empty: nobody.
static std::string WhoHas(const struct stat &found, mode_t groupBit, mode_t everyoneBit)
{
    if ((found.st_mode & everyoneBit) != 0) {
        return "every user";
    }
    return (found.st_mode & groupBit) != 0 ? GroupText(found.st_gid) + ", or whom its access list names," : "";
}

static Trouble CheckMode(const std::string &path, const struct stat &found)
{
    const std::string who = WhoHas(found, S_IWGRP, S_IWOTH);
    if (who.empty()) {
        return {};
    }
    return who + " can change " + (S_ISDIR(found.st_mode) ? "the folder " : "") + path + ": chmod go-w " + path;
}

static void PutInFront(Way &way, const std::string &path)
{
    std::deque<std::string> parts;
    std::string part;
    for (const char c : path + "/") {
        if (c != '/') {
            part += c;
            continue;
        }
        if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        part.clear();
    }
    way.parts.insert(way.parts.begin(), parts.begin(), parts.end());
    if (!path.empty() && path.front() == '/') {
        way.place.clear();
    }
}

static Trouble FollowLink(Way &way, const std::string &link)
{
    char target[PATH_MAX] = {};
    const ssize_t length = readlink(link.c_str(), target, sizeof(target) - 1);
    if (length < 0) {
        return link + " can't be looked at: " + SystemText(errno);
    }
    if (++way.links > mostLinks) {
        return link + " can't be looked at: " + SystemText(ELOOP);
    }
    PutInFront(way, std::string(target, static_cast<size_t>(length)));
    return {};
}

// One step, and what it came to.
static Trouble Go(Way &way, struct stat *found)
{
    if (!way.parts.empty() && way.parts.front() == "..") {
        way.parts.pop_front();
        way.place.erase(std::min(way.place.size(), way.place.rfind('/')));
        return {}; // the way has been there
    }
    const std::string next = way.parts.empty() ? "/" : way.place + "/" + way.parts.front();
    if (lstat(next.c_str(), found) != 0) {
        return next + " can't be looked at: " + SystemText(errno);
    }
    if (Trouble trouble = CheckOwner(next, *found)) {
        return trouble;
    }
    const bool isStickyFolder = S_ISDIR(found->st_mode) && (found->st_mode & S_ISVTX) != 0;
    if (!S_ISLNK(found->st_mode) && !isStickyFolder) { // a link has no mode of its own
        if (Trouble trouble = CheckMode(next, *found)) {
            return trouble;
        }
    }
    if (!way.parts.empty()) {
        way.parts.pop_front();
    }
    if (S_ISLNK(found->st_mode)) {
        return FollowLink(way, next);
    }
    way.place = next == "/" ? "" : next;
    return {};
}

static Trouble BeginWay(const std::string &path, Way *way)
{
    char folder[PATH_MAX] = {};
    PutInFront(*way, path);
    if (path.empty() || path.front() != '/') {
        if (getcwd(folder, sizeof(folder)) == nullptr) {
            return "the current folder can't be told: " + SystemText(errno);
        }
        PutInFront(*way, folder);
    }
    return {};
}

// What lies at the end of the way, all of which is trusted.
static Trouble FindTrusted(const std::string &path, std::string *place, struct stat *found)
{
    Way way;
    if (Trouble trouble = Go(way, found)) { // the root, at which every way begins
        return trouble;
    }
    if (Trouble trouble = BeginWay(path, &way)) {
        return trouble;
    }
    while (!way.parts.empty()) {
        if (Trouble trouble = Go(way, found)) {
            return trouble;
        }
    }
    *place = way.place.empty() ? "/" : way.place;
    if (stat(place->c_str(), found) != 0) {
        return *place + " can't be looked at: " + SystemText(errno);
    }
    return {};
}

static Trouble FindTrustedFile(const std::string &path, std::string *place, struct stat *found)
{
    if (Trouble trouble = FindTrusted(path, place, found)) {
        return trouble;
    }
    return S_ISREG(found->st_mode) ? Trouble() : *place + " is no ordinary file";
}

Trouble CheckTrustedFolder(const std::string &path)
{
    std::string place;
    struct stat found = {};
    if (Trouble trouble = FindTrusted(path, &place, &found)) {
        return trouble;
    }
    return S_ISDIR(found.st_mode) ? Trouble() : place + " is no folder";
}

Trouble CheckTrusted(const std::string &path)
{
    std::string place;
    struct stat found = {};
    return FindTrustedFile(path, &place, &found);
}

Trouble CheckTrustedTree(const std::string &path)
{
    if (Trouble trouble = CheckTrustedFolder(path)) {
        return trouble;
    }
    struct stat found = {};
    std::error_code error;
    std::filesystem::directory_iterator entry(path, error);
    if (error || stat(path.c_str(), &found) != 0) {
        return path + " can't be looked at: " + (error ? error.message() : SystemText(errno));
    }
    if (Trouble trouble = CheckMode(path, found)) { // sticky or not: what is added counts, too
        return trouble;
    }
    while (entry != std::filesystem::directory_iterator()) {
        const std::string one = entry->path().string();
        const bool isFolder = lstat(one.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
        if (Trouble trouble = isFolder ? CheckTrustedTree(one) : CheckTrusted(one)) {
            return trouble;
        }
        if (entry.increment(error); error) {
            return path + " can't be looked at: " + error.message();
        }
    }
    return {};
}

Trouble CheckSecret(const std::string &path)
{
    std::string place;
    struct stat found = {};
    if (Trouble trouble = FindTrustedFile(path, &place, &found)) {
        return trouble;
    }
    const std::string who = WhoHas(found, S_IRGRP, S_IROTH);
    return who.empty() ? Trouble() : who + " can read " + place + ": chmod go-r " + place;
}

} // namespace host
