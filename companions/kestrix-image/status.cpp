// A fault of a file is something found; all else could not be done.
#include "kestrix-image/status.h"

#include <algorithm>

int StatusOf(const reader::Fault &fault)
{
    return fault.kind == reader::FaultKind::Damaged ? exitFound : exitImpossible;
}

int Worse(int left, int right)
{
    return std::max(left, right);
}
