// OpenImage, in the order in which a user is to hear of faults: depth, the file, header, table, key, then for a thin
// image the trailer, the base's name, the base itself, its pin and its geometry.
//
// A file that is no image is refused before a password is asked for. The base must lie in the image's own folder: its
// name in the trailer may hold no separator. The pin is compared only after the base has been opened, so a chain that
// loops ends by its depth.
#include "image/image_file.h"

#include "cli/console.h"
#include "crypto/password.h"
#include "disk/transfer.h"
#include "image/image_path.h"

#include <cstdio>
#include <cstring>

static constexpr int32_t deepestImage = 64;

static HANDLE OpenImageHandle(const std::string &path)
{
    const HANDLE file = CreateFileW(WidenPath(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        fprintf(stderr, "could not open image file: %s\n", path.c_str());
        Fatal("could not open image file", 0);
    }
    return file;
}

static void ReadHeader(ImageFile &image)
{
    if (!ReadExactly(image.file, &image.header, sizeof(image.header))) {
        Fatal("could not read image header - file is truncated or not a .kstx image", 0);
    }
    const bool magicMatches = memcmp(image.header.magic, imageMagic, magicBytes) == 0;
    if (!magicMatches || (image.header.version != fullImageVersion && image.header.version != thinImageVersion)) {
        Fatal("not a recognized Kestrix image (bad magic/version)", 0);
    }
}

static void ReadTable(ImageFile &image)
{
    image.table = ChunkTable(image.header.chunkCount);
    const auto tableBytes = static_cast<DWORD>(sizeof(ChunkEntry) * image.header.chunkCount);
    if (!ReadExactly(image.file, image.table.data(), tableBytes)) {
        Fatal("could not read chunk table - image is truncated", 0);
    }
}

// Gives the end of the data area.
static uint64_t FillChunkOffsets(ImageFile &image)
{
    uint64_t cursor = DataStart(image.table.size());
    image.chunkOffsets.resize(image.table.size());
    for (uint64_t i = 0; i < image.table.size(); ++i) {
        image.chunkOffsets[i] = cursor;
        cursor += image.table[i].storedLength;
    }
    return cursor;
}

// The whole trailer, found by the file's last four bytes. Bytes between the data area and the trailer are let pass.
static std::vector<uint8_t> ReadTrailer(HANDLE file, uint64_t dataEnd)
{
    LARGE_INTEGER fileSize = {};
    GetFileSizeEx(file, &fileSize);
    const uint64_t leastSize = dataEnd + trailerOverhead;
    uint32_t totalLength = 0;
    if (fileSize.QuadPart < static_cast<LONGLONG>(leastSize) ||
        !SeekTo(file, static_cast<uint64_t>(fileSize.QuadPart) - sizeof(totalLength)) ||
        !ReadExactly(file, &totalLength, sizeof(totalLength)) || totalLength < trailerOverhead ||
        totalLength > longestTrailer || totalLength > static_cast<uint64_t>(fileSize.QuadPart) - dataEnd) {
        Fatal("thin image has no valid trailer - file is truncated", 0);
    }
    std::vector<uint8_t> trailer(totalLength);
    if (!SeekTo(file, static_cast<uint64_t>(fileSize.QuadPart) - totalLength) ||
        !ReadExactly(file, trailer.data(), totalLength)) {
        Fatal("could not read thin image trailer", 0);
    }
    return trailer;
}

static ImageId ReadBaseNameAndPin(ImageFile &image, uint64_t dataEnd)
{
    ImageId basePin = {};
    if (!ParseThinTrailer(ReadTrailer(image.file, dataEnd), &image.baseName, &basePin)) {
        Fatal("thin image trailer is malformed", 0);
    }
    if (image.baseName.find_first_of("\\/:") != std::string::npos) {
        Fatal("thin image trailer names a base outside its folder - refusing", 0);
    }
    return basePin;
}

static void CheckBase(const ImageFile &image, const ImageId &basePin, const std::string &basePath)
{
    const ImageHeader &base = image.base->header;
    if (image.base->imageId != basePin) {
        fprintf(stderr, "Base image %s is not the one this image was made against (it was modified or replaced).\n",
                basePath.c_str());
        Fatal("base image does not match the one pinned in the thin image", 0);
    }
    if (base.diskSize != image.header.diskSize || base.chunkSize != image.header.chunkSize ||
        base.chunkCount != image.header.chunkCount) {
        Fatal("base image geometry differs from the thin image", 0);
    }
}

static void OpenBase(ImageFile &image, uint64_t dataEnd, const std::string &path, const std::string &passwordFile,
                     int32_t depth)
{
    const ImageId basePin = ReadBaseNameAndPin(image, dataEnd);
    const std::string basePath = ParentFolder(path) + image.baseName;
    if (GetFileAttributesA(basePath.c_str()) == INVALID_FILE_ATTRIBUTES) {
        fprintf(stderr,
                "This is a thin (incremental) image; its base image is missing: %s\n"
                "Keep every image of a chain in the same folder.\n",
                basePath.c_str());
        Fatal("base image of a thin image not found", 0);
    }
    image.base = std::make_unique<ImageFile>(OpenImage(basePath, passwordFile, depth + 1));
    CheckBase(image, basePin, basePath);
}

ImageFile OpenImage(const std::string &path, const std::string &passwordFile, int32_t depth)
{
    if (depth > deepestImage) {
        Fatal("image chain is too deep (or loops back on itself)", 0);
    }
    ImageFile image;
    image.file = OpenImageHandle(path);
    ReadHeader(image);
    ReadTable(image);
    image.imageId = ImageIdOf(image.header, image.table);
    const uint64_t dataEnd = FillChunkOffsets(image);
    if (image.header.encrypted != 0) {
        MakeKeyOfImage(image.header, passwordFile, image.key);
    }
    if (image.header.version == thinImageVersion) {
        OpenBase(image, dataEnd, path, passwordFile, depth);
        SeekTo(image.file, 0);
        SeekTo(image.file, DataStart(image.table.size()));
    }
    return image;
}
