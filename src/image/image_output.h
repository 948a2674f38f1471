// Writing an image file: it is created with nothing in front of its data area, the operation appends the chunks, and
// header and table come last, so that a file that did not get that far can't pass for an image.
#pragma once

#include "image/image_format.h"

#include <windows.h>

#include <string>

// Creates the file at path, alone. disposition is CREATE_ALWAYS to replace what stands there or CREATE_NEW to refuse
// it. The handle is the caller's, who goes on at DataStart. Fatal on failure.
HANDLE CreateImageFile(const std::string &path, DWORD disposition);

// Writes header and table to the front of the file. No result of it is looked at: what a reader finds there decides.
void WriteHeaderAndTable(HANDLE image, const ImageHeader &header, const ChunkTable &table);
