// contender.h - what a contender of the speed comparison is, and what it shares with the driver.
//
// A contender is one way to move messages between two processes: a name and a function that opens
// either end of a connection. The driver starts the server's process, opens both ends, and calls
// send() and receive() on them; it alone takes times and prints. To add a contender, write its open
// function and list it in others.cpp.
#ifndef CONTENDER_H
#define CONTENDER_H

#include <algorithm>
#include <cstring>
#include <functional>
#include <vector>

// One end of a connection, which moves payloads of theTask.len bytes. Only send and receive are
// required; close is for the library's clients, flush for contenders that queue what they send.
struct link_end {
    std::function<void(const char *payload)> send;
    std::function<const char *()> receive; // valid until the next call
    std::function<void()> close;
    std::function<void()> flush = [] {}; // sends some of the queue
};

struct contender {
    const char *name;
    // A client connects and returns. A server has its own process: it accepts one client and returns
    // the end on which the driver answers, or never returns and answers itself.
    link_end (*open)(int port, bool serving);
    int outstanding = 1; // requests that the client sends before it receives their replies
};
extern const std::vector<contender> contenders;  // others.cpp
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

// Servers call these: when they accept connections, and for each one-way message.
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
