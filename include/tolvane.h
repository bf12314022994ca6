/* tolvane.h - request and reply messages between processes over TCP, on one thread.
 *
 * The one public header of libtolvane.so, for C11 and C++17. Its sections go from the application
 * down to the sockets; most programs need sections 2 to 6 only:
 *
 *   1  Types and records           5  Event loop               9   Channel lists
 *   2  Channels by id              6  Log                      10  Message text
 *   3  Client                      7  Request and reply        11  Channel transport
 *   4  Server                      8  Heartbeat, dispatch      12  Sockets and frames
 *
 * CONVENTIONS, true of every entry below unless it says otherwise
 *
 * Results    0 is success and -1 failure, or a length, an id or a descriptor, or -1. A record
 *            that is not found is a null pointer. errno is no result: what a failed system
 *            call left in it is good for a message to a reader, and no more. Most failures are
 *            logged, once, where they are detected (section 6). A failed operation changes
 *            nothing but what its entry names.
 * Time       milliseconds, measured on the monotonic clock: a changed wall clock moves nothing.
 * Sizes      bytes. Lengths are int and never negative: a negative one is refused.
 * Text       NUL-terminated. A text that is too long for its record is cut, never overrun.
 * Ownership  the library copies every text and payload that it is given before the call returns
 *            and keeps no pointer to it. What a callback is handed is valid until the callback
 *            returns, unless its type says otherwise.
 * Threads    none are started and nothing is locked. One thread makes every call, and every
 *            callback runs on it, inside such a call or inside the event loop.
 * Blocking   a connect, a send or a receive takes at most the channel's connect time-out or
 *            poll time-out, also if the peer sends without a pause. Until they are set, a
 *            connect takes as long as the system tries, about two minutes, and a transfer up to
 *            24.8 days: set them (section 2).
 * Closing    where a callback type forbids closing its own channel, do it later, for example
 *            from a timer. Closing there all the same is safe for memory: the channel is gone
 *            at once, and the operation that called back stops when the callback returns.
 * Callbacks  return normally: no C++ exception and no longjmp() may leave one.
 * Signals    none are raised: a peer that vanished is a failed send, never SIGPIPE. A log
 *            stream of the application's is another matter: a pipe that nobody reads.
 * Children   all descriptors are close-on-exec. After fork() one of the two processes only may
 *            go on using them: they share the connections and the listening port, and of two
 *            that accept one hangs.
 */
#ifndef TOLVANE_H
#define TOLVANE_H

#include <poll.h>       /* struct pollfd */
#include <stdint.h>     /* intptr_t, uint8_t, uint16_t */
#include <stdio.h>      /* FILE */
#include <sys/socket.h> /* struct sockaddr, socklen_t */

