/** @file
 * Request and reply messages between processes over TCP, on one thread.
 *
 * The public header of libtolvane.so, for C11 and C++17. Its sections lead from the application
 * down to the sockets: 1 types and records, 2 channels by id, 3 client, 4 server, 5 event loop,
 * 6 log, 7 request and reply, 8 heartbeat and dispatch, 9 channel lists, 10 message text,
 * 11 channel transport, 12 sockets and frames. Most programs need sections 1 to 6 only.
 *
 * Define TOLVANE_APPLICATION_ONLY before you include this header to see only what applications
 * need: all types, tv_service_server, get_channel_type(), and the functions of sections 2 to 6
 * whose names begin with tv_, without the obsolete tv_set_polling_interval(). Names such as
 * log_file, get_channel or send_rqst then stay free for the program. The first inclusion in a
 * source file decides.
 *
 * Terms: a channel is one end of a connection; a pair is the channel that a server creates for an
 * accepted connection; an actor is a callback that serves received requests; the repository is the
 * list of all channels.
 *
 * Conventions, which apply to every entry unless it says otherwise:
 *
 * - Results: 0 is success and -1 is failure; a function that returns a length, an id or a
 *   descriptor returns -1 on failure; a record that is not found is a null pointer. errno is not
 *   part of the interface; use it only for diagnostics. A failed operation changes nothing except
 *   what its entry names. Most failures are logged (section 6), some of them more than once.
 * - Arguments: pointers must not be null and are not checked. A negative length is refused.
 * - Time: milliseconds on the monotonic clock. Changes of the wall clock have no effect.
 * - Sizes: bytes, as int.
 * - Text: NUL-terminated. Text that is too long for its field is cut.
 * - Ownership: the library copies every text and payload that you pass before the call returns.
 *   What a callback receives is valid until the callback returns.
 * - Payloads: any bytes, with their length. Every payload that a callback receives is followed by
 *   a 0x00 that its length does not count.
 * - Threads: the library starts none and takes no locks. One thread makes all calls, and every
 *   callback runs on it, inside such a call or inside the event loop.
 * - Blocking: connecting, or transferring one message, blocks for at most the timeout you set with
 *   tv_set_connect_timeout() or tv_set_poll_timeout(), plus the time it takes to release the
 *   memory of an incomplete frame. A transfer has one deadline for the whole message, so a peer
 *   that trickles data cannot extend it. The defaults are the system's connect timeout, about two
 *   minutes, and a poll timeout of 24.8 days: set both. Handling a complete message is not
 *   limited; the time it takes is proportional to the message.
 * - Callbacks: a callback may call any function of this library: close other channels, register
 *   and unregister descriptors, start and stop timers, start and stop the server (a start is
 *   refused while a server runs). Closing any channel, its own included, and stopping the server
 *   is memory-safe in every callback: the channel is closed at once, and the operation that called
 *   back stops when the callback returns. Callbacks must return normally: no C++ exception and no
 *   longjmp() may leave one.
 * - Signals: the library never raises SIGPIPE; sending to a peer that has gone fails. Writing to a
 *   log stream that you opened may still raise it.
 * - Processes: all descriptors are close-on-exec. After fork(), only one of the two processes may
 *   go on using the library: both share its connections and its listening socket.
 */
#ifndef TOLVANE_H
#define TOLVANE_H

#include <stdint.h> /* intptr_t, uint8_t, uint16_t */
#include <stdio.h>  /* FILE */

#ifndef TOLVANE_APPLICATION_ONLY
#include <poll.h>       /* struct pollfd */
#include <sys/socket.h> /* struct sockaddr, socklen_t */
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define TV_VERSION_MAJOR 1
#define TV_VERSION_MINOR 0
#define TV_VERSION_PATCH 0
#define TV_VERSION       "1.0.0"

/* Limits, in bytes unless stated otherwise. */
#define TV_MSG_BUF_SIZE    0x10000  /**< one message as sent: header text and payload together */
#define TV_URL_SIZE        64       /**< a channel's URL with its NUL */
#define TV_IP_SIZE         16       /**< a dotted IPv4 address with its NUL */
#define TV_MAX_ACTORS      16       /**< actors per channel */
#define TV_RQST_QUEUE_SIZE 8        /**< received requests that may wait in a channel's queue */
#define TV_MAX_POLLING_FDS 16       /**< descriptors in the event loop */
#define TV_LOG_FILE_SIZE   128      /**< the log path with its NUL */
#define TV_LOG_LIMIT       0x200000 /**< when a log sink is full; see section 6 */

/* ---- 1  Types and records ------------------------------------------------------------------ */

/** Channel types, as get_channel_type() reports them. */
enum {
    TV_CHANNEL_SERVER = 0, /**< owns the listening socket */
    TV_CHANNEL_CLIENT = 1, /**< connects to a server */
    TV_CHANNEL_PAIR = 2,   /**< the server's end of one accepted connection */
    TV_CHANNEL_NONE = 3    /**< no such channel, or closed */
};

/** Message types, as get_msg_type() reports them. */
enum {
    TV_MSG_LOGIN = 0,
    TV_MSG_LOGOUT = 1,
    TV_MSG_REQUEST = 2,
    TV_MSG_REPLY = 3,
    TV_MSG_HEARTBEAT = 4,
    TV_MSG_HEARTBEAT_ACK = 5,
    TV_MSG_UNKNOWN = 6
};

/** Results of an actor. Any value but TV_ACTOR_PASS and TV_ACTOR_DEFERRED means handled. */
enum {
    TV_ACTOR_PASS = 0,    /**< not handled: offer the request to the next actor */
    TV_ACTOR_HANDLED = 1, /**< handled: send *respPayload, if it is set */
    TV_ACTOR_DEFERRED = 2 /**< accepted: the reply follows through tv_send_resp() */
};

/** Heartbeat modes of a channel record. */
enum { TV_HEARTBEAT_ON = 0, TV_HEARTBEAT_OFF = 2 };

/** Serves one received request. For each request, actors are called in the order of registration
 * until one returns something other than TV_ACTOR_PASS.
 *
 * Once an actor has deferred a reply, up to TV_RQST_QUEUE_SIZE further requests of that peer wait
 * in the channel's queue; more are dropped. A reply that does not fit into a message leaves the
 * request pending; tv_send_resp() can still answer it.
 *
 * May send requests on its channel, but can answer the request it is serving only through its
 * result, not with tv_send_resp().
 * Leave the channel open until the actor has returned: closing it here is memory-safe, but the
 * request gets no reply.
 *
 * An actor that runs the event loop, or its channel's descriptor handler, may be called again for
 * the next request before it returns. A request that is deferred in that inner call stays pending
 * only if the outer actor neither sends a reply nor defers its own request; otherwise the inner
 * request's payload is released and it gets no reply. Example: the actor for R1 runs the loop, in
 * which R2 arrives and is deferred; if the actor then replies to R1, R2 is never answered.
 *
 * @param channelId    the channel that received the request
 * @param payload      the request's bytes; valid until the actor returns, or, after
 *                     TV_ACTOR_DEFERRED, until the reply is sent or the channel is closed
 * @param payloadLen   0 or more
 * @param respPayload  points to a null pointer, or to what an earlier actor left there (free that
 *                     before replacing it); may be set to a reply from malloc(), which the library
 *                     frees whatever the actor returns
 * @param respLen      points to 0, or to what an earlier actor left there: the reply's length
 * @return a TV_ACTOR_ value */
