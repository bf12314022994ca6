// contender.h - what a contender of the speed comparison is, and what it shares with the driver.
#ifndef CONTENDER_H
#define CONTENDER_H

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

// One end of a connection, which moves payloads of theTask.len bytes. What a contender does not
// need is left empty.
struct link_end {
    std::function<void(const char *payload)> send;
    std::function<const char *()> receive; // valid until the next call
    std::function<void()> close;
    std::function<void()> flush; // sends some of what send() has queued
};

struct contender {
    const char *name;
    // Client: connect to a server. Serving, in a process of its own: accept one client and return the
    // end on which the driver answers. A contender that answers by itself never returns.
    link_end (*open)(int port, bool serving);
    int outstanding = 1; // requests that the client sends before it receives their replies
};
extern const std::vector<contender> contenders;  // peers.cpp
extern const std::vector<contender> outstanding; // with many requests outstanding

struct task {
    const char *payload; // text without a 0x00
    int len;
    bool oneWay;     // messages from client to server without replies
    bool broadcasts; // the layer's server sends 60 kB to all its clients every 50 ms
};
extern task theTask;

void check(bool ok, const char *what);

// memcpy() in pieces: glibc before 2.39 copies more than 2 KiB by one instruction, which takes 16
// times as long on some processors if the destination starts less than 64 bytes after the source,
// modulo 4096. Two blocks of 60 KiB from malloc() often do.
inline void copy(char *dst, const char *src, int len)
{
    const int piece = 2048;
    for (int done = 0; done < len; done += piece)
        memcpy(dst + done, src + done, std::min(piece, len - done));
}

// For servers. The first: connections are accepted from now on; the second counts one-way messages.
void server_is_ready();
void message_received();

link_end open_library(int port, bool serving);
void library_serve_many(int port); // from an event loop of its own

link_end open_layer(int port, bool serving);
link_end open_layer_both_ask(int port, bool serving); // the server sends a request for each request
void layer_serve(int port);

struct crowd {
    int readers; // log in and read
    int stopped; // log in and read nothing
    int halves;  // send half a frame
};
void join_crowd(int port, const crowd &who); // until the server is gone

#endif
