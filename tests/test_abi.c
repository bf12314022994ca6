// test_abi.c - the binary interface: the layouts of records and the values of constants.
//
// Compiling this file is the test. If it fails, programs built against an earlier release break:
// undo the change, or raise the major number of the version and, with it, the SONAME.

#include "ruvo_timer.h"
#include "tolvane.h"

#include <stddef.h>

// Expected bytes with 64-bit and with 32-bit pointers.
#define EXPECTED(on64, on32) (sizeof(void *) == 8 ? (on64) : (on32))
#define FIELD(record, field, on64, on32)                                                           \
    _Static_assert(offsetof(record, field) == EXPECTED(on64, on32), "offset of " #field)
#define SIZE(record, on64, on32)                                                                   \
    _Static_assert(sizeof(record) == EXPECTED(on64, on32), "size of " #record)
#define VALUE(name, value) _Static_assert((name) == (value), #name)

FIELD(tv_client_addr, serverIp, 0, 0);
FIELD(tv_client_addr, clientIp, 16, 16);
FIELD(tv_client_addr, serverPort, 32, 32);
FIELD(tv_client_addr, clientPort, 34, 34);
SIZE(tv_client_addr, 36, 36);

FIELD(tv_socket, fd, 0, 0);
SIZE(tv_socket, 4, 4);

FIELD(rb_item, msg, 0, 0);
FIELD(rb_item, len, 8, 4);
SIZE(rb_item, 16, 8);

FIELD(ring_buffer, items, 0, 0);
FIELD(ring_buffer, lastIdx, 8, 4);
FIELD(ring_buffer, firstIdx, 12, 8);
FIELD(ring_buffer, capacity, 16, 12);
SIZE(ring_buffer, 24, 16);

FIELD(tv_channel, channelId, 0, 0);
FIELD(tv_channel, respHandler, 8, 4);
FIELD(tv_channel, timeoutHandler, 16, 8);
FIELD(tv_channel, linkdownCallback, 24, 12);
FIELD(tv_channel, rqstTimerId, 32, 16);
FIELD(tv_channel, pollTimeout, 36, 20);
FIELD(tv_channel, connectTimeout, 40, 24);
FIELD(tv_channel, serverPort, 44, 28);
FIELD(tv_channel, serverIp, 46, 30);
FIELD(tv_channel, url, 62, 46);
FIELD(tv_channel, waitingResp, 126, 110);
FIELD(tv_channel, msgBuf, 127, 111);
FIELD(tv_channel, msgSequence, 65664, 65648);
FIELD(tv_channel, recvSequence, 65668, 65652);
FIELD(tv_channel, actorCount, 65672, 65656);
FIELD(tv_channel, actors, 65680, 65660);
FIELD(tv_channel, pendingRqst, 65808, 65724);
FIELD(tv_channel, rqstQueue, 65816, 65728);
FIELD(tv_channel, rqstQueueItems, 65840, 65744);
FIELD(tv_channel, hbMode, 65968, 65808);
FIELD(tv_channel, hbInterval, 65972, 65812);
FIELD(tv_channel, hbCount, 65976, 65816);
FIELD(tv_channel, hbTimerId, 65980, 65820);
FIELD(tv_channel, hbSequence, 65984, 65824);
FIELD(tv_channel, hbMissCount, 65988, 65828);
FIELD(tv_channel, clientSocket, 65992, 65832);
FIELD(tv_channel, serverSocket, 66000, 65836);
FIELD(tv_channel, pairSocket, 66008, 65840);
SIZE(tv_channel, 66016, 65844);

FIELD(tv_channel_list, next, 0, 0);
FIELD(tv_channel_list, prev, 8, 4);
SIZE(tv_channel_list, 16, 8);

FIELD(tv_channel_node, links, 0, 0);
FIELD(tv_channel_node, channel, 16, 8);
SIZE(tv_channel_node, 24, 12);

FIELD(tv_server, serverChannel, 0, 0);
FIELD(tv_server, pairList, 8, 4);
FIELD(tv_server, connectedCallback, 24, 12);
FIELD(tv_server, disconnectedCallback, 32, 16);
FIELD(tv_server, clientFdOpenCallback, 40, 20);
FIELD(tv_server, clientFdCloseCallback, 48, 24);
FIELD(tv_server, listenIp, 56, 28);
SIZE(tv_server, 120, 92);

VALUE(TV_MSG_BUF_SIZE, 0x10000);
VALUE(TV_URL_SIZE, 64);
VALUE(TV_IP_SIZE, 16);
VALUE(TV_MAX_ACTORS, 16);
VALUE(TV_RQST_QUEUE_SIZE, 8);
VALUE(TV_MAX_POLLING_FDS, 16);
VALUE(TV_LOG_FILE_SIZE, 128);
VALUE(TV_LOG_LIMIT, 0x200000);
VALUE(TV_CHANNEL_SERVER, 0);
VALUE(TV_CHANNEL_CLIENT, 1);
VALUE(TV_CHANNEL_PAIR, 2);
VALUE(TV_CHANNEL_NONE, 3);
VALUE(TV_MSG_LOGIN, 0);
VALUE(TV_MSG_LOGOUT, 1);
VALUE(TV_MSG_REQUEST, 2);
VALUE(TV_MSG_REPLY, 3);
VALUE(TV_MSG_HEARTBEAT, 4);
VALUE(TV_MSG_HEARTBEAT_ACK, 5);
VALUE(TV_MSG_UNKNOWN, 6);
VALUE(TV_ACTOR_PASS, 0);
VALUE(TV_ACTOR_HANDLED, 1);
VALUE(TV_ACTOR_DEFERRED, 2);
VALUE(TV_HEARTBEAT_ON, 0);
VALUE(TV_HEARTBEAT_OFF, 2);

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