typedef int (*tv_actor)(int channelId, const char *payload, int payloadLen, char **respPayload,
                        int *respLen);

/** Receives the reply to the channel's request. Runs at most once per request.
 *
 * May send the next request. Leave the channel open until the handler has returned, then close it
 * from a timer; closing it here is memory-safe.
 *
 * @param channelId   the channel that sent the request
 * @param payload     the reply's bytes; null if the reply has no payload marker
 * @param payloadLen  0 or more */
typedef void (*tv_resp_handler)(int channelId, const char *payload, int payloadLen);

/** Reports that a request's timeout has expired. Runs at most once per request, and not after its
 * reply was handled.
 *
 * tv_main_loop() fires timers before it reads. A reply that arrived in time, but was not read
 * before the timeout because the thread was busy, therefore counts as late. A late reply is
 * discarded, or taken for the reply to the next request if that is outstanding when it is read:
 * after a timeout, close the connection before you send again, or use correlation IDs.
 *
 * The request counts as outstanding until the handler returns: a request that it sends on the same
 * channel is refused. A handler that runs the event loop, or the channel's descriptor handler, may
 * still receive the reply: the response handler runs too, and then the next request is accepted.
 *
 * Leave the channel open until the handler has returned, then close it from a timer; closing it
 * here is memory-safe. */
typedef void (*tv_timeout_handler)(int channelId);

/** Reports that the link is down. Runs after every failed send or receive on a connection, after a
 * received frame without a body, and once when the heartbeat gives up. A send or receive without a
 * connection, or on the listening channel, does not call it.
 *
 * It is not called again while it runs for the same channel: a send that fails inside it returns
 * -1 and does not call back. A send may also succeed there if the connection still works, for
 * example after an empty frame. If the heartbeat gives up while the callback runs, the callback
 * runs once more after it has returned, even if the callback has reconnected the channel.
 *
 * May close its channel. The channel stays open until you close it, here or later, and its
 * descriptor may stay readable: unregister it from the event loop in this callback at the latest.
 *
 * @param channelId  the channel
 * @param url        the record's url field */
typedef void (*tv_linkdown_cb)(int channelId, const char *url);

/** Reports to the server that a client has logged in on a pair. An older pair with the same URL has
 * already been closed, unless the URL is longer than 63 characters or the application has removed
 * that pair from the repository.
 *
 * tv_get_client_channel() finds the pair once the callback has returned. May send on the pair.
 * Leave the pair open until the callback has returned; closing it here is memory-safe.
 *
 * @param channelId  the pair
 * @param url        the URL in the login: text from the network, of any length and content;
 *                   truncate it before you show or store it */
typedef void (*tv_connected_cb)(int channelId, const char *url);

/** Reports to the server that a client is gone. Runs when a client has logged out, and when a newer
 * login with the same URL replaces its pair; not after a lost link, nor when the application
 * closes the pair.
 *
 * After a logout the pair is already closed and the id no longer names a channel. On a replacement
 * the pair is still open, so you can send it a last request; it is closed after the callback
 * returns. If the callback itself closes the pair, the log reports that its id was not found. A
 * pair that the application has removed from the repository is reported but not closed.
 *
 * @param channelId  the pair
 * @param url        after a logout the text in the logout, unchecked; on a replacement the URL in
 *                   the new login. Text from the network, of any length and content */
typedef void (*tv_disconnected_cb)(int channelId, const char *url);

/** Reports a pair's descriptor. The fd-open callback runs once per accepted connection, so that you
 * can register fd with the event loop. The fd-close callback runs once when a pair is closed, so
 * that you can unregister fd while it is still open.
 *
 * Both may send on the pair; a send blocks for at most the pair's poll timeout. The fd-open
 * callback should leave the pair open; closing it there is memory-safe. In the fd-close callback
 * the pair is being closed already, and closing it again does nothing. */
typedef void (*tv_client_fd_cb)(int fd);

/** Handles one ready descriptor of the event loop. May register, unregister and close any
 * descriptor, and close any channel.
 *
 * @param fd    the descriptor: readable, hung up or in error
 * @param arg1  the first argument of its registration
 * @param arg2  the second argument of its registration
 * @return ignored */
typedef int (*tv_fd_handler)(int fd, intptr_t arg1, intptr_t arg2);

/** Addresses of a new client channel. */
typedef struct tv_client_addr {
    char serverIp[TV_IP_SIZE]; /**< dotted IPv4 address of the server. Names are not resolved:
                                    anything else is taken as 0.0.0.0, which is this machine */
    char clientIp[TV_IP_SIZE]; /**< part of this client's URL; need not be its real address */
    uint16_t serverPort;       /**< the server's TCP port */
    uint16_t clientPort;       /**< part of this client's URL; need not be a real port */
} tv_client_addr;

/** A socket. Its channel owns it. */
typedef struct tv_socket {
    int fd; /**< -1: a client channel without a connection */
} tv_socket;

/** One received request in a queue. */
typedef struct rb_item {
    char *msg; /**< received message */
    int len;   /**< its length */
} rb_item;

/** A queue of received requests. Both indices equal capacity while it is empty. */
typedef struct ring_buffer {
    rb_item *items;
    int lastIdx;  /**< newest item */
    int firstIdx; /**< oldest item */
    int capacity; /**< slots, all of them usable */
} ring_buffer;

/** Everything the library knows about one end of a connection.
 *
 * Applications should keep a channel's id rather than its address, which is invalid after
 * tv_close_channel(). Records in the repository and in pairList may be read freely; their fields
 * change only through the library's operations. One exception: while a client channel has no
 * connection, an application may store a connected socket of its own in clientSocket->fd; it then
 * belongs to the channel, which closes it. */
