// The law: whatever bytes a chain of image files holds, opening it and fetching every chunk ends with the chunks, each
// of the bytes whose digest its entry has, or with one stated line and exit status 1. A fetch writes ChunkLength bytes
// and none beyond, fetching again gives the same, and a chunk that fails does so as stated. Nothing is read or written
// out of bounds, and nothing is opened to be written.
//
// The input is what image_files.h says. Only want of memory, of which the machine has 1 MiB, may end the program
// abnormally, and only where a file claims much; tables beyond that are out of reach here.
#include "fuzz/image_files.h"

#include "image/image_file.h"

#include <cstring>

static void FetchAll(const ImageFile &image, const Bytes &file)
{
    Law(HasTable(file), "an image without a whole table does not open");
    const std::vector<EntryFields> entries = EntriesOf(file);
    const HeaderFields header = HeaderOf(file);
    for (uint64_t i = 0; i < entries.size(); ++i) {
        const uint64_t length = std::min<uint64_t>(header.chunkSize, header.diskSize - i * header.chunkSize);
        ZeroedArray<uint8_t> once(length);
        ZeroedArray<uint8_t> again(length);
        FetchChunk(image, i, once.data());
        const Bytes fetched(once.data(), once.data() + length);
        Law(Sha256Of(fetched) == entries[i].hash, "a fetched chunk has the digest of its entry");
        FetchChunk(image, i, again.data());
        Law(memcmp(once.data(), again.data(), length) == 0, "a chunk is the same at every fetch");
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const Scratch scratch;
    Input input(data, size);
    const ImageFiles images = TakeImageFiles(input);
    WriteImageFiles(images);
    Machine machine = MachineForImages();
    const std::string passwordFile = (images.flags & withoutPassword) != 0 ? "" : "password";
    const RunResult result = RunCode(machine, [&] { FetchAll(OpenImage("a.kstx", passwordFile, 0), images.files[0]); });
    CheckEnd(images, machine, result, "");
    return 0;
}
