// callbacks.h - every callback of the library but the actor, led to one function of the program; and
// how many descriptors it has open.
#ifndef CALLBACKS_H
#define CALLBACKS_H

#include "tolvane.h"

#include <fcntl.h>
#include <string.h>

// Those open, of the first 64.
inline int count_descriptors()
{
    int count = 0;
    for (int fd = 0; fd < 64; fd++)
        count += fcntl(fd, F_GETFD) != -1;
    return count;
}

// To be defined by the program: what it does in a callback, which is "resp", "timeout", "linkdown",
// "connected", "disconnected", "fd-open" or "fd-close". The text is the payload or the URL; a reply
// without a payload has a null one.
void called(const char *callback, int id, const char *text, int len);

// The id of the pair on this descriptor, or -1.
inline int pair_on(int fd)
{
    const tv_channel_list *const head = &tv_service_server.pairList;
    for (const tv_channel_list *link = head->next; link != head; link = link->next) {
        const tv_channel *pair = ((const tv_channel_node *)link)->channel;
        if (pair != nullptr && pair->pairSocket->fd == fd)
            return pair->channelId;
    }
    return -1;
}

inline void on_linkdown(int id, const char *url)
{
    called("linkdown", id, url, strlen(url));
}

inline void set_channel_callbacks(int id)
{
    tv_register_resp_handler(
        id, [](int id, const char *payload, int len) { called("resp", id, payload, len); });
    tv_register_timeout_handler(id, [](int id) { called("timeout", id, "", 0); });
    tv_register_linkdown_callback(id, on_linkdown);
}

// After a start, which clears one of them.
inline void set_server_callbacks()
{
    tv_register_connected_callback(
        -1, [](int id, const char *url) { called("connected", id, url, strlen(url)); });
    tv_register_disconnected_callback(
        0, [](int id, const char *url) { called("disconnected", id, url, strlen(url)); });
    tv_register_client_fd_open_callback([](int fd) { called("fd-open", pair_on(fd), "", 0); });
    tv_register_client_fd_close_callback([](int fd) { called("fd-close", pair_on(fd), "", 0); });
}

#endif