typedef struct tv_channel {
    int channelId;                     /**< never -1, never changes */
    tv_resp_handler respHandler;       /**< null: none */
    tv_timeout_handler timeoutHandler; /**< null: none */
    tv_linkdown_cb linkdownCallback;   /**< null: none */
    int rqstTimerId;           /**< timer of the outstanding request, -1 if it could not be started;
                                    meaningful only while waitingResp is 1 */
    int pollTimeout;           /**< of every send and receive; 0x7fffffff by default */
    int connectTimeout;        /**< of a client's connect; -1 by default: the system's limit */
    uint16_t serverPort;       /**< client only */
    char serverIp[TV_IP_SIZE]; /**< client only */
    char url[TV_URL_SIZE];     /**< a client's own URL; a pair's is its client's, empty before the
                                    login; the server channel's is empty */
    uint8_t waitingResp;       /**< 1 while a request of this channel awaits its reply */
    char msgBuf[TV_MSG_BUF_SIZE];   /**< the outgoing message */
    int msgSequence;                /**< number of the next message to send */
    int recvSequence;               /**< number of the last accepted message; 0: accept any next */
    int actorCount;                 /**< used entries of actors */
    tv_actor actors[TV_MAX_ACTORS]; /**< in the order of registration */
    char *pendingRqst;              /**< the request whose reply the application still owes */
    ring_buffer rqstQueue;          /**< the requests that wait */
    rb_item rqstQueueItems[TV_RQST_QUEUE_SIZE]; /**< storage of rqstQueue */
    int hbMode;                                 /**< TV_HEARTBEAT_ON or TV_HEARTBEAT_OFF */
    int hbInterval;                             /**< below 1: no heartbeat starts */
    int hbCount;             /**< unanswered heartbeats before the link is declared down */
    int hbTimerId;           /**< -1: none */
    int hbSequence;          /**< heartbeats sent since the last accepted message */
    int hbMissCount;         /**< expiries since the last accepted message */
    tv_socket *clientSocket; /**< at most one of the three is set; it determines the type */
    tv_socket *serverSocket; /**< the listening socket */
    tv_socket *pairSocket;   /**< an accepted connection */
} tv_channel;

/** The two links of a channel list, of its head as well as of each node. A head whose links point
 * to itself is an empty list. */
typedef struct tv_channel_list {
    struct tv_channel_list *next;
    struct tv_channel_list *prev;
} tv_channel_list;

/** An entry of a channel list. Nodes come from add_channel() only and belong to their list; the
 * record does not. */
typedef struct tv_channel_node {
    tv_channel_list links;
    tv_channel *channel;
} tv_channel_node;

/** The server of this process. */
typedef struct tv_server {
    tv_channel *serverChannel; /**< null while no server runs */
    tv_channel_list pairList;  /**< pairs in order of acceptance; null links before any start */
    tv_connected_cb connectedCallback;
    tv_disconnected_cb disconnectedCallback;
    tv_client_fd_cb clientFdOpenCallback;
    tv_client_fd_cb clientFdCloseCallback;
    char listenIp[64]; /**< as given to the start; the library does not read it */
} tv_server;

/** The server's record. May be read freely, pairList included; it changes only through the
 * functions of section 4. */
extern tv_server tv_service_server;

/* ---- 2  Channels by id ---------------------------------------------------------------------
 *
 * Every function here that takes an id looks the channel up first. If there is none, it logs
 * "could not get channel with id[%d] in %s" with its own name (get_channel_type and
 * tv_set_poll_timeout log the name tv_get_channel) and fails; tv_channel_fd_handler returns 0 even
 * then. */

/** Returns a new channel id: 0, 1, 2 and so on through all 32-bit numbers except -1.
 *
 * Ids wrap around; one is reused only after 2^32 - 2 others, without a check whether it is still in
 * use. Restart a process that could get that far while an old channel is still open. */
int tv_get_channel_id(void);

/** Finds a channel by its id.
 *
 * @return the record, valid until the channel is closed; or null */
tv_channel *tv_get_channel(int channelId);

/** Returns a channel's type, a TV_CHANNEL_ value. A client channel without a connection is still
 * TV_CHANNEL_CLIENT; TV_CHANNEL_NONE means that the id names no open channel. */
int get_channel_type(int channelId);

/** Adds a record to the repository, so that it can be found by its id. The library itself adds the
 * channels that it creates. Set the record's id, URL and socket before the call: they must not
 * change while the record is in the repository.
 *
 * @param channel  allocated with malloc(); tv_close_channel() removes it, however often it was
 *                 added, and releases it
 * @return the new node, which the repository owns; or null if there is no memory */
tv_channel_node *tv_add_channel(tv_channel *channel);

/** Removes the oldest entry with the record's id from the repository. Closes and releases nothing.
 *
 * The caller then owns a client's record. A pair or the server channel still belongs to the server:
 * tv_stop_server() closes and releases it.
 *
 * @return 0, or 1 if no entry has the id */
int tv_remove_channel(tv_channel *channel);

/** Closes a channel and releases its record with all requests that it holds.
 *
 * For a pair, the fd-close callback runs first. Then the heartbeat stops, the descriptor is closed
 * and the id no longer names a channel. No other callback runs: neither the timeout handler of an
 * outstanding request nor a link-down or disconnected callback. The timer of an outstanding request
 * stays pending; when it fires, it finds no channel, logs that, and does nothing else.
 *
 * Unregister a client's descriptor from the event loop before the call. Closing a running server's
 * own channel leaves its pairs open, and they are served until the next start; after that they can
 * only be closed by their ids. Use tv_stop_server() instead. */
void tv_close_channel(int channelId);

/** Appends an actor to a client or server channel, for the channel's life.
 *
 * Pairs copy the server channel's actors when they are accepted. An actor may be appended more than
 * once. A null actor uses up an entry and is skipped.
 *
 * @return 0, or -1: no such channel, a pair, or TV_MAX_ACTORS actors already */
int tv_register_actor(int channelId, tv_actor actor);

/** Sets the channel's response handler. On the server channel it applies to pairs accepted
 * afterwards.
 *
 * @param channelId  any channel
 * @param handler    null: none
 * @return 0, or -1: no such channel */
int tv_register_resp_handler(int channelId, tv_resp_handler handler);

/** Sets the channel's timeout handler. On the server channel it applies to pairs accepted
 * afterwards.
 *
 * @param channelId  any channel
 * @param handler    null: none
 * @return 0, or -1: no such channel */
int tv_register_timeout_handler(int channelId, tv_timeout_handler handler);

/** Sets the channel's link-down callback. On the server channel it applies to pairs accepted
 * afterwards.
 *
 * @param channelId  any channel
 * @param cb         null: none
 * @return 0, or -1: no such channel */
int tv_register_linkdown_callback(int channelId, tv_linkdown_cb cb);

/** Sets how long one send or receive of the channel may block. On the server channel it applies to
 * pairs accepted afterwards.
 *
 * @param channelId  any channel
 * @param timeoutMs  milliseconds for a whole message, from its first byte to its last; 1 or more
 * @return 0, or -1: no such channel, or timeoutMs is below 1 (nothing changes) */
int tv_set_poll_timeout(int channelId, int timeoutMs);

/** Sets how long tv_connect_server() may take to connect.
 *
 * Until it is set, a connect may take as long as the system keeps trying, and it fails if a signal
 * arrives whose handler does not restart system calls.
 *
 * @param channelId  a client channel
 * @param timeoutMs  milliseconds; a value below 1 changes nothing */
