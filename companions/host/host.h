// What differs by platform for the programs around the program: reading at an offset, the machine's disks, digest and
// cipher, files that are durable before they have their name, and the process's surroundings. Each job has a source
// file of its own for each platform.
//
// Paths and names are UTF-8 on Windows and the user's bytes on Linux. Nothing here ends the process or prints. Memory
// that can't be had is std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
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

// Opens the ordinary file at path, as long as nobody has it open for writing.
[[nodiscard]] Trouble OpenFileToRead(const std::string &path, Caching caching, Source *source);

// A handle of one's own on what source has open, so that two threads don't wait for one another.
[[nodiscard]] Trouble OpenAgain(const Source &source, Source *again);

// Fills buffer with the byteCount bytes at offsetBytes. Any thread may call it at any time. An end of the file before
// that is a trouble as well; the buffer's content is then undefined.
[[nodiscard]] Trouble ReadAt(const Source &source, uint64_t offsetBytes, void *buffer, size_t byteCount);

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

// Everything that the file at path holds; what can't be read of it counts as its end.
[[nodiscard]] Trouble ReadSmallFile(const std::string &path, std::string *content);

// ---- The machine's disks: disks_*.cpp ----

// Opens disk number N of the machine that the kestrix beside this program sees, shared with all its users.
[[nodiscard]] Trouble OpenDisk(uint32_t number, Caching caching, Source *source);

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

// Begins a new file; one that stands at path already is a trouble.
[[nodiscard]] Trouble CreateNewFile(const std::string &path, NewFile *file);

// Sets the file's length; what is never written reads as zeros, and takes no room where the file system can do that.
[[nodiscard]] Trouble SetLength(const NewFile &file, uint64_t lengthBytes);

// Writes all byteCount bytes at offsetBytes. Any thread may call it at any time.
[[nodiscard]] Trouble WriteAt(const NewFile &file, uint64_t offsetBytes, const void *data, size_t byteCount);

// Brings the file to the disk, gives it its name, and that to the disk too. Never replaces what has the name meanwhile.
// After a trouble the name is nobody's.
[[nodiscard]] Trouble FinishNewFile(NewFile *file);

// Takes a finished file away again: it was to be one of two, and the other did not come into being.
void RemoveFinishedFile(const NewFile &file);

// ---- The process: process_*.cpp ----

// To be called before anything else. The three standard streams are open after it, those that weren't on nothing, so
// that no file of ours takes their place; a reader who goes away and a limit of file sizes are errors of the write.
void PrepareProcess();

// The arguments behind the program's name.
std::vector<std::string> Arguments(int argc, char **argv);

// Columns of the terminal behind the error stream; 0 where there is none.
uint32_t ErrorTerminalColumns();

} // namespace host
