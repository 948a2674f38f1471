// The snapshot side of the program, linked as the program is, on the system's own snapshot library or on none: opens
// and closes the snapshots of disk 0. Its first call into the library is what binds it. Ends with exit status 0, and
// the two lines on standard output tell what came of the call and that the run went on behind it.
#include "snapshot/snapshot_requester.h"

#include <cstdio>

int main()
{
    const std::vector<ShadowRange> ranges = OpenSnapshots(0);
    printf("ranges: %zu\n", ranges.size());
    CloseSnapshots(true);
}