void tv_set_connect_timeout(int channelId, int timeoutMs);

/** Sends one request on a channel and starts waiting for its reply.
 *
 * With a positive timeout, a result of 0 means that exactly one of the response handler and the
 * timeout handler will run. Exceptions: the channel is closed first; the timer could not be started
 * (logged; then only a reply ends the wait); the timeout handler itself calls the channel's
 * descriptor handler or the event loop (both may run).
 *
 * While the channel waits, the peer's requests stay in the channel's queue until the reply arrives,
 * the timeout expires, or tv_send_resp() answers an earlier request. If both ends ask at once, each
 * waits until one times out.
 *
 * Replies carry no correlation ID. One that arrives while no request is outstanding is discarded.
 * One that is late, or that answers a request without a timeout, is taken for the reply to a newer
 * request if that is outstanding when it arrives. Use correlation IDs in the payloads where this
 * matters, and do not answer requests that await no reply.
 *
 * The receiver finds a message's type by searching all of its text up to the first 0x00. A payload
 * must not contain "velun_tolvane_" before its first 0x00.
 *
 * A message uses up its sequence number when it is built, even if it is not sent because there is
 * no connection. After a failed send the peer refuses all later messages: close the connection.
 *
 * Blocks for at most the channel's poll timeout.
 *
 * @param channelId  a connected client channel or a pair
 * @param payload    request bytes, may contain 0x00; null is refused, also with length 0
 * @param len        0 or more; header and payload together fit in TV_MSG_BUF_SIZE bytes (with a
 *                   URL of 21 characters and sequence number 0, 65468 are left for the payload)
 * @param timeout    milliseconds to wait for the reply; 0 or less: no reply is awaited
 * @return 0 once the request is sent, or -1: no such channel, a request is still outstanding, the
 *         message does not fit, no connection, or the send failed (only in this last case the
 *         link-down callback has run) */
int tv_send_rqst(int channelId, const char *payload, int len, int timeout);

/** Answers the request for which an actor returned TV_ACTOR_DEFERRED. Then serves the queued
 * requests: actors may run before the call returns.
 *
 * If the message does not fit, there is no connection, or the send failed, the request stays
 * pending; after a failed send, do not answer it on the same connection. Blocks for at most the
 * channel's poll timeout, and again for each reply that an actor gives to a waiting request.
 *
 * @param channelId  the channel that received the request
 * @param payload    as for tv_send_rqst()
 * @param len        as for tv_send_rqst()
 * @return 0 once the reply is sent, or -1: no such channel, no request pending (as inside the actor
 *         that accepts it), the message does not fit, no connection, or the send failed (only then
 *         the link-down callback has run) */
int tv_send_resp(int channelId, const char *payload, int len);

/** Returns the descriptor to watch for the channel.
 *
 * @return the descriptor, which stays the channel's: neither read from it nor close it; or -1: no
 *         such channel, or no connection */
int tv_get_polling_fd(int channelId);

/** Receives one message on a client channel and handles it: the event loop's handler for a client's
 * descriptor. Blocks until the whole message is there, for at most the poll timeout.
 *
 * @param fd         not used
 * @param channelId  the channel, as first argument of tv_register_polling_fd()
 * @param arg2       not used
 * @return 0 */
int tv_channel_fd_handler(int fd, intptr_t channelId, intptr_t arg2);

/* ---- 3  Client -----------------------------------------------------------------------------
 *
 * A client's life:
 *
 *   tv_create_client_channel, tv_register_... and tv_set_..., tv_connect_server,
 *   tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0), tv_main_loop,
 *   tv_disconnect_server, tv_unregister_polling_fd, tv_close_channel. */

/** Creates a client channel. Its URL "tcp://clientIp:clientPort" names this client to the server.
 *
 * @param addr  copied
 * @return the new channel's id, or -1 without memory */
int tv_create_client_channel(const tv_client_addr *addr);

/** Connects to the channel's server, logs in with the channel's URL, and starts the heartbeat if
 * one is set.
 *
 * An open connection is closed first: unregister its descriptor from the event loop before the
 * call, and register the new one afterwards. If the connect fails, the channel has no connection.
 * While no server listens, TCP can connect a client on the server's host to itself (see
 * tv_start_service_server()); this counts as a failed connect. If the login cannot be sent, the
 * link-down callback has run and the connection is open but not logged in. A result of 0 means that
 * the login was sent, not that the server has read it.
 *
 * To reconnect, close the channel and create a new one with the same addresses. A second connect on
 * one channel has these effects. Sequence numbers continue in both directions while the server
 * starts from 0, so the channel refuses the server's messages up to the number that it accepted
 * last. The outstanding request, the pending request and the queue are kept; a reply to an old
 * request is sent on the new connection. After a failed second connect the old heartbeat timer
 * still runs and may call the link-down callback on a channel without a connection. The channel's
 * own callbacks may connect it again, but the link-down callback should do so from a timer: it may
 * run inside a tv_connect_server() whose login failed, and that call returns -1 even if the inner
 * call has connected.
 *
 * Blocks for at most the connect timeout plus the poll timeout.
 *
 * @return 0, or -1: no such channel, not a client, the connect failed, or the login was not sent */
int tv_connect_server(int channelId);

/** Sends the logout message. The server closes its end when it reads it; this end stays open until
 * tv_close_channel(). Blocks for at most the poll timeout.
 *
 * @return 0, or -1: no such channel, not a client, no connection, or the send failed (only then the
 *         link-down callback has run) */
int tv_disconnect_server(int channelId);

/** Sets the heartbeat of a client channel, and its link-down callback.
 *
 * A silent peer is declared down (count + 1) * interval after its last accepted message. The
 * heartbeat starts with the next tv_connect_server() or accepted message. New settings take effect
 * then, except that a new count takes effect at the next expiry. Once the heartbeat has given up it
 * is off until you set it again; a failed send or receive does not switch it off.
 *
 * A running heartbeat ends only when it gives up or the channel is closed. An interval below 1 does
 * not switch it off: it keeps its old interval and gives up after count + 1 expiries, whatever the
 * channel receives.
 *
 * @param channelId  a client channel
 * @param interval   milliseconds between heartbeats; below 1: none is started
 * @param count      heartbeats that may go unanswered; with 0 or less the heartbeat gives up at the
 *                   first expiry
 * @param cb         replaces the link-down callback; null: none */
void tv_client_enable_heartbeat(int channelId, int interval, int count, tv_linkdown_cb cb);

#ifndef TOLVANE_APPLICATION_ONLY

/** Makes a record a client channel without a connection: a step of tv_create_client_channel(). Does
 * not add it to the repository.
 *
 * @param channel    allocated with malloc(), of any content
 * @param channelId  from tv_get_channel_id()
 * @param addr       copied
 * @return 0, or -1 without memory (the record is unchanged) */
int create_client_channel(tv_channel *channel, int channelId, const tv_client_addr *addr);

