// require.h - REQUIRE(condition) aborts the program if the condition does not hold. For programs
// without GoogleTest, and for what must hold in every scenario.
#ifndef REQUIRE_H
#define REQUIRE_H

#include <stdio.h>
#include <stdlib.h>

#define REQUIRE(condition) require(condition, #condition, __FILE__, __LINE__)

inline void require(bool holds, const char *condition, const char *file, int line)
{
    if (!holds) {
        fprintf(stderr, "%s:%d: not true: %s\n", file, line, condition);
        abort();
    }
}

#endif
