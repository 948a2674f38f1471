// The exit statuses of faults.
#pragma once

#include "kestrix-image/commands.h"
#include "reader/reader.h"

// The exit status that a fault stands for.
int StatusOf(const reader::Fault &fault);

// Of two exit statuses the one that weighs more.
int Worse(int left, int right);