/** Connects and logs in, as tv_connect_server(), without starting a heartbeat.
 *
 * @return 0, or -1: not a client, the connect failed, or the login was not sent (the link-down
 *         callback has run and may have closed the channel) */
int connect_server(tv_channel *channel);

/** Logs out, as tv_disconnect_server().
 *
 * @return 0, or -1: no connection, or the send failed (the link-down callback has run and may have
 *         closed the channel) */
int disconnect_server(tv_channel *channel);

#endif

/* ---- 4  Server -----------------------------------------------------------------------------
 *
 * A server's life:
 *
 *   tv_start_server, tv_register_..._callback, tv_register_actor on its id,
 *   tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0), tv_main_loop,
 *   tv_unregister_polling_fd, tv_stop_server.
 *
 * The fd-open callback registers each pair's descriptor with tv_pair_fd_handler, the fd-close
 * callback unregisters it, and the link-down callback closes the pair. */

/** Starts the server of this process: it listens, and accepted connections become pairs.
 *
 * Set actors, timeouts, handlers and the heartbeat on the server channel after each start; they
 * apply to pairs accepted afterwards. Pairs that remain from an earlier server are not served any
 * more, but can be closed by their ids.
 *
 * A failed start uses up a channel id. Unless it was refused because a server runs, it may have
 * replaced listenIp and the connected callback, and emptied pairList.
 *
 * @param ip                 dotted IPv4 address to listen on. Names are not resolved: anything else
 *                           is taken as 0.0.0.0, which is all addresses of this machine
 * @param port               TCP port, taken modulo 65536; 0: the system chooses, and getsockname()
 *                           on tv_get_server_polling_fd() returns it. Choose a port below 32768:
 *                           the system assigns source ports from 32768 upwards, so while no server
 *                           runs a client on the same host can occupy a higher port or connect to
 *                           itself
 * @param respHandler        for replies to the server's own requests; null: none
 * @param timeoutHandler     for their timeouts; null: none
 * @param connectedCallback  replaces the one registered before; null: none
 * @return the server channel's id, or -1: a server is already running (and keeps running), no
 *         memory, or the address cannot be listened on */
int tv_start_service_server(const char *ip, int port, tv_resp_handler respHandler,
                            tv_timeout_handler timeoutHandler, tv_connected_cb connectedCallback);

/** Starts the server without handlers: tv_start_service_server(ip, port, NULL, NULL, NULL). This
 * clears the connected callback. */
int tv_start_server(const char *ip, int port);

/** Stops the server: closes every pair in order of acceptance, then the listening socket.
 *
 * The fd-close callback runs for each pair, the disconnected callback does not. The disconnected,
 * fd-open and fd-close callbacks stay registered for the next start; everything that was set on the
 * server channel is gone and must be set again. Does nothing while no server runs. Unregister the
 * listening descriptor from the event loop before the call. */
void tv_stop_server(void);

/** Returns the listening descriptor, or -1 (logged) while no server runs. */
int tv_get_server_polling_fd(void);

/** Accepts one connection from the listening descriptor fd, makes it a pair and calls the fd-open
 * callback: the event loop's handler for the listening descriptor.
 *
 * Blocks until a client connects if none is waiting: call it only when fd is readable. The pair has
 * the server's handlers and poll timeout already when the fd-open callback runs; changes that the
 * callback makes to the server's poll timeout, link-down callback or heartbeat reach the pair.
 *
 * @param fd    the listening descriptor
 * @param arg1  not used
 * @param arg2  not used
 * @return 0, or -1: the accept failed, or the connection is closed again because no server runs,
 *         there is no memory, or the callback has closed the pair */
int tv_server_fd_handler(int fd, intptr_t arg1, intptr_t arg2);

/** Receives one message on the pair with the descriptor fd and handles it: the event loop's handler
 * for a pair's descriptor. Blocks until the whole message is there, for at most the poll timeout.
 *
 * A failed receive calls the pair's link-down callback. A descriptor that belongs to no pair is not
 * read; that is logged.
 *
 * @param fd    a pair's descriptor
 * @param arg1  not used
 * @param arg2  not used
 * @return 0 */
int tv_pair_fd_handler(int fd, intptr_t arg1, intptr_t arg2);

/** Sets the server's connected callback. Every start replaces it, so register it after the start.
 *
 * @param channelId  not used
 * @param callback   null: none
 * @return 0 */
int tv_register_connected_callback(int channelId, tv_connected_cb callback);

/** Sets the server's disconnected callback, before or after the start.
 *
 * @param channelId  not used
 * @param callback   null: none
 * @return 0 */
int tv_register_disconnected_callback(int channelId, tv_disconnected_cb callback);

/** Sets the server's fd-open callback, before or after the start.
 *
 * @param callback  null: none
 * @return 0 */
int tv_register_client_fd_open_callback(tv_client_fd_cb callback);

/** Sets the server's fd-close callback, before or after the start.
 *
 * @param callback  null: none
 * @return 0 */
int tv_register_client_fd_close_callback(tv_client_fd_cb callback);

/** Sets the heartbeat and the link-down callback of all pairs, those connected and those to come.
 * The heartbeats of connected pairs start now, with a full interval; otherwise as
 * tv_client_enable_heartbeat(), which also says what an interval below 1 does to a running
 * heartbeat.
 *
 * @param interval          milliseconds between heartbeats; below 1: none is started
 * @param count             heartbeats that may go unanswered
 * @param linkdownCallback  replaces the link-down callback of every pair; null: none
 * @return 0, also while no server runs (nothing happens) */
int tv_service_enable_heartbeat(int interval, int count, tv_linkdown_cb linkdownCallback);

/** Sends one request to every pair, in order of acceptance, without awaiting replies. Clients
 * should not answer it; tv_send_rqst() says why.
 *
 * A pair on which a request of the server still awaits its reply is skipped. If the send to a pair
 * fails, its link-down callback is called, which may close any pair. Blocks for at most the sum of
 * the pairs' poll timeouts.
 *
 * @param data    request bytes; null: nothing is sent
 * @param length  0 or more
 * @return 0, even if sends failed */
int tv_broadcast_rqst_to_client(const void *data, int length);

/** Lists the pairs' descriptors in order of acceptance.
 *
 * The number of descriptors is not reported: fill the array with -1 first to find the end. If there
 * are more than maxsize, that is logged.
 *
 * @param fds      receives at most maxsize descriptors; further elements are unchanged
 * @param maxsize  elements of fds; with 0 or less nothing is written
 * @return 0 */
int tv_get_all_client_fds(int *fds, int maxsize);

/** Finds the pair whose client logged in as "tcp://ip:port".
 *
 * The text is compared exactly: an address written differently does not match. Only the first 63
 * characters of the URL are compared, because pairs store no more.
 *
 * @param ip    the address in the client's URL; null finds nothing
 * @param port  the port in the client's URL
 * @return the pair's id, or -1: none has this URL */
