// test_abi.c - the binary interface. Compiling this file is the test.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <stddef.h>

// Each row of abi.txt.
#define VALUE(expression, on64, on32)                                                              \
    _Static_assert((expression) == (sizeof(void *) == 8 ? (on64) : (on32)), #expression);
#include "abi.txt"
