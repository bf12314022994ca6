// contender.h - what one contender of the speed comparison is, and what the driver does for it.
//
// A contender is two functions, each run in a process of its own that is killed at the end: one
// serves, one makes requests. Both work on theTask and call the driver at the marked points.
#ifndef CONTENDER_H
#define CONTENDER_H

#include <cstddef>
#include <cstdint>

struct contender {
    const char *name;
    void (*serve)(int port);   // answers each request with an equal payload
    void (*request)(int port); // one request at a time, or one way as many as it can
    bool heartbeats;
    int clients; // growth only: connections to the server
};

struct task {
    const contender *self;
    const char *payload; // text without a 0x00
    int len;
    bool oneWay; // messages from client to server without replies
};
extern task theTask;

// Serving: connections are taken from now on; and, one way, one more message is here.
void server_is_ready();
void message_received();

// Requesting: one more round trip is over, or one way one more message sent. Waits here between
// two slices of time. False: that was the last one, the clients are to leave.
bool tick();

// growth.cpp: an application's own event loop. The handlers have the library's form, and are
// timed while clients log in and leave.
typedef int fd_handler(int fd, intptr_t, intptr_t);
void watch(int fd);
void serve_many(int listening, fd_handler *accepting, fd_handler *serving);
void run_handler(fd_handler *handler, int fd); // driver.cpp

// sockets.cpp: plain TCP, shared with what drives a server by plain connections.
int listen_on(int port);
int accept_one(int listening);
int connect_to(int port);
void send_all(int fd, const char *bytes, int len);
void receive_all(int fd, char *dst, int len);
void check(bool ok, const char *what);

// What the floor and the library's actor reply with: a block from malloc() with a copy.
char *copy_of(const char *bytes, int len);

extern const size_t channelSize; // of the library

void raw_serve(int port);
void raw_request(int port);
void floor_serve(int port);
void floor_serve_many(int port);
void floor_request(int port);
void library_serve(int port);
void library_serve_many(int port);
void library_request(int port);
void growth_request(int port);
void zmq_serve(int port);
void zmq_request(int port);
void nanomsg_serve(int port);
void nanomsg_request(int port);
void nng_serve(int port);
void nng_request(int port);

#endif
