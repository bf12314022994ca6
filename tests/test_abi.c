// test_abi.c - the binary interface. Compiling this file is the test.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <stddef.h>

// Layouts and constants: abi.h has one row for each row of abi.txt.
#define ROW(expression, on64, on32)                                                                \
    _Static_assert((expression) == (sizeof(void *) == 8 ? (on64) : (on32)), #expression);
#include "abi.h"

// A second typedef of a name compiles only if it is of the same type.
typedef int (*tv_actor)(int channelId, const char *payload, int payloadLen, char **respPayload,
                        int *respLen);
typedef void (*tv_resp_handler)(int channelId, const char *payload, int payloadLen);
typedef void (*tv_timeout_handler)(int channelId);
typedef void (*tv_linkdown_cb)(int channelId, const char *url);
typedef void (*tv_connected_cb)(int channelId, const char *url);
typedef void (*tv_disconnected_cb)(int channelId, const char *url);
typedef void (*tv_client_fd_cb)(int fd);
typedef int (*tv_fd_handler)(int fd, intptr_t arg1, intptr_t arg2);
typedef void (*ruvo_timer_cb)(intptr_t arg1, intptr_t arg2);