int tv_get_client_channel(const char *ip, int port);

/** Closes one client's connection. Another name of tv_close_channel(). */
void tv_close_client_connection(int channelId);

#ifndef TOLVANE_APPLICATION_ONLY

/** Makes a record a server channel and opens its listening socket: a step of
 * tv_start_service_server(). Does not add it to the repository.
 *
 * @param channel    allocated with malloc(), of any content; null is refused
 * @param channelId  from tv_get_channel_id()
 * @param ip         as for tv_start_service_server()
 * @param port       as for tv_start_service_server()
 * @return 0, or -1: null, no memory (the record is unchanged), or the address cannot be listened on
 *         (the record has no socket) */
int create_server_channel(tv_channel *channel, int channelId, const char *ip, int port);

/** Makes an accepted descriptor a pair, as tv_server_fd_handler() does.
 *
 * @param fd  taken over: on failure it is closed
 * @return 0, or -1: no server runs, no memory, or the fd-open callback has closed the pair */
int create_pair_channel(int fd);

/** Stores a pair's URL, cut to 63 characters. The only way to change it.
 *
 * @return 0 */
int update_pair_channel(tv_channel *channel, const char *url);

/** Handles a received login on a pair: closes an older pair with the same URL, calls the connected
 * callback and stores the URL. A login without a payload marker, or with an empty URL (0x00 alone
 * is one), is dropped.
 *
 * @param channel  the pair; a callback may have closed it when the call returns
 * @param msg      released
 * @return 0 */
int login_msg_received(tv_channel *channel, char *msg);

/** Handles a received logout on a pair: closes the pair, then calls the disconnected callback, with
 * the empty text if the message has no payload marker.
 *
 * @param channel  the pair, closed when the call returns
 * @param msg      released
 * @return 0 */
int logout_msg_received(tv_channel *channel, char *msg);

/** Calls the fd-close callback if the channel is a pair, and takes the channel out of pairList.
 *
 * @param channel  may be null
 * @return 0, also for null; or 1 if it was not in the list */
int server_remove_channel(tv_channel *channel);

#endif

/* ---- 5  Event loop -------------------------------------------------------------------------
 *
 * A poll() loop over at most TV_MAX_POLLING_FDS descriptors, which also fires the timers.
 *
 * An application with a loop of its own waits for at most ruvo_timer_get_expected_interval(), then
 * calls the handlers of the descriptors that are readable (sections 2 and 4), and then
 * ruvo_fire_timer(): read first, then fire, so that a reply that has arrived is not counted as
 * late. It takes events one by one, or checks with a zero-timeout poll() before every handler but
 * the first: an earlier handler may have closed the descriptor, and its number may have been
 * given to another connection, on which the handler would block. */

/** Registers a descriptor with the event loop. It is polled from the next pass on.
 *
 * Exception: if poll() reported a descriptor in the running pass, that descriptor has since been
 * closed, fd has reused its number, and fd is readable, then the handler is called in this pass.
 *
 * A descriptor that is registered twice takes two slots, and the handler of the lower slot serves
 * both.
 *
 * @param fd       an open descriptor; not checked
 * @param handler  not null; not checked
 * @param arg1     passed to the handler
 * @param arg2     passed to the handler
 * @return 0, or -1: all slots are taken */
int tv_register_polling_fd(int fd, tv_fd_handler handler, intptr_t arg1, intptr_t arg2);

/** Stops watching a descriptor, effective immediately. Call it before the descriptor is closed. If
 * fd is registered twice, one call clears the lower slot.
 *
 * @return 0, or -1: it is not registered */
int tv_unregister_polling_fd(int fd);

/** Runs the event loop: waits, fires the timers that are due, then serves the ready descriptors in
 * the order of their slots.
 *
 * Before it calls a handler it checks again that the descriptor is readable, if anything may have
 * changed since poll(). Timers are fired before descriptors are read, see tv_timeout_handler.
 * Returns only when poll() fails with an error other than EINTR, after perror() has printed it: the
 * process lacks memory, or its RLIMIT_NOFILE is below the number of registered descriptors. To act
 * on signals, register a signalfd or a pipe. */
void tv_main_loop(void);

#ifndef TOLVANE_APPLICATION_ONLY

/** Reserves a slot of the descriptor table, for tv_register_polling_fd(). Lowers the number of
 * slots that are still available but marks none as used: two calls in a row return the same index,
 * and a program that calls it loses a slot each time.
 *
 * @return the index of the lowest free slot, or TV_MAX_POLLING_FDS if none is available */
int reserve_fd_index(void);

/** Lists the registered descriptors for poll(), in the order of their slots.
 *
 * @param list  each entry gets a descriptor, events POLLIN and revents 0
 * @param size  elements of list
 * @return how many were written */
int build_polling_fd_list(struct pollfd *list, int size);

/** Does nothing but log the call. Kept for programs written for a loop with a fixed interval. */
void tv_set_polling_interval(int interval);

/** Does nothing but log the call. Kept for programs written for a loop with a fixed interval. */
void disable_polling_timer(void);

#endif

/* ---- 6  Log --------------------------------------------------------------------------------
 *
 * The log is off until a sink is set. An entry is "<date and time>
 * [<file>-><function>:<line>]<message>" and two line feeds. If both sinks are set, entries go to
 * the stream only. Text from the network is truncated to 65,536 characters and otherwise written
 * unchanged, including line feeds. */

#ifndef TOLVANE_APPLICATION_ONLY

/** The log stream, or null. Set it with tv_set_log_fd(). */
extern FILE *fp_log;

/** The log path; empty: none. Set it with tv_set_log_file(). */
extern char log_file[TV_LOG_FILE_SIZE];

#endif

/** Sends the log to a stream while its position is below TV_LOG_LIMIT; a stream without a position,
 * such as a pipe or a terminal, has no limit. A pipe that nobody reads blocks the process.
 *
 * @param fp  stays the caller's and must stay open until it is replaced; it is not flushed here.
 *            Null: log to the path again
 * @return 0 */
int tv_set_log_fd(FILE *fp);

/** Appends the log to a file until the file is larger than TV_LOG_LIMIT. The file is opened and
 * closed for every entry, so it may be moved away at any time.
 *
 * If RLIMIT_FSIZE is below TV_LOG_LIMIT, an entry beyond it raises SIGXFSZ, which ends the process
 * unless it is ignored.
 *
 * @param path  cut to 127 characters; empty: no path; null: nothing changes
 * @return 0 */
int tv_set_log_file(const char *path);

#ifndef TOLVANE_APPLICATION_ONLY

/* ---- 7  Request and reply ------------------------------------------------------------------
 *
 * What tv_send_rqst() and the descriptor handlers do, on a record. A channel awaits at most one
 * reply and owes at most one; requests that arrive meanwhile are queued. Callbacks may have closed
 * the channel when one of these functions returns. */

