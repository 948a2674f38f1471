// The entry point. It stands alone so that everything behind it can be linked into a test program.
#include "cli/dispatch.h"

int main(int argc, char **argv)
{
    return Dispatch(argc, argv);
}
