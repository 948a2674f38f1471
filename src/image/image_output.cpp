// The two ends of writing an image. The table's length goes out in 32 bits, as it is read in.
#include "image/image_output.h"

#include "cli/console.h"
#include "disk/transfer.h"
#include "image/image_path.h"

HANDLE CreateImageFile(const std::string &path, DWORD disposition)
{
    const HANDLE image =
        CreateFileW(WidenPath(path).c_str(), GENERIC_WRITE, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (image == INVALID_HANDLE_VALUE) {
        Fatal("could not create output image file", 0);
    }
    return image;
}

void WriteHeaderAndTable(HANDLE image, const ImageHeader &header, const ChunkTable &table)
{
    DWORD bytesWritten = 0;
    SeekTo(image, 0);
    WriteFile(image, &header, sizeof(header), &bytesWritten, nullptr);
    WriteFile(image, table.data(), static_cast<DWORD>(sizeof(ChunkEntry) * table.size()), &bytesWritten, nullptr);
}
