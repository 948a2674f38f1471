// The command word and what each command needs before its operation is called.
#pragma once

// Runs the command that argv[1] names and gives the exit status: 0 after the operation returned, 1 with the usage text
// on standard output for a command line that lacks what the command can't run without. A failed operation does not
// return here, it ends the process; an unreadable disk number passes out as an exception.
int Dispatch(int argc, char **argv);
