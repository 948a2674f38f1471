// The body of the list-disks command.
#pragma once

// Prints a line for each of the disks 0 to 15 that opens, the system's own marked. One that doesn't open is passed over
// in silence; one that opens but does not answer is fatal.
void ListDisks();
