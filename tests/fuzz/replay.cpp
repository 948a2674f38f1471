// Runs saved inputs through a target without a fuzzing engine: every file of the folders that are its arguments, in the
// order of their names. A folder that isn't there has no files; that none was found at all is a failure. Prints each
// name before its run, so that after a crash the last one is the culprit, and a count at the end.
//
// With --stream FILE the inputs come from standard input instead, each behind its length in four bytes, low byte first.
// The one that is being run stands in the file, which is gone when all have been.
#include "fuzz/law.h"

#include <cstdio>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>

static size_t RunFolders(const std::set<std::filesystem::path> &folders)
{
    std::set<std::filesystem::path> paths;
    for (const std::filesystem::path &folder : folders) {
        if (std::filesystem::is_directory(folder)) {
            for (const auto &entry : std::filesystem::directory_iterator(std::filesystem::absolute(folder))) {
                paths.insert(entry.path());
            }
        }
    }
    for (const std::filesystem::path &path : paths) {
        printf("%s\n", path.c_str());
        fflush(stdout);
        const Bytes bytes = ReadBytes(path);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return paths.size();
}

static size_t RunStream(const std::filesystem::path &keptInput)
{
    size_t count = 0;
    for (Bytes length(4); fread(length.data(), length.size(), 1, stdin) == 1; ++count) {
        Bytes bytes(LoadInteger(length, 0, length.size()));
        if (!bytes.empty() && fread(bytes.data(), bytes.size(), 1, stdin) != 1) {
            throw std::runtime_error("the stream breaks off");
        }
        WriteBytes(keptInput, bytes);
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::filesystem::remove(keptInput);
    return count;
}

int main(int argc, char **argv)
{
    const bool isStream = argc == 3 && std::string(argv[1]) == "--stream";
    const size_t count = isStream ? RunStream(std::filesystem::absolute(argv[2])) : RunFolders({argv + 1, argv + argc});
    printf("%zu inputs hold the law\n", count);
    return count == 0 ? 1 : 0;
}
