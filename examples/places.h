// places.h - a server's clients in the 16 places of the library's loop: when it is full, further
// clients wait in the system's queue until one leaves.
#ifndef EXAMPLES_PLACES_H
#define EXAMPLES_PLACES_H

#include "common.h"

inline int listenFd = -1;
inline bool listening; // listenFd has a place in the event loop

// Take new clients while there is a place for the listening descriptor.
inline void listen_again()
{
    if (listenFd != -1 && !listening)
        listening = tv_register_polling_fd(listenFd, tv_server_fd_handler, 0, 0) == 0;
}

// A client has connected. When the loop is full it gets the place of the listening descriptor. If
// that stayed registered, the loop would accept clients that nobody could ever serve.
inline void on_fd_open(int fd)
{
    static bool told;
    if (tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0) == 0)
        return;
    tv_unregister_polling_fd(listenFd);
    listening = false;
    if (tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0) != 0)
        fail("no place in the event loop"); // cannot happen: one was given up just now
    if (!std::exchange(told, true))
        tell("full, further clients have to wait");
}

inline void on_fd_close(int fd)
{
    tv_unregister_polling_fd(fd);
    listen_again();
}

// Call before the server is stopped: the places that become free are not for new clients.
inline void stop_listening()
{
    if (listening)
        tv_unregister_polling_fd(listenFd);
    listenFd = -1;
}

// Start to take clients, and tell where.
inline void start_listening()
{
    tv_register_client_fd_open_callback(on_fd_open);
    tv_register_client_fd_close_callback(on_fd_close);
    listenFd = tv_get_server_polling_fd();
    listen_again();
    tell("listening on port %d", port_of(listenFd));
}

#endif
