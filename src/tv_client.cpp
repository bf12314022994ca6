// tv_client.cpp - the client's role: its record, connecting with login, logging out.
//
// Callers  tv_api.cpp, which looks up the record by id and starts the heartbeat.
// Failure  a failed connect leaves the channel without a connection. A failed send of a login or
//          logout leaves the connection open; the link-down callback has run.
// State    none but the channel record.

#include "tv_log.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int create_client_channel(tv_channel *channel, int channelId, const tv_client_addr *addr)
{
    tv_socket *socket = (tv_socket *)malloc(sizeof(tv_socket));
    if (socket == nullptr) {
        TV_LOG("malloc error in function %s", __func__);
        return -1;
    }
    init_channel(channel, channelId);
    socket->fd = -1;

    // The strings in addr may fill their arrays and lack a terminator.
    snprintf(channel->url, sizeof(channel->url), "tcp://%.*s:%d", (int)sizeof(addr->clientIp),
             addr->clientIp, addr->clientPort);
    snprintf(channel->serverIp, sizeof(channel->serverIp), "%.*s",
             (int)sizeof(channel->serverIp) - 1, addr->serverIp);
    channel->serverPort = addr->serverPort;
    channel->clientSocket = socket;
    return 0;
}

// Send the login or logout in msgBuf, including the NUL that ends its payload. Do not touch the
// record after a failure: the link-down callback may have closed the channel.
static int send_built_msg(tv_channel *channel, const char *kind, const char *caller)
{
    TV_LOG_AT(caller, __LINE__, "client, send %s msg %s", kind, channel->msgBuf);
    if (tv_impl_send_rqst(channel, channel->msgBuf, (int)strlen(channel->msgBuf) + 1) == 0)
        return 0;
    TV_LOG_AT(caller, __LINE__, "failed to send %s msg", kind);
    return -1;
}

int connect_server(tv_channel *channel)
{
    tv_socket *socket = channel->clientSocket;
    if (socket == nullptr)
        return -1;
    if (socket->fd != -1)
        close(socket->fd);
    socket->fd =
        impl_create_client_socket(channel->serverIp, channel->serverPort, channel->connectTimeout);
    if (socket->fd == -1) {
        TV_LOG("create client or connect server fail");
        return -1;
    }
    build_login_msg(channel, channel->url);
    return send_built_msg(channel, "login", __func__);
}

int disconnect_server(tv_channel *channel)
{
    build_logout_msg(channel, channel->url);
    return send_built_msg(channel, "logout", __func__);
}
