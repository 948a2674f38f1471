// The published <vswriter.h>, of which Kestrix uses nothing but that <vsbackup.h> wants it first.
#pragma once

#include "vss.h"