#ifdef __cplusplus
extern "C" {
#endif

#define TV_VERSION_MAJOR 1
#define TV_VERSION_MINOR 0
#define TV_VERSION_PATCH 0
#define TV_VERSION       "1.0.0"

/* Limits, in bytes unless a comment says otherwise. */
#define TV_MSG_BUF_SIZE    0x10000  /* one message as sent: header text and payload together */
#define TV_URL_SIZE        64       /* a channel's URL with its terminating NUL */
#define TV_IP_SIZE         16       /* a dotted IPv4 text with its terminating NUL */
#define TV_MAX_ACTORS      16       /* actors a channel */
#define TV_RQST_QUEUE_SIZE 8        /* received requests waiting behind the one being served */
#define TV_MAX_POLLING_FDS 16       /* descriptors in the event loop */
#define TV_LOG_FILE_SIZE   128      /* the log path with its terminating NUL */
#define TV_LOG_LIMIT       0x200000 /* size from which a log takes no more, see section 6 */

/* ---- 1  Types and records ------------------------------------------------------------------ */

/* Channel types, as get_channel_type reports them. */
enum {
    TV_CHANNEL_SERVER = 0, /* owns the listening socket */
    TV_CHANNEL_CLIENT = 1, /* connects to a server */
    TV_CHANNEL_PAIR = 2,   /* the server's end of one accepted connection */
    TV_CHANNEL_NONE = 3    /* no such channel, or closed */
};

/* Message types, as get_msg_type reports them. */
enum {
    TV_MSG_LOGIN = 0,
    TV_MSG_LOGOUT = 1,
    TV_MSG_REQUEST = 2,
    TV_MSG_REPLY = 3,
    TV_MSG_HEARTBEAT = 4,
    TV_MSG_HEARTBEAT_ACK = 5,
    TV_MSG_UNKNOWN = 6
};

/* Results of an actor. Any value but TV_ACTOR_PASS and TV_ACTOR_DEFERRED means handled. */
enum {
    TV_ACTOR_PASS = 0,    /* not mine: offer the request to the next actor */
    TV_ACTOR_HANDLED = 1, /* handled: send *respPayload if there is one */
    TV_ACTOR_DEFERRED = 2 /* mine: the reply follows through tv_send_resp */
};

/* Heartbeat modes of a channel record. */
enum { TV_HEARTBEAT_ON = 0, TV_HEARTBEAT_OFF = 2 };

/* Serves one received request. Called with each request once, in order of registration, until
 * an actor takes it.
 *
 *   payload      the request's bytes, may hold 0x00; valid until the actor returns, and after
 *                TV_ACTOR_DEFERRED until the reply has been sent or the channel is closed
 *   payloadLen   0 or more
 *   respPayload  points to a null pointer, or to what an actor before this one left there (free
 *                that before replacing it); may be set to a reply from malloc(). It belongs to
 *                the library then, which frees it whatever the actor returns
 *   respLen      points to 0, or to what an actor before left; the reply's length. A reply that
 *                does not fit leaves the request owed: tv_send_resp may answer it
 *
 * While a deferred reply is owed, up to TV_RQST_QUEUE_SIZE further requests wait their turn. An
 * actor that runs its channel's descriptor handler, or a loop, before it returns gives up a
 * request that was deferred there, if it then replies or defers its own: the other's payload is
 * gone, and it gets no reply. If it returns without a reply, the other one stays owed. Must not
 * close its own channel. */
typedef int (*tv_actor)(int channelId, const char *payload, int payloadLen, char **respPayload,
                        int *respLen);

/* Receives the reply to the channel's request: at most once a request. A reply without a payload
 * marker arrives as null and 0. May send the next request. Must not close its own channel. */
typedef void (*tv_resp_handler)(int channelId, const char *payload, int payloadLen);

/* Tells that a request's time-out passed: at most once a request, and not after its reply.
 * The request still counts as outstanding until the handler returns: a request sent from here on
 * the same channel is refused. Only a handler that runs the channel's own descriptor handler, or a
 * loop, may find the reply after all: the response handler runs then, too, and the next request
 * is not refused any more. Must not close its own channel. */
typedef void (*tv_timeout_handler)(int channelId);

/* Tells that the link is down: after every failed send or receive on a connection, after an empty
 * frame, and once when the heartbeat gives up. It does not run inside itself: what it sends on
 * the channel just fails. A send or receive without a connection, or on the listening channel,
 * does not call it. url is the channel's own field. The channel stays open until it is closed,
 * here or later; its descriptor may stay readable, so unregister it from the loop at the latest
 * here. May close its channel, except when a reply fails while queued requests are being served;
 * as that cannot be told from here, the library copes with both. */
typedef void (*tv_linkdown_cb)(int channelId, const char *url);

/* Tells the server that a client has logged in on pair channelId. An older pair with the same URL
 * is closed by then, and tv_get_client_channel finds the new one once the callback has returned:
 * neither if the URL is longer than 63 characters, or if the application has taken the older pair
 * out of the repository. Must not close the pair. */
typedef void (*tv_connected_cb)(int channelId, const char *url);

/* Tells the server that a client is gone. After a logout the pair is closed already and the id
 * names nothing; when a newer login replaces the pair, it is closed right after the callback
 * (which is logged as a miss if the callback has closed it). May close any channel. */
typedef void (*tv_disconnected_cb)(int channelId, const char *url);

/* Announces a pair's descriptor to the server: opened, once a connection, to be registered with
 * the event loop; or about to be closed, once a close, to be unregistered. The one for opened
 * descriptors must not close the pair. */
typedef void (*tv_client_fd_cb)(int fd);

/* Serves one ready descriptor of the event loop; arg1 and arg2 are those of its registration.
 * The result is ignored. May register, unregister and close any descriptor. */
typedef int (*tv_fd_handler)(int fd, intptr_t arg1, intptr_t arg2);

/* Addresses of a new client channel. */
typedef struct tv_client_addr {
    char serverIp[TV_IP_SIZE]; /* dotted IPv4 text of the server; any other, a host name too, means
                                  0.0.0.0: this machine */
    char clientIp[TV_IP_SIZE]; /* names this client in its URL; need not be its real address */
    uint16_t serverPort;
    uint16_t clientPort; /* names this client in its URL */
} tv_client_addr;

/* A socket, owned by its channel. */
typedef struct tv_socket {
    int fd; /* -1: a client channel that is not connected */
} tv_socket;

/* One received request in a queue. */
typedef struct rb_item {
    char *msg; /* received message buffer */
    int len;   /* its length as received */
} rb_item;

/* A queue of requests. Both indices equal capacity while it is empty. */
typedef struct ring_buffer {
    rb_item *items;
    int lastIdx;  /* newest item */
    int firstIdx; /* oldest item */
    int capacity; /* slots, all of them usable */
} ring_buffer;

/* A channel: everything the library knows of one end of a connection. Applications hold its id,
 * not its address, which dies with tv_close_channel. The fields may be read; write them through
 * the operations below. */
typedef struct tv_channel {
    int channelId; /* never -1, never changes */
    tv_resp_handler respHandler;
    tv_timeout_handler timeoutHandler;
    tv_linkdown_cb linkdownCallback;
    int rqstTimerId;           /* time-out of the outstanding request, -1: none */
    int pollTimeout;           /* of every send and receive; 0x7fffffff at first */
    int connectTimeout;        /* of a client's connect; -1 at first: no limit but the system's */
    uint16_t serverPort;       /* client only */
    char serverIp[TV_IP_SIZE]; /* client only */
    char url[TV_URL_SIZE];     /* a client's own; a pair's after its client's login, else empty */
    uint8_t waitingResp;       /* 1: a request of this channel awaits its reply */
    char msgBuf[TV_MSG_BUF_SIZE]; /* the outgoing message */
    int msgSequence;              /* number of the next message sent */
    int recvSequence;             /* number of the last message accepted; 0: accepts any next */
    int actorCount;
    tv_actor actors[TV_MAX_ACTORS];
    char *pendingRqst;     /* the request that the application still has to answer */
    ring_buffer rqstQueue; /* the requests behind it */
    rb_item rqstQueueItems[TV_RQST_QUEUE_SIZE];
    int hbMode;              /* TV_HEARTBEAT_ON or TV_HEARTBEAT_OFF */
    int hbInterval;          /* below 1: no heartbeat starts */
    int hbCount;             /* unanswered heartbeats before the link is declared down */
    int hbTimerId;           /* -1: none */
    int hbSequence;          /* heartbeats sent since the last accepted message */
    int hbMissCount;         /* expiries since the last accepted message */
    tv_socket *clientSocket; /* at most one of the three is set: the channel's type */
    tv_socket *serverSocket;
    tv_socket *pairSocket;
} tv_channel;

/* The two links of a channel list: of its head, and first in each of its nodes. A head whose
 * links point to itself is an empty list. */
typedef struct tv_channel_list {
    struct tv_channel_list *next;
    struct tv_channel_list *prev;
} tv_channel_list;

/* An entry of a channel list. The list owns the node, not the channel. */
typedef struct tv_channel_node {
    tv_channel_list links;
    tv_channel *channel;
} tv_channel_node;

/* The service server of this process. */
typedef struct tv_server {
    tv_channel *serverChannel; /* null while no server runs */
    tv_channel_list pairList;  /* pairs in order of acceptance; null links before the first start */
    tv_connected_cb connectedCallback;
    tv_disconnected_cb disconnectedCallback;
    tv_client_fd_cb clientFdOpenCallback;
    tv_client_fd_cb clientFdCloseCallback;
    char listenIp[64]; /* as given to the start; for the application, not used by the library */
} tv_server;

/* The server's record. Read it; write it through section 4. */
extern tv_server tv_service_server;

/* ---- 2  Channels by id ---------------------------------------------------------------------
 *
 * Every operation here that takes an id first finds its channel. When there is none it logs
 * "could not get channel with id[%d] in %s", with its own name, and returns -1, null, or nothing.
 * get_channel_type returns TV_CHANNEL_NONE and tv_channel_fd_handler 0; what get_channel_type and
 * tv_set_poll_timeout log is a miss of tv_get_channel. */

/* Return the next channel id: 0, 1, 2 and so on through all 32-bit numbers but -1. Uses it up.
 * An id comes round again after all the others. */
int tv_get_channel_id(void);

/* Return the channel's record, or null. The record is valid until the channel is closed. */
tv_channel *tv_get_channel(int channelId);

/* Return the channel's type, TV_CHANNEL_...; TV_CHANNEL_NONE for an id that names nothing. A
 * client channel is one also while it is not connected. */
int get_channel_type(int channelId);

/* List a record in the repository, so that its id finds it. The record stays its owner's until
 * tv_close_channel releases it with free(), and takes it out however often it is listed. Returns
 * the new node, which belongs to the repository, or null without memory. The library lists the
 * channels it creates itself. */
tv_channel_node *tv_add_channel(tv_channel *channel);

/* Take the channel with the record's id out of the repository. Returns 0, or 1 when it was not
 * listed. Closes and releases nothing: a client's record is the caller's then; a pair and the
 * server channel stay the server's, and tv_stop_server closes and releases them. */
int tv_remove_channel(tv_channel *channel);

/* End a channel: tell the server's application of the descriptor about to close (pairs only),
 * stop the heartbeat, close the descriptor, take the channel out of the repository, and release
 * the record with all requests it still holds. A client's descriptor has to be unregistered from
 * the event loop before. No other callback is called: not the time-out handler of a request
 * still outstanding, nor a link-down or disconnected callback. The id names nothing afterwards.
 * Closing a running server's own channel leaves its pairs open, to be closed by their ids before
 * the next start, which forgets them; use tv_stop_server instead. */
void tv_close_channel(int channelId);

/* Append an actor to a client or server channel; it may be appended more than once and stays
 * for the channel's life. Pairs take the server channel's actors when they are accepted. Returns
 * 0, or -1: no such channel, a pair, or TV_MAX_ACTORS actors already. */
int tv_register_actor(int channelId, tv_actor actor);

/* Set the channel's handler of replies, time-outs or link losses; null clears it. Set on the
 * server channel it reaches the pairs accepted afterwards. Returns 0, or -1: no such channel. */
int tv_register_resp_handler(int channelId, tv_resp_handler handler);
int tv_register_timeout_handler(int channelId, tv_timeout_handler handler);
int tv_register_linkdown_callback(int channelId, tv_linkdown_cb cb);

/* Set how long one send or receive of the channel may block, in milliseconds, 1 or more. The
 * limit covers a whole message, from its first byte to its last. Set on the server channel it
 * reaches the pairs accepted afterwards. Returns 0, or -1: no such channel, or timeoutMs below 1
 * (nothing changes then). */
int tv_set_poll_timeout(int channelId, int timeoutMs);

/* Set how long a connect of the client channel may block, in milliseconds. A value below 1
 * changes nothing. Until it is set, a signal whose handler does not restart calls makes a connect
 * fail. */
void tv_set_connect_timeout(int channelId, int timeoutMs);

/* Send one request on a channel and start waiting for its reply.
 *
 *   channelId  a connected client channel or a pair channel
 *   payload    request bytes, may hold 0x00, not null; copied before the call returns
 *   len        0 or more; header and payload together fit TV_MSG_BUF_SIZE bytes (with a URL of
 *              21 characters and sequence number 0 that leaves 65468 for the payload)
 *   timeout    milliseconds to wait for the reply; 0 or less: no reply is awaited
 *
 * Returns 0 when the request is sent, or -1: no such channel, a request still awaits its reply,
 * the message does not fit, not connected, or the send failed (then, and only then, the link-down
 * callback has run). After 0 with a positive timeout exactly one of the response handler and the
 * time-out handler runs, unless the channel is closed first, the timer could not be started
 * (logged: only a reply ends the wait then), or the time-out handler itself receives on the
 * channel (both may run then). Blocks for at most the channel's poll time-out.
 *
 * A message whose send failed has used up its number, and the peer refuses what follows on that
 * connection: give the connection up.
 *
 * While the channel awaits a reply, the peer's requests wait in its queue, until the reply, the
 * time-out, or a tv_send_resp that answers the one before them: two requests that cross wait for
 * each other until one of them times out.
 *
 * A payload must not contain "velun_tolvane_" before its first 0x00: the receiver searches the
 * whole text for the type of the message, and a payload could change it.
 *
 * A reply that comes while no request awaits one is discarded. Replies carry no number of their
 * request: one that is too late, or one to a request without a time-out, is taken for the reply
 * to a newer request if that one waits when it comes. Where this matters, put a mark of your own
 * into the payload, and have it returned; and do not answer what needs no answer. */
int tv_send_rqst(int channelId, const char *payload, int len, int timeout);

/* Answer the request for which an actor returned TV_ACTOR_DEFERRED, then serve the requests that
 * waited behind it: actors may run before the call returns. The payload is as for tv_send_rqst.
 * Returns 0 when the reply is sent, or -1: no such channel, no request to answer (also inside the
 * actor that takes it), the message does not fit, not connected, or the send failed (then, and
 * only then, the link-down callback has run). After a failure other than the first two the
 * request is still to be answered, after a failed send not on this connection. Blocks for at most
 * the channel's poll time-out, and again for each reply that an actor gives to a waiting one. */
int tv_send_resp(int channelId, const char *payload, int len);

/* Return the descriptor to watch for the channel, or -1: no such channel, or not connected. It
 * stays the channel's: watch it, but neither read nor close it. */
int tv_get_polling_fd(int channelId);

/* The event loop's handler for a client channel's descriptor: receive one message and handle it.
 * Register it with the channel's id as arg1; fd and arg2 are not used. Returns 0. */
int tv_channel_fd_handler(int fd, intptr_t channelId, intptr_t arg2);

/* ---- 3  Client -----------------------------------------------------------------------------
 *
 * A client's life:
 *
 *   tv_create_client_channel, tv_register_... and tv_set_..., tv_connect_server,
 *   tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0), tv_main_loop,
 *   tv_disconnect_server, tv_unregister_polling_fd, tv_close_channel. */

/* Create a client channel with the URL "tcp://clientIp:clientPort", which names this client to
 * the server. addr is not kept. Returns the new channel's id, or -1 without memory. */
int tv_create_client_channel(const tv_client_addr *addr);

/* Connect to the channel's server and log in with its URL, then start the heartbeat if one is
 * set. A connection that was open is closed first: unregister its descriptor from the event loop
 * before the call, and register the new one after it. Returns 0, or -1: no such channel, not a
 * client, or the connect failed (the channel has no connection then), or the login could not be
 * sent (the link-down callback has run, the connection is open and not logged in).
 * 0 says that the login was sent, not that the server has read it. Blocks for at most the connect
 * time-out plus the poll time-out.
 *
 * The channel goes on numbering where it was, in both directions, while the server numbers each
 * connection from 0. A channel that had accepted a message numbered 1 or more therefore refuses
 * the server's messages on the next connection up to that number: to reconnect, close the channel
 * and create a new one with the same addresses. */
int tv_connect_server(int channelId);

/* Send the logout message. The server closes its end when it reads it; the channel stays open
 * until tv_close_channel. Returns 0, or -1: no such channel, not a client, not connected,
 * or the send failed (then, and only then, the link-down callback has run). */
int tv_disconnect_server(int channelId);

/* Set the client channel's heartbeat and its link-down callback.
 *
 *   interval  milliseconds between heartbeats; below 1: none is started, but one that runs is not
 *             switched off, see tv_service_enable_heartbeat
 *   count     heartbeats that may go unanswered, 0 or more
 *   cb        link-down callback, replaces the one registered before; may be null
 *
 * A silent peer is declared down (count + 1) * interval after its last accepted message. The
 * timer starts with the next tv_connect_server or accepted message. When the heartbeat has given
 * up it is off until it is set again; a link lost by a failed send or receive keeps it set. */
void tv_client_enable_heartbeat(int channelId, int interval, int count, tv_linkdown_cb cb);

/* The steps of the three operations above, on a record: fill in a record that the caller
 * allocated with malloc() (left as it was without memory for the socket), connect and log in
 * without starting a heartbeat, log out. Return 0 or -1. */
int create_client_channel(tv_channel *channel, int channelId, const tv_client_addr *addr);
int connect_server(tv_channel *channel);
int disconnect_server(tv_channel *channel);

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

/* Start the service server of this process: listen and accept into pair channels.
 *
 *   ip                 dotted IPv4 text to listen on; any other text: all addresses
 *   port               TCP port, taken modulo 65536; 0: the system chooses
 *   respHandler        for replies to the server's own requests, may be null
 *   timeoutHandler     for their time-outs, may be null
 *   connectedCallback  replaces the one registered before, null clears it
 *
 * Returns the server channel's id, or -1: a server runs already (it is left alone), no memory, or
 * the address cannot be listened on. A failed start uses up a channel id; any but a refused one
 * may have stored ip and connectedCallback all the same. Actors, time-outs and handlers set on the
 * server channel reach the pairs accepted afterwards. */
int tv_start_service_server(const char *ip, int port, tv_resp_handler respHandler,
                            tv_timeout_handler timeoutHandler, tv_connected_cb connectedCallback);

/* The same without handlers: tv_start_service_server(ip, port, NULL, NULL, NULL). */
int tv_start_server(const char *ip, int port);

/* Stop the server: close every pair in order of acceptance (with the fd-close callback, without
 * the disconnected callback), then the listening socket. The callbacks stay registered for the
 * next start. Does nothing while no server runs. Unregister the listening descriptor before. */
void tv_stop_server(void);

/* Return the listening descriptor, or -1 while no server runs. */
int tv_get_server_polling_fd(void);

/* The event loop's handler for the listening descriptor: accept one connection into a pair and
 * call the fd-open callback. arg1 and arg2 are not used. Returns 0, or -1: the accept failed, or
 * no pair could be made or none is left (the connection is closed then). */
int tv_server_fd_handler(int fd, intptr_t arg1, intptr_t arg2);

/* The event loop's handler for a pair's descriptor: receive one message and handle it. arg1 and
 * arg2 are not used. Returns 0. A failed receive calls the pair's link-down callback. */
int tv_pair_fd_handler(int fd, intptr_t arg1, intptr_t arg2);

/* Set one of the server's callbacks; null clears it. Before a start or after it, but the start
 * sets the connected callback anew. channelId is not used. Return 0. */
int tv_register_connected_callback(int channelId, tv_connected_cb callback);
int tv_register_disconnected_callback(int channelId, tv_disconnected_cb callback);
int tv_register_client_fd_open_callback(tv_client_fd_cb callback);
int tv_register_client_fd_close_callback(tv_client_fd_cb callback);

/* Supervise all clients, those connected and those to come: as tv_client_enable_heartbeat, on
 * every pair, and the timers of connected pairs start now. An interval below 1 starts nothing and
 * does not switch a running heartbeat off: that pair is declared down after count + 1 expiries
 * whatever it receives. Returns 0, also while no server runs (nothing happens then). */
int tv_service_enable_heartbeat(int interval, int count, tv_linkdown_cb linkdownCallback);

/* Send one request to every pair, in order of acceptance, without awaiting replies: a client
 * should not answer it, see the last paragraph of tv_send_rqst. A pair that still awaits the
 * reply to an earlier request is passed over; a pair whose send fails has its link-down callback
 * called, which may close any pair. Returns 0, whatever came of the single sends. Blocks for at
 * most the sum of the pairs' poll time-outs. */
int tv_broadcast_rqst_to_client(const void *data, int length);

/* Write the pairs' descriptors to fds, at most maxsize of them, in order of acceptance, and
 * leave the rest of the array as it was: fill it with -1 before to find the end. Returns 0. */
int tv_get_all_client_fds(int *fds, int maxsize);

/* Return the id of the pair whose client logged in as "tcp://ip:port", or -1: none, or a null
 * ip. The texts are compared as they are: an address written differently is another one. */
int tv_get_client_channel(const char *ip, int port);

/* Close one client's connection: tv_close_channel by another name. */
void tv_close_client_connection(int channelId);

/* The steps of the operations above. create_server_channel fills in a record and opens its
 * listening socket; create_pair_channel makes an accepted descriptor a pair, or closes it;
 * update_pair_channel stores a pair's URL, cut to 63 characters; login_msg_received and
 * logout_msg_received handle a message of that type and release it; server_remove_channel calls
 * the fd-close callback for a pair and takes it out of the server's list (1: it was not there).
 * Return 0, or -1 on failure. */
int create_server_channel(tv_channel *channel, int channelId, const char *ip, int port);
int create_pair_channel(int fd);
int update_pair_channel(tv_channel *channel, const char *url);
int login_msg_received(tv_channel *channel, char *msg);
int logout_msg_received(tv_channel *channel, char *msg);
int server_remove_channel(tv_channel *channel);

/* ---- 5  Event loop -------------------------------------------------------------------------
 *
 * A poll() loop over at most TV_MAX_POLLING_FDS descriptors, which also fires the timers. An
 * application with a loop of its own calls the three descriptor handlers when their descriptors
 * are readable, waits for at most ruvo_timer_get_expected_interval() and then calls
 * ruvo_fire_timer(), both from ruvo_timer.h. */

/* Serve a descriptor with a handler: it is polled from the next pass on, and served in this one
 * already if its number was reported ready and it is. fd is open, handler is not null; neither is
 * tested. A descriptor that is registered twice takes two places; the handler of the lower one
 * serves for both. Returns 0, or -1 when all places are taken. */
int tv_register_polling_fd(int fd, tv_fd_handler handler, intptr_t arg1, intptr_t arg2);

/* Serve a descriptor no longer, at once. Returns 0, or -1 when it is not registered. */
int tv_unregister_polling_fd(int fd);

/* Run: wait, fire the timers that are due, then serve the ready descriptors in the order of their
 * places in the table, over and over. Returns only when poll() fails with an error other than
 * EINTR, which perror() has printed then. A signal handler's work is done best by a descriptor
 * (signalfd, or a pipe) that is registered. */
void tv_main_loop(void);

/* Return the index of the lowest free place and count it as taken, or TV_MAX_POLLING_FDS when
 * there is none. For tv_register_polling_fd: a place that is counted and not filled is lost. */
int reserve_fd_index(void);

/* Fill list with the registered descriptors, to be polled for POLLIN, in the order of their
 * places. Returns how many were written, at most size. */
int build_polling_fd_list(struct pollfd *list, int size);

/* Do nothing but log their call; kept for programs written for a loop with a fixed interval. */
void tv_set_polling_interval(int interval);
void disable_polling_timer(void);

/* ---- 6  Log --------------------------------------------------------------------------------
 *
 * Off until a sink is set. An entry is "<date and time> [<file>-><function>:<line>]<message>" and
 * two line feeds. With both sinks set the stream takes the entries. */

/* The sinks as set. */
extern FILE *fp_log;
extern char log_file[TV_LOG_FILE_SIZE];

/* Log to a stream while its position is below TV_LOG_LIMIT; null: back to the path. The stream
 * stays the caller's, is not flushed here, and must stay open until it is replaced. Returns 0. */
int tv_set_log_fd(FILE *fp);

/* Log to the end of the file at path while it is not larger than TV_LOG_LIMIT. The file is
 * opened and closed for every entry, so it may be moved away at any time. The path is cut to 127
 * characters; an empty one switches the sink off, a null one changes nothing. Returns 0. */
int tv_set_log_file(const char *path);

/* ---- 7  Request and reply ------------------------------------------------------------------
 *
 * What tv_send_rqst and the descriptor handlers do, on a record. A channel awaits at most one
 * reply and owes at most one; requests that arrive meanwhile are queued. */

/* Set a record's fields to those of a new channel without a socket; serverPort, serverIp, url,
 * msgBuf, the actors and the queue's items are left as they are. */
void init_channel(tv_channel *channel, int channelId);

/* As tv_send_rqst and tv_send_resp. */
int send_rqst(tv_channel *channel, const char *payload, int len, int timeout);
int send_resp(tv_channel *channel, const char *payload, int len);

/* Serve a received request now, or queue it. Takes msg, released when it has been served.
 * Returns 0, or -1: no channel, no room in the queue, no payload marker, no actor for it, its
 * reply could not be sent, or an actor closed the channel. */
int process_channel_rqst(tv_channel *channel, char *msg, int len);

/* Take a received reply: end the wait and call the response handler, then serve the queue. Takes
 * and releases msg. Returns 0, or -1 when no reply is awaited or there is no channel. */
int process_channel_resp(tv_channel *channel, char *msg, int len);

/* Append an actor to a record, as tv_register_actor. */
int register_actor(tv_channel *channel, tv_actor actor);

/* Stop the heartbeat and close the descriptor. The record stays allocated and listed, with its
 * requests and callbacks; its type is TV_CHANNEL_NONE. tv_close_channel does the rest. */
void close_channel(tv_channel *channel);

/* Return the descriptor to watch, or -1: a null record, or not connected. */
int get_polling_fd(tv_channel *channel);

/* A queue of requests: 1 when it is empty, else 0; append an item (-1 when it is full); take
 * the oldest one (-1 when it is empty). Items are copied, their messages are not. */
int rb_is_empty(const ring_buffer *rb);
int rb_push_item(ring_buffer *rb, rb_item item);
int rb_pop_item(ring_buffer *rb, rb_item *out);

/* ---- 8  Heartbeat and dispatch -------------------------------------------------------------- */

/* Start the channel's heartbeat anew, with a full interval and nothing missed. Returns 0, also
 * for a channel without a connection of its own (the server's), and when no timer could be
 * started (the next accepted message tries again); or -1: null, or hbInterval below 1. */
int enable_heartbeat(tv_channel *channel);

/* Send one heartbeat, when the channel's mode is TV_HEARTBEAT_ON. A failed send shows only in the
 * link-down callback. */
void send_heartbeat(tv_channel *channel);

/* Answer a heartbeat. Returns 0, or -1 when the send failed. */
int send_heartbeat_ack(tv_channel *channel);

/* Take and release a received heartbeat (it is answered) or acknowledgement. */
void heartbeat_received(tv_channel *channel, char *msg);
void heartbeat_ack_received(tv_channel *channel, char *msg);

/* Check a received message's number: accepted are the successor of the last one, and any number
 * after 0. Accepting restarts the heartbeat. Returns 0, or -1: refused, or a null record. */
int tv_msg_received(tv_channel *channel, int seq);

/* Receive one message of a client channel and handle it. Returns 0 when nothing came or it was
 * handled, or -1. */
int handle_client_polling_fd(tv_channel *channel);

/* ---- 9  Channel lists ----------------------------------------------------------------------
 *
 * Circular lists in order of insertion, searched from the oldest entry on: step by step, but for
 * the library's own two, which are indexed. A head whose links are null is no list; searching it
 * is logged. */

/* Append a record. Returns the new node, which belongs to the list, or null without memory (the
 * list is unchanged then). A record that is listed already gets a second node. */
tv_channel_node *add_channel(tv_channel_list *head, tv_channel *channel);

/* Take out the first entry with the id. Returns 0, or 1 when there is none. The record is left
 * alone. */
int remove_channel(tv_channel_list *head, int channelId);

/* Return the first channel with the id, or whose URL is exactly url, or null. */
tv_channel *get_channel(tv_channel_list *head, int channelId);
tv_channel *get_channel_by_ip(tv_channel_list *head, const char *url);

/* Take out all entries. The records are left alone. head is a list, empty or not. */
void clean_channel_repo(tv_channel_list *head);

/* ---- 10  Message text ----------------------------------------------------------------------
 *
 * "<sequence>\n<tag>\n<URL>\nvelun_tolvane_payload\n" and the payload. The readers take a message
 * as text up to its first 0x00, which a received message always has: one stands just past its
 * last byte. docs/protocol.md shows the bytes. */

/* Build a message of the channel and advance its sequence number: a request or a reply with the
 * payload, a login or a logout with text and its NUL, in msgBuf; a heartbeat or an
 * acknowledgement in dst. Return the message's length, or -1: it does not fit (the destination
 * holds the beginning of its header then), or len is negative (nothing is written). After -1 the
 * number is not advanced. The first two return 0 for a null channel or payload. */
int pack_outgoing_rqst(tv_channel *channel, const char *payload, int len);
int pack_outgoing_resp(tv_channel *channel, const char *payload, int len);
int build_login_msg(tv_channel *channel, const char *text);
int build_logout_msg(tv_channel *channel, const char *text);
int build_heartbeat_msg(tv_channel *channel, char *dst, int size);
int build_heartbeat_ack_msg(tv_channel *channel, char *dst, int size);

/* Return the message's type, TV_MSG_.... The tags are searched in the whole text, payload
 * included, and the lowest type found wins. */
int get_msg_type(const char *msg);

/* Return the message's number, or 0 when it has none; a number beyond 32 bits becomes the nearest
 * one within. */
int get_msg_sequence(const char *msg);

/* Copy the sender's URL to dst, cut to size - 1 characters, size 1 or more. Returns 0, or -1: no
 * tag, or the first payload marker is not behind it (dst is untouched then). */
int get_msg_url(const char *msg, char *dst, int size);

/* Return the payload inside msg, of length len, and its length in *payloadLen; or null and 0 when
 * there is no payload marker within len. */
const char *get_msg_payload(const char *msg, int len, int *payloadLen);

/* Return the value in a heartbeat's payload, or -1 when it is not there. */
int get_heartbeat_sequence(const char *text);
int get_heartbeat_interval(const char *text);
int get_heartbeat_count(const char *text);

/* ---- 11  Channel transport ----------------------------------------------------------------- */

/* Return the descriptor of the channel's socket, or -1: null, no socket, or not connected. */
int tv_impl_get_polling_fd(tv_channel *channel);

/* Send a message as one frame within the channel's poll time-out. The two do the same. Return 0,
 * or -1: no descriptor, a listening one, a negative length, or the frame was not sent whole (the
 * link-down callback has run then). */
int tv_impl_send_rqst(tv_channel *channel, const char *msg, int len);
int tv_impl_send_resp(tv_channel *channel, const char *msg, int len);

/* Receive one message within a time-out, or the channel's poll time-out; 0 or less: no limit.
 * Return the message, to be released with tv_impl_free_msg, and its length in *len, or null. A
 * failed receive and an empty message (returned with length 0) call the link-down callback, but
 * without a descriptor, or on the listening channel, nothing does. The callback may have closed
 * the channel: touch the record only after a message with bytes. */
char *tv_impl_recv_with_timeout(tv_channel *channel, int *len, int timeoutMs);
char *tv_impl_recv(tv_channel *channel, int *len);

/* Close the channel's descriptor and release its socket. Null is ignored. */
void tv_impl_close_channel(tv_channel *channel);

/* Release a received message. Null is ignored. */
void tv_impl_free_msg(char *msg);

/* Do nothing. Returns 0. */
int tv_impl_set_retransmit_interval(int interval);

/* ---- 12  Sockets and frames ----------------------------------------------------------------
 *
 * A frame is 36 bytes of header, with the watermark and the body's length, and the body. A frame
 * that fails part-way leaves the stream out of step: give the connection up. */

/* Send one frame within timeoutMs, which is kept on a non-blocking descriptor only; 0 or less:
 * fails at once. Returns len, or -1. */
int tcp_impl_send_with_timeout(int fd, const char *body, int len, int timeoutMs);

/* Receive one frame. The first one takes at most timeoutMs, which is kept on a non-blocking
 * descriptor only. With 0 or less, and in the second one, there is no limit: a non-blocking
 * descriptor is then tried again and again without a pause. Return the body in a block from
 * malloc(), followed by one 0x00 that is not counted, and its length in *len; or null (*len means
 * nothing then). Memory is used up as the bytes arrive, not as the length announces them. */
char *tcp_impl_receive_with_timeout(int fd, int *len, int timeoutMs);
char *tcp_impl_receive(int fd, int *len);

/* Open a listening socket, or connect one. ip is a dotted IPv4 text; any other stands for
 * 0.0.0.0. port is taken modulo 65536. A connect waits for timeoutMs; 0 or less: as long as the
 * system does. Return the descriptor (a connected one is non-blocking), which is the caller's,
 * or -1 with nothing left open. */
int impl_create_server_socket(const char *ip, int port);
int impl_create_client_socket(const char *ip, int port, int timeoutMs);

/* Make fd non-blocking and connect it within timeoutMs; 0 or less: fails unless it connects at
 * once. Returns fd, or -1: fd is the caller's to close. */
int _impl_nonblock_connect(int fd, const struct sockaddr *addr, socklen_t addrlen, int timeoutMs);

/* Accept one connection and make it non-blocking. Returns its descriptor, or a negative value. */
int tcp_impl_accept_socket(int listenFd);

#ifdef __cplusplus
}
#endif

#endif
