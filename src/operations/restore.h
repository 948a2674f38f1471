// The body of the restore command, the one destructive operation.
#pragma once

#include <cstdint>
#include <string>

// Writes the image at path over the whole disk diskNumber. First come the refusals, in a fixed order, all before the
// first write; after that every failure stops where it stands and leaves the target partly written. confirmed says that
// the user passed --confirm YES; passwordFile is empty for none. Returns only when every chunk has been written.
void RestoreImage(const std::string &path, int32_t diskNumber, bool confirmed, const std::string &passwordFile);
