// require.h - REQUIRE(condition) aborts the program if the condition does not hold, in release
// builds too. For programs without GoogleTest, and for what must hold in every scenario.
#ifndef REQUIRE_H
#define REQUIRE_H

#undef NDEBUG
#include <assert.h>
#include <stdio.h>
#include <stdlib.h>

#define REQUIRE(condition) assert(condition)

#endif
