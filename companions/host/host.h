// What differs by platform for the programs around the program: reading at an offset, the machine's disks and what they
// are, digest and cipher, who can change a file, files that are durable before they have their name, other programs,
// and the process's surroundings. Each job has a source file of its own for each platform.
//
// Paths and names are UTF-8 on Windows and the user's bytes on Linux. Nothing here ends the process or prints. Memory
// that can't be had is std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace host
{

// What the system said of a call that failed, as words for a person; empty where it did not fail.
using Trouble = std::optional<std::string>;

// ---- Reading at an offset: files_*.cpp ----

// Medium: what is read comes from the disk, not from what the system remembers of it. Cached: from wherever.
enum class Caching { Medium, Cached };

// Two paths with one identity lead to one file.
struct FileIdentity {
    uint64_t volume = 0;
    uint64_t file = 0;
};
bool operator==(const FileIdentity &left, const FileIdentity &right);
bool operator<(const FileIdentity &left, const FileIdentity &right);

struct OpenHandle;
struct CloseOpenHandle {
    void operator()(OpenHandle *handle) const;
};

// An ordinary file or a disk, open for reading. Move-only; closed by its end.
struct Source {
    std::unique_ptr<OpenHandle, CloseOpenHandle> handle;
    uint64_t sizeBytes = 0;
    uint32_t sectorBytes = 512; // of a disk: what its length and its reads are multiples of
    FileIdentity identity;      // of a file
};

// The trouble of a file that another program has open for writing.
constexpr char beingWritten[] = "another program is writing it";

// Opens the ordinary file at path, as long as nobody has it open for writing.
[[nodiscard]] Trouble OpenFileToRead(const std::string &path, Caching caching, Source *source);

// A handle of one's own on what source has open, so that two threads don't wait for one another.
[[nodiscard]] Trouble OpenAgain(const Source &source, Source *again);

// Fills buffer with the byteCount bytes at offsetBytes. Any thread may call it at any time. An end of the file before
// that is a trouble as well; the buffer's content is then undefined.
[[nodiscard]] Trouble ReadAt(const Source &source, uint64_t offsetBytes, void *buffer, size_t byteCount);

// Says that these bytes will be read soon, one after the other. It promises nothing, fails in nothing, and does nothing
// on Windows, where the cache finds that out by itself, and for what is read past the cache.
void Announce(const Source &source, uint64_t offsetBytes, uint64_t byteCount);

// Whether nothing can be read of what source has open, not even its first byte: the medium was pulled, or the way to it
// is cut. To be asked after a read that failed.
bool IsGone(const Source &source);

// Memory for reads, aligned as every disk wants it. Throws std::bad_alloc.
struct FreePages {
    void operator()(uint8_t *pages) const;
};
using Pages = std::unique_ptr<uint8_t[], FreePages>;
Pages MakePages(size_t byteCount);

// The identity of what lies at path.
[[nodiscard]] Trouble IdentityOf(const std::string &path, FileIdentity *identity);

// The names of the ordinary files in a folder, sorted. What a name links to counts.
[[nodiscard]] Trouble ListFiles(const std::string &folder, std::vector<std::string> *names);

// path up to and including its last \ or /, or empty where it has neither; and what stands behind that.
std::string FolderOf(const std::string &path);
std::string NameOf(const std::string &path);

// Where the kestrix of this platform looks for the base of the image at imagePath whose trailer holds baseName.
struct BasePlace {
    std::string path;
    bool exists = false;
};
BasePlace FindBase(const std::string &imagePath, const std::string &baseName);

// Everything that the file at path holds. One that can't be read to its end, or has more than mostSmallBytes, is a
// trouble, and content then undefined.
constexpr size_t mostSmallBytes = size_t{16} << 20;
constexpr char tooLargeText[] = "it has more than 16 MiB";
[[nodiscard]] Trouble ReadSmallFile(const std::string &path, std::string *content);

// ---- The machine's disks: disks_*.cpp ----

// Opens disk number N of the machine that the kestrix beside this program sees, shared with all its users.
[[nodiscard]] Trouble OpenDisk(uint32_t number, Caching caching, Source *source);

// ---- What the disks are: disk_*.cpp, which only the programs that ask are linked with ----
//
// Texts come from disks, file systems and card files, which may hold anything: they are printable here, without white
// space around them, and an empty one is not known.

// A partition, or what lies on a disk itself.
struct PartitionFacts {
    uint32_t number = 0;      // as the table counts from 1; 0 for what lies on the disk itself, in no partition
    uint64_t offsetBytes = 0; // from the disk's start
    uint64_t lengthBytes = 0;
    std::string node;         // what the system calls it; empty where it has no such device
    std::string deviceNumber; // "8:1", as for the disk
    std::string name;         // in the table
    bool isExtended = false;  // it holds other partitions and nothing else
    std::string fileSystem;   // or what else is known to lie there, as libblkid or Windows calls it
    std::string label;
    std::vector<std::string> mounts;  // where it, or what stands on it, is mounted; drive letters on Windows
    std::vector<std::string> holders; // devices of the system that stand on it: volumes, arrays, unlocked containers
    bool isSwap = false;              // in use as swap, itself or what stands on it
    std::string unclear;              // why what lies there can't be told; empty where it can
};

struct DiskFacts {
    uint32_t number = 0; // as kestrix counts
    std::string node;    // what the system calls it
    std::string model;
    std::string serial; // empty: it has none, or doesn't tell it
    std::string wwn;    // its world wide name: "0x" or "eui." and digits
    std::string bus;
    uint64_t sizeBytes = 0;
    uint32_t logicalSectorBytes = 0;  // 0: not known
    uint32_t physicalSectorBytes = 0; // 0: not known
    std::optional<bool> isRemovable;
    bool isSystemDisk = false;              // the running system lies on it, or a part of it does
    bool isInUse = false;                   // something on it is mounted, swap, or under another device
    std::string table;                      // what kind of partition table it has; empty: none, or not known
    std::vector<PartitionFacts> partitions; // by their place
    std::string unreadable; // why it could not be read, as words for a person; what lies on it is then not known

    // What makes sure later that it is still the same one. Each is as the system has it, and empty or 0 elsewhere.
    std::string deviceNumber; // "8:0", the major and minor number of a block device
    uint64_t sequence = 0;    // of a block device: given anew to each that arrives, and to no second one
    FileIdentity file;        // of a disk in a file
};

// Lists the disks of the machine that the kestrix beside this program sees, by their numbers. Looks anew at each call:
// the numbers are those that a kestrix has which starts now, while OpenDisk keeps to those of its first call. A disk
// that can't be read is listed all the same, and says so. Nothing is written.
// A trouble, and no disk: the list can't be had, the disks changed while they were looked at, or a card file beside a
// disk in a folder of disks says what can't be understood.
[[nodiscard]] Trouble ListDisks(std::vector<DiskFacts> *disks);

// What a path leads to at this moment.
struct DeviceAt {
    std::string node;
    std::string deviceNumber;
    std::string diskNumber; // the device number of the disk whose partition it is, or its own
};

// Follows the links of a path below /dev/disk to a block device. A trouble if it leads to none; always one on Windows.
[[nodiscard]] Trouble FollowDeviceLink(const std::string &path, DeviceAt *device);

// ---- Words: text.cpp ----

// Bytes of the UTF-8 sequence that text has at i; 0 if there is none that is well formed (RFC 3629).
size_t SequenceAt(const std::string &text, size_t i);

// Text for a terminal: each control character, and each byte that is no UTF-8, is replaced by a question mark.
std::string PrintableText(const std::string &text);

// A field as disks and file systems hold it: what stands before its first zero byte, without white space around it,
// printable.
std::string FieldText(const std::string &bytes);

// ---- Cryptography: crypto_*.cpp ----

using Digest = std::array<uint8_t, 32>;

struct DigestState;
struct EndDigestState {
    void operator()(DigestState *state) const;
};

// SHA-256, piece by piece. Throws std::bad_alloc where the system has no room for one.
struct Digesting {
    Digesting();
    void Add(const void *data, size_t byteCount);
    Digest Finish(); // once, as the last call

    std::unique_ptr<DigestState, EndDigestState> state;
};

Digest DigestOf(const void *data, size_t byteCount);

// An AES-256 key, wiped at its end.
struct Key {
    Key() = default;
    Key(const Key &) = delete;
    Key &operator=(const Key &) = delete;
    ~Key();

    std::array<uint8_t, 32> bytes = {};
};

// PBKDF2 with HMAC-SHA-256. An iteration count of 0 is a trouble.
[[nodiscard]] Trouble DeriveKey(const std::string &password, const uint8_t (&salt)[16], uint32_t iterations, Key *key);

struct CipherState;
struct EndCipherState {
    void operator()(CipherState *state) const;
};

// AES-256-GCM without additional data over totalBytes bytes, in place and piece by piece; each piece but the last is a
// multiple of 16 bytes. What stands opened in the pieces is not to be trusted before Finish has said so. Throws
// std::bad_alloc where the system has no room for one.
struct Opening {
    Opening(const Key &key, const uint8_t (&nonce)[12], const uint8_t (&tag)[16], uint64_t totalBytes);
    [[nodiscard]] bool Add(uint8_t *piece, size_t byteCount);
    [[nodiscard]] bool Finish(); // true if the tag is that of what was added

    std::unique_ptr<CipherState, EndCipherState> state;
};
struct Sealing {
    Sealing(const Key &key, const uint8_t (&nonce)[12], uint64_t totalBytes);
    [[nodiscard]] bool Add(uint8_t *piece, size_t byteCount);
    [[nodiscard]] bool Finish(uint8_t (&tag)[16]);

    std::unique_ptr<CipherState, EndCipherState> state;
};

// ---- What is trusted: trust_*.cpp ----

// What paths are on a platform. Linux: bytes behind a slash. Windows: a drive or a share first, either separator.
enum class PathRules { Linux, Windows };
PathRules OwnPathRules();

// The folder in which this platform's administrators keep the configuration, with its separator behind it.
std::string ConfigurationFolder();

// Whether only those who administrate the machine can change what lies at path, or put something else there. They are
// root, or the Administrators, SYSTEM and TrustedInstaller; and the account that runs, where it is none of them, so
// that a user can try things out. Each folder up to the root counts, on Linux the folders of links and what they lead
// to as well; on Windows a link on the way is a trouble. The trouble is a sentence of its own: who may change which
// path, and what to do about it. So is what is no ordinary file, or can't be looked at.
[[nodiscard]] Trouble CheckTrusted(const std::string &path);

// The same of a folder and of all that lies in it, however deep; nor can anybody else add to it. A link in it counts by
// what it leads to, which must be a file.
[[nodiscard]] Trouble CheckTrustedTree(const std::string &path);

// The same as CheckTrusted, and nobody else can read the file.
[[nodiscard]] Trouble CheckSecret(const std::string &path);

// ---- Files that come into being complete: new_file_*.cpp ----

// A file in the making, beside path and under another name. Its end without FinishNewFile removes it, and so does an
// interrupt. Move-only.
struct NewFile {
    NewFile() = default;
    NewFile(NewFile &&) = default;
    NewFile &operator=(NewFile &&) = delete;
    ~NewFile();

    std::unique_ptr<OpenHandle, CloseOpenHandle> handle;
    std::string path;
    std::string unfinishedPath; // empty: there is nothing to remove
};

// What the names of files in the making end with.
constexpr char unfinishedEnding[] = ".unfinished";

// What becomes of a file that has the name already.
enum class Existing {
    IsTrouble,
    GivesWay, // with FinishInPlaceOf
};

// Begins a new file.
[[nodiscard]] Trouble CreateNewFile(const std::string &path, Existing existing, NewFile *file);

// Sets the file's length; what is never written reads as zeros, and takes no room where the file system can do that.
[[nodiscard]] Trouble SetLength(const NewFile &file, uint64_t lengthBytes);

// Writes all byteCount bytes at offsetBytes. Any thread may call it at any time.
[[nodiscard]] Trouble WriteAt(const NewFile &file, uint64_t offsetBytes, const void *data, size_t byteCount);

// Brings what was written to the disk; the file goes on as it was. It makes the finishing that follows short.
[[nodiscard]] Trouble FlushNewFile(const NewFile &file);

// Brings the file to the disk, gives it its name, and that to the disk too. Never replaces what has the name meanwhile.
// After a trouble the name is nobody's.
[[nodiscard]] Trouble FinishNewFile(NewFile *file);

// The same, but what has the name gives way to it, in one step.
[[nodiscard]] Trouble FinishInPlaceOf(NewFile *file);

// Takes a finished file away again: it was to be one of two, and the other did not come into being.
void RemoveFinishedFile(const NewFile &file);

// ---- Files that are there: new_file_*.cpp ----

// The length of the file at path in bytes.
[[nodiscard]] Trouble LengthOfFile(const std::string &path, uint64_t *lengthBytes);

// True if nothing has the name. Where that can't be told, something has.
bool NameIsFree(const std::string &path);

// Gives the file at from the name to, in the same folder, and brings that to the disk. Never replaces.
[[nodiscard]] Trouble GiveFinalName(const std::string &from, const std::string &to);

// The same, but what has the name gives way, in one step.
[[nodiscard]] Trouble GiveNameInPlaceOf(const std::string &from, const std::string &to);

// Takes the name away, and brings that to the disk. A name that nothing has is no trouble.
[[nodiscard]] Trouble RemoveName(const std::string &path);

// Brings the content of the file at path to the disk.
[[nodiscard]] Trouble BringToDisk(const std::string &path);

// ---- Folders: folder_*.cpp ----

// What a folder lies on.
struct FileSystemFacts {
    std::string uuid;       // as blkid prints it; on Windows that of the volume, without braces; empty: unknown
    std::string source;     // what is mounted: a device, or a share as host:/export or \\server\share
    uint64_t freeBytes = 0; // for this user
    uint64_t totalBytes = 0;
    bool isReadOnly = false;
    std::vector<std::string> disks; // those below it: on Linux "8:0", on Windows the disk's number
    bool disksAreKnown = false;     // false: it may lie on any disk
};
[[nodiscard]] Trouble FileSystemOf(const std::string &folder, FileSystemFacts *facts);

// A lock that goes with the process that holds it, however it ends. Move-only.
struct Lock {
    std::unique_ptr<OpenHandle, CloseOpenHandle> handle;
};
enum class LockResult {
    Held,
    Busy,    // another process holds it
    NoLocks, // the file system knows none
    Failed,  // trouble says why
};
// Takes the lock of the file at path, which is made if it isn't there, and does not wait for it.
LockResult TakeLock(const std::string &path, Lock *lock, std::string *trouble);

// ---- One disk for kestrix: held_disk_*.cpp ----

struct HeldDiskState;
struct ReleaseHeldDisk {
    void operator()(HeldDiskState *state) const;
};

// A disk that stays the one that was found. On Linux program is a link to kestrix, or a copy, beside a folder of
// devices that holds this disk, the machine's control devices, and C:; it goes with this record. On Windows program is
// kestrix itself, and a handle is held, so that no other disk gets the number. Move-only.
struct HeldDisk {
    std::unique_ptr<HeldDiskState, ReleaseHeldDisk> state;
    std::string program; // the kestrix to run
    uint32_t number = 0; // that it knows the disk by
};

// Holds the disk; all are the machine's, as they were listed with it. kestrix is the path of the program. A trouble if
// it isn't the same disk any more, or there is no place to run programs from.
[[nodiscard]] Trouble HoldDisk(const DiskFacts &disk, const std::vector<DiskFacts> &all, const std::string &kestrix,
                               HeldDisk *held);

// A trouble if the disk is not the one that was held any more.
[[nodiscard]] Trouble CheckHeldDisk(const HeldDisk &held);

// ---- Programs: program_*.cpp ----

struct ProgramToRun {
    std::vector<std::string> arguments; // the program's absolute path first
    std::string input;                  // what it reads on standard input
    std::function<void(const std::string &)> onErrors =
        nullptr; // gets its error stream apart; none: with the other one
};

struct ProgramEnd {
    int exitStatus = -1;   // that of a program that ended by itself
    bool wasEnded = false; // by a signal
};

// Runs a program to its end. What it prints on both streams goes to onOutput, in pieces as they come. It ends with this
// process, however that ends. The trouble of a program that can't be started is given back.
[[nodiscard]] Trouble RunProgram(const ProgramToRun &program, const std::function<void(const std::string &)> &onOutput,
                                 ProgramEnd *end);

// The absolute path of a program of the system's, such as rclone; empty where there is none. The environment, which
// anyone may have set, is not asked.
std::string ProgramOfSystem(const std::string &name);

// The absolute path of a program beside this one, with the ending that programs have; empty where this one's own place
// can't be told.
std::string ProgramBeside(const std::string &name);

// The machine's name, as it gives it itself.
std::string MachineName();

// ---- Runs at a time of day: schedule_*.cpp ----

// What starts programs on this platform: systemd, or the Task Scheduler.
enum class Scheduler { Systemd, Tasks };
Scheduler OwnScheduler();

// A unit of systemd by its name, or a task by its; content is that of the file which the scheduler takes.
struct ScheduledFile {
    std::string name;
    std::string content;
};

// Where an administrator finds what the scheduler has under this name.
std::string PlaceOfScheduled(const std::string &name);

// A trouble where no scheduler is running.
[[nodiscard]] Trouble CheckScheduler();

// What the scheduler has under this name; none if there is nothing.
[[nodiscard]] Trouble ReadScheduled(const std::string &name, std::optional<std::string> *content);

// Has the scheduler take these in place of what has their names, and start the last one by its time from now on and at
// each start of the machine. After a trouble all is as it was before, unless the trouble says otherwise.
[[nodiscard]] Trouble InstallScheduled(const std::vector<ScheduledFile> &files);

// Takes these from the scheduler, all of which it has. A run that is under way goes on.
[[nodiscard]] Trouble RemoveScheduled(const std::vector<std::string> &names);

// The absolute path of the program that keeps the machine awake while it runs another one; empty where there is none,
// or it does not work.
std::string SleepInhibitor();

// path from the root, without following links; and where they lead to, as far as there is something.
std::string AbsolutePath(const std::string &path);
std::string ResolvedPath(const std::string &path);

// ---- What the running system was started from: start_medium_*.cpp ----

struct StartMedium {
    std::vector<std::string> disks; // as FileSystemFacts has them
    bool isKnown = false;           // false: it may have been any disk, or one that is gone
};

// Finds the disks below the root folder, also where that lies in memory over a file on one of them.
StartMedium FindStartMedium();

// ---- The backup table of a GPT: backup_gpt_*.cpp ----

// Why this system moves none; empty: it does.
std::string WhyNoBackupGptMove();

// Moves the backup table of the held disk's GPT to its end, where it belongs after the image of a smaller disk was
// written. The trouble is what the program for that said.
[[nodiscard]] Trouble MoveBackupGpt(const HeldDisk &held);

// ---- Questions: terminal_*.cpp ----

enum class Echo { Shown, Hidden };

enum class AnswerEnd {
    Line,
    EndOfInput, // what stood before it without a line end is no answer
    Interrupted,
    Failed, // trouble says why
};

// Shows the prompt on the error stream, or on standard output where that alone is a terminal, and waits for a line on
// standard input. On a terminal what was typed before the prompt is thrown away. The line comes without its end. An
// interrupt is told, and does not end the process.
AnswerEnd AskLine(const std::string &prompt, Echo echo, std::string *line, std::string *trouble);

struct InterruptHoldState;
struct EndInterruptHold {
    void operator()(InterruptHoldState *state) const;
};

// As long as it lives, an interrupt ends the programs that run, and not this process.
struct InterruptHold {
    InterruptHold();
    ~InterruptHold();

    // Whether one came since.
    bool HasInterrupted() const;

    std::unique_ptr<InterruptHoldState, EndInterruptHold> state;
};

// A file in memory that its user alone can read, and that goes with this record, or with the process. Move-only.
struct SecretFile {
    std::unique_ptr<OpenHandle, CloseOpenHandle> handle;
    std::string path;
};

// Why this system has no such files; empty: it has.
std::string WhyNoSecretFiles();

// Makes a file of the secret, which is wiped.
[[nodiscard]] Trouble MakeSecretFile(std::string *secret, SecretFile *file);

// Overwrites text with zeros, in a way that the compiler leaves in place.
void Wipe(std::string *text);

// ---- The process: process_*.cpp ----

// To be called before anything else. The three standard streams are open after it, those that weren't on nothing, so
// that no file of ours takes their place; a reader who goes away and a limit of file sizes are errors of the write.
void PrepareProcess();

// The arguments behind the program's name.
std::vector<std::string> Arguments(int argc, char **argv);

// Columns of the terminal behind the error stream; 0 where there is none.
uint32_t ErrorTerminalColumns();

} // namespace host
