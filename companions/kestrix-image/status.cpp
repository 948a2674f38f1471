// A fault of a file is something found; all else could not be done.
#include "kestrix-image/status.h"

#include <algorithm>

int StatusOf(const reader::Fault &fault)
{
    return fault.kind == reader::FaultKind::Damaged ? exitFound : exitImpossible;
}

int ReportFault(JsonOutput &output, const char *result, const reader::Fault &fault)
{
    output.Member("result", result);
    output.Member("fault", fault.text);
    if (!output.wanted) {
        PrintFault(fault.text);
    }
    return StatusOf(fault);
}

int Worse(int left, int right)
{
    return std::max(left, right);
}
