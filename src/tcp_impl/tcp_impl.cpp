// tcp_impl.cpp - the transport of one channel: its descriptor, its messages, its broken link.
//
// Callers  tv_channel.cpp and tv_client.cpp; tv_guard.cpp and tv_server_api.cpp free messages
//          through it. All of a channel's traffic passes through here on its way to and from
//          impl_socket.cpp.
// Failure  a failed transfer is reported to the channel's link-down callback, which may close the
//          channel, so callers must not touch the record after a failure.
// State    none but the channel's socket.

#include "tv_internal.h"
#include "tv_log.h"

#include <stdlib.h>
#include <unistd.h>

// Return the field that holds the channel's socket, or null.
static tv_socket **find_socket(tv_channel *channel)
{
    if (channel->pairSocket != nullptr)
        return &channel->pairSocket;
    if (channel->clientSocket != nullptr)
        return &channel->clientSocket;
    return channel->serverSocket != nullptr ? &channel->serverSocket : nullptr;
}

int tv_impl_get_polling_fd(tv_channel *channel)
{
    if (channel == nullptr)
        return -1;
    tv_socket **slot = find_socket(channel);
    if (slot == nullptr) {
        TV_LOG("tv_impl_get_polling_fd, channel is invalid");
        return -1;
    }
    return (*slot)->fd;
}

static int _impl_get_io_socket(tv_channel *channel)
{
    if (channel == nullptr)
        return -1;
    if (get_channel_type(channel->channelId) == TV_CHANNEL_SERVER) {
        TV_LOG("error in tv_impl_send_rqst, could not send msg to listening socket");
        return -1;
    }
    return tv_impl_get_polling_fd(channel);
}

int tv_impl_send_rqst(tv_channel *channel, const char *msg, int len)
{
    const int fd = _impl_get_io_socket(channel);
    if (fd == -1)
        return -1;
    if (len < 0) {
        TV_LOG("%s, negative length[%d]", __func__, len);
        return -1;
    }
    if (tcp_impl_send_with_timeout(fd, msg, len, channel->pollTimeout) == len)
        return 0;

    if (report_linkdown(channel))
        TV_LOG("linkdown_callback end");
    return -1;
}

int tv_impl_send_resp(tv_channel *channel, const char *msg, int len)
{
    return tv_impl_send_rqst(channel, msg, len);
}

char *tv_impl_recv_with_timeout(tv_channel *channel, int *len, int timeoutMs)
{
    const int fd = _impl_get_io_socket(channel);
    if (fd == -1) {
        *len = 0;
        return nullptr;
    }
    note_input_taken(fd);
    char *msg = tcp_impl_receive_with_timeout(fd, len, timeoutMs);
    if (msg == nullptr || *len == 0)
        report_linkdown(channel);
    return msg;
}

char *tv_impl_recv(tv_channel *channel, int *len)
{
    return tv_impl_recv_with_timeout(channel, len, channel != nullptr ? channel->pollTimeout : 0);
}

void tv_impl_close_channel(tv_channel *channel)
{
    if (channel == nullptr)
        return;
    const int fd = tv_impl_get_polling_fd(channel);
    if (fd != -1)
        close(fd);
    tv_socket **slot = find_socket(channel);
    if (slot != nullptr) {
        free(*slot);
        *slot = nullptr;
    }
}

void tv_impl_free_msg(char *msg)
{
    free(msg);
}

int tv_impl_set_retransmit_interval(int)
{
    return 0;
}