/** Sets a record's fields to those of a new channel without a socket. serverPort, serverIp, url,
 * msgBuf, actors and rqstQueueItems are left as they are. */
void init_channel(tv_channel *channel, int channelId);

/** Sends a request, as tv_send_rqst(). */
int send_rqst(tv_channel *channel, const char *payload, int len, int timeout);

/** Answers the pending request, as tv_send_resp(). */
int send_resp(tv_channel *channel, const char *payload, int len);

/** Serves a received request now, or queues it if the channel awaits or owes a reply.
 *
 * @param channel  may be null
 * @param msg      taken over; released when the request has been served or refused
 * @param len      length of msg
 * @return 0, or -1: null, the queue is full (not logged), no payload marker, no actor took it, its
 *         reply could not be sent, or an actor closed the channel */
int process_channel_rqst(tv_channel *channel, char *msg, int len);

/** Takes a received reply: ends the wait, calls the response handler, then serves the queue.
 *
 * @param channel  may be null
 * @param msg      released
 * @param len      length of msg
 * @return 0, or -1: null, or no reply is awaited */
int process_channel_resp(tv_channel *channel, char *msg, int len);

/** Appends an actor to a record, as tv_register_actor().
 *
 * @return 0, or -1: null, a pair, or TV_MAX_ACTORS actors already */
int register_actor(tv_channel *channel, tv_actor actor);

/** Stops the heartbeat and closes the descriptor: a step of tv_close_channel(). The record stays
 * allocated and in its lists, with its requests and callbacks; its type is TV_CHANNEL_NONE. */
void close_channel(tv_channel *channel);

/** Returns the descriptor to watch, or -1: null (logged), or no connection. */
int get_polling_fd(tv_channel *channel);

/** Returns 1 if the queue is empty, otherwise 0. */
int rb_is_empty(const ring_buffer *rb);

/** Appends an item to a queue. The item is copied, its message is not.
 *
 * @return 0, or -1 if all slots are taken */
int rb_push_item(ring_buffer *rb, rb_item item);

/** Takes the oldest item out of a queue.
 *
 * @param rb   the queue
 * @param out  unchanged if the queue is empty
 * @return 0, or -1 if it is empty */
int rb_pop_item(ring_buffer *rb, rb_item *out);

/* ---- 8  Heartbeat and dispatch -------------------------------------------------------------- */

/** Restarts the channel's heartbeat with a full interval and nothing missed.
 *
 * @param channel  may be null
 * @return 0, also if the channel has no heartbeat of its own (the server channel, a closed one) or
 *         no timer could be started (the next accepted message tries again); or -1: null, or
 *         hbInterval is below 1 (nothing changes) */
int enable_heartbeat(tv_channel *channel);

/** Sends one heartbeat if the channel's mode is TV_HEARTBEAT_ON. A failed send is reported by the
 * link-down callback only.
 *
 * @param channel  null: nothing happens */
void send_heartbeat(tv_channel *channel);

/** Sends a heartbeat acknowledgement.
 *
 * @return 0, or -1 if it was not sent */
int send_heartbeat_ack(tv_channel *channel);

/** Handles a received heartbeat: acknowledges it, whatever the channel's own mode.
 *
 * @param channel  the channel that received it
 * @param msg      released */
void heartbeat_received(tv_channel *channel, char *msg);

/** Handles a received acknowledgement. Accepting it has restarted the heartbeat already.
 *
 * @param channel  not used
 * @param msg      released */
void heartbeat_ack_received(tv_channel *channel, char *msg);

/** Checks a received message's sequence number and, if it is accepted, stores it and restarts the
 * heartbeat. It accepts only the number after the stored one, or any number if 0 is stored.
 *
 * @param channel  may be null
 * @param seq      the message's number
 * @return 0, or -1: refused, or null */
int tv_msg_received(tv_channel *channel, int seq);

/** Receives one message on a client channel and handles it.
 *
 * @return 0 if nothing came or the message was handled; or -1: its number or type was refused, or
 *         the result of process_channel_rqst() or process_channel_resp() */
int handle_client_polling_fd(tv_channel *channel);

/* ---- 9  Channel lists ----------------------------------------------------------------------
 *
 * Circular lists in the order of insertion; searches return the oldest match. The repository and
 * pairList are also indexed: a search of a long list visits at most 32 entries and one chain of the
 * index. Both may be read freely. Their nodes, the links between them and the fields of their
 * records change only through the library's operations.
 *
 * To make a list, let both links of a head point to the head itself. Searching a head with null
 * links fails and is logged. */

/** Appends a record. A record that is in the list already gets a second node.
 *
 * @param head     an initialised list: null links crash
 * @param channel  stays the caller's
 * @return the new node, which the list owns; or null without memory (the list is unchanged) */
tv_channel_node *add_channel(tv_channel_list *head, tv_channel *channel);

/** Removes the oldest entry with the id from the list. The record is unchanged.
 *
 * @return 0, or 1 if there is none */
int remove_channel(tv_channel_list *head, int channelId);

/** Returns the oldest channel with the id, or null. */
tv_channel *get_channel(tv_channel_list *head, int channelId);

/** Returns the oldest channel whose URL is exactly url, or null. */
tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url);

/** Removes all entries from the list. The records are unchanged.
 *
 * @param head  an initialised list, empty or not: null links crash */
void clean_channel_repo(tv_channel_list *head);

/* ---- 10  Message text ----------------------------------------------------------------------
 *
 * A message is the sequence number, a line feed, the tag of its type, the channel's URL (on a pair:
 * its client's), the payload marker and the payload. The readers take a message as text up to its
 * first 0x00; a received message always has one just past its last byte. docs/protocol.md shows the
 * bytes. */

/** Builds a request in msgBuf and advances the channel's sequence number.
 *
 * @param channel  null is refused
 * @param payload  null is refused
 * @param len      0 or more
 * @return the message's length; 0: channel or payload is null; or -1: it does not fit (msgBuf then
 *         holds its header), or len is negative (msgBuf is unchanged). Unless a message was built,
 *         the number is unchanged */
int pack_outgoing_rqst(tv_channel *channel, const char *payload, int len);

/** Builds a reply in msgBuf, as pack_outgoing_rqst() builds a request. */
int pack_outgoing_resp(tv_channel *channel, const char *payload, int len);

/** Builds a login in msgBuf and advances the channel's sequence number.
 *
 * @param channel  the sender
 * @param text     the payload, sent with its NUL: the client's URL
 * @return the message's length, or -1: it does not fit (the number is unchanged) */
int build_login_msg(tv_channel *channel, const char *text);

/** Builds a logout in msgBuf, as build_login_msg() builds a login. */
int build_logout_msg(tv_channel *channel, const char *text);

