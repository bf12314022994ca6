// test_abi.c - the binary interface. Compiling this file is the test.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <stddef.h>

// abi.h has one row for each row of abi.txt.
#define ROW(expression, on64, on32)                                                                \
    _Static_assert((expression) == (sizeof(void *) == 8 ? (on64) : (on32)), #expression);
#include "abi.h"
