// Runs saved inputs through a target without a fuzzing engine: every file of the folders that are its arguments, in the
// order of their names. A folder that isn't there has no files; that none was found at all is a failure. Prints each
// name before its run, so that after a crash the last one is the culprit, and a count at the end.
#include "fuzz/law.h"

#include <cstdio>
#include <filesystem>
#include <set>

int main(int argc, char **argv)
{
    std::set<std::filesystem::path> paths;
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto &entry : std::filesystem::directory_iterator(std::filesystem::absolute(argv[i]))) {
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
    printf("%zu inputs hold the law\n", paths.size());
    return paths.empty() ? 1 : 0;
}