/** Builds a heartbeat in dst and advances the channel's sequence number.
 *
 * @param channel  the sender; hbSequence, hbInterval and hbCount make the payload
 * @param dst      at least size bytes; 512 are enough
 * @param size     bytes of dst
 * @return the message's length, or -1: it does not fit (the number is unchanged) */
int build_heartbeat_msg(tv_channel *channel, char *dst, int size);

/** Builds a heartbeat acknowledgement in dst, as build_heartbeat_msg() builds a heartbeat. */
int build_heartbeat_ack_msg(tv_channel *channel, char *dst, int size);

/** Returns a message's type, a TV_MSG_ value. The whole text, including the payload, is searched
 * for tags; if there are several, the lowest type wins. */
int get_msg_type(const char *msg);

/** Returns a message's sequence number, or 0 if it has none. A number beyond 32 bits becomes the
 * nearest one within. */
int get_msg_sequence(const char *msg);

/** Copies the URL in a message's header.
 *
 * @param msg   the message
 * @param dst   gets the URL, cut to size - 1 characters
 * @param size  bytes of dst, 1 or more
 * @return 0, or -1: no tag, no payload marker, the first marker precedes the tag, or size is below
 *         1 (dst is unchanged) */
int get_msg_url(const char *msg, char *dst, int size);

/** Finds a message's payload.
 *
 * @param msg         the message
 * @param len         its length
 * @param payloadLen  gets the payload's length, or 0
 * @return the payload inside msg, or null: no payload marker within len */
const char *get_msg_payload(const char *msg, int len, int *payloadLen);

/** Returns the number after the name "sequence" in a heartbeat's payload, 0 if no digits follow the
 * name; or -1: no such name, or no closing brace after it. */
int get_heartbeat_sequence(const char *text);

/** Returns the number after the name "interval", as get_heartbeat_sequence(). */
int get_heartbeat_interval(const char *text);

/** Returns the number after the name "count", as get_heartbeat_sequence(). */
int get_heartbeat_count(const char *text);

/* ---- 11  Channel transport ----------------------------------------------------------------- */

/** Returns the descriptor of the channel's socket, or -1: null, no socket, or no connection. */
int tv_impl_get_polling_fd(tv_channel *channel);

/** Sends a message as one frame within the channel's poll timeout.
 *
 * @param channel  null is refused
 * @param msg      the message
 * @param len      its length
 * @return 0; or -1: no descriptor, the listening channel, a negative length, or the frame was not
 *         sent whole (only then the link-down callback has run, and may have closed the channel) */
int tv_impl_send_rqst(tv_channel *channel, const char *msg, int len);

/** Sends a message: another name of tv_impl_send_rqst(). */
int tv_impl_send_resp(tv_channel *channel, const char *msg, int len);

/** Receives one message.
 *
 * A failed receive, and a frame without a body, call the link-down callback, which may close the
 * channel: use the record only after a message with at least one byte. Without a descriptor, and on
 * the listening channel, nothing is called.
 *
 * @param channel    null is refused
 * @param len        gets the message's length, or 0
 * @param timeoutMs  milliseconds for the whole frame; 0 or less: no limit, and a non-blocking
 *                   descriptor is tried again and again without a pause
 * @return the message, to be released with tv_impl_free_msg(), also if it is empty; or null */
char *tv_impl_recv_with_timeout(tv_channel *channel, int *len, int timeoutMs);

/** Receives one message within the channel's poll timeout, as tv_impl_recv_with_timeout(). */
char *tv_impl_recv(tv_channel *channel, int *len);

/** Closes the channel's descriptor and releases its socket.
 *
 * @param channel  null: nothing happens */
void tv_impl_close_channel(tv_channel *channel);

/** Releases a received message.
 *
 * @param msg  null: nothing happens */
void tv_impl_free_msg(char *msg);

/** Does nothing.
 *
 * @return 0 */
int tv_impl_set_retransmit_interval(int interval);

/* ---- 12  Sockets and frames ----------------------------------------------------------------
 *
 * A frame is a header of 36 bytes, with the watermark and the body's length, and the body. Every
 * transfer is tried first; the library waits only when the kernel would block. A frame that fails
 * leaves the stream out of step: close the connection. */

/** Sends one frame.
 *
 * @param fd         a connected socket, blocking or not
 * @param body       the message
 * @param len        0 or more
 * @param timeoutMs  milliseconds for the whole frame; 0 or less: nothing is sent
 * @return len, or -1 */
int tcp_impl_send_with_timeout(int fd, const char *body, int len, int timeoutMs);

/** Receives one frame.
 *
 * With a timeout, one deadline covers header and body, on blocking descriptors too, however the
 * bytes arrive. After it, the receive still succeeds if the rest is already in the socket's buffer
 * and the body has at most 256 KiB, the most that one recv() takes; otherwise it fails. Memory is
 * used only as bytes arrive, whatever length the header announces.
 *
 * @param fd         a connected socket
 * @param len        gets the body's length; meaningless after a failure
 * @param timeoutMs  milliseconds; 0 or less: no limit, and a non-blocking descriptor is tried again
 *                   and again without a pause
 * @return the body in a block from malloc(), followed by a 0x00 that is not counted; or null */
char *tcp_impl_receive_with_timeout(int fd, int *len, int timeoutMs);

/** Receives one frame without a time limit: tcp_impl_receive_with_timeout() with 0. */
char *tcp_impl_receive(int fd, int *len);

/** Opens a listening socket. It is blocking.
 *
 * @param ip    dotted IPv4 address; anything else is taken as 0.0.0.0
 * @param port  TCP port, taken modulo 65536; 0: the system chooses
 * @return the descriptor, which is the caller's; or -1 with nothing left open */
int impl_create_server_socket(const char *ip, int port);

/** Connects a socket. A socket that was connected to itself, which can happen on one host while no
 * server listens on the port, counts as a failed connect.
 *
 * @param ip         dotted IPv4 address; anything else is taken as 0.0.0.0, which is this machine
 * @param port       TCP port, taken modulo 65536
 * @param timeoutMs  milliseconds; 0 or less: as long as the system keeps trying
 * @return the connected, non-blocking descriptor, which is the caller's; or -1 with nothing left
 *         open */
int impl_create_client_socket(const char *ip, int port, int timeoutMs);

/** Makes a socket non-blocking and connects it. A socket that was connected to itself counts as a
 * failed connect.
 *
 * @param fd         a TCP socket; on failure it is the caller's to close
 * @param addr       the address
 * @param addrlen    its size
 * @param timeoutMs  milliseconds; 0 or less: fails unless the connect completes at once
 * @return fd, or -1 */
int _impl_nonblock_connect(int fd, const struct sockaddr *addr, socklen_t addrlen, int timeoutMs);

/** Accepts one connection and makes it non-blocking. Blocks if none is waiting.
 *
 * @return its descriptor, or a negative value */
int tcp_impl_accept_socket(int listenFd);

#endif /* TOLVANE_APPLICATION_ONLY */

#ifdef __cplusplus
}
#endif

#endif
