// tv_server_api.cpp - the server's role: starting and stopping, its pairs, what arrives on them.
//
// Callers  the application, tolvane.hpp, the loop through the two descriptor handlers, and
//          tv_api.cpp when it ends a pair.
// Pairs    a pair is in the repository and in pairList; it is added to the repository first and
//          removed from pairList first. A pair of an earlier server is in the repository only.
//          Neither list owns the records.
// Failure  an accepted descriptor that cannot become a pair is closed.
// State    tv_service_server.

#include "tv_internal.h"
#include "tv_log.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

tv_server tv_service_server;

// ---- starting and stopping

int create_server_channel(tv_channel *channel, int channelId, const char *ip, int port)
{
    if (channel == nullptr)
        return -1;
    tv_socket *socket = (tv_socket *)malloc(sizeof(tv_socket));
    if (socket == nullptr) {
        TV_LOG("malloc error in function %s", __func__);
        return -1;
    }
    init_channel(channel, channelId);
    channel->url[0] = '\0'; // read when an application tries to send on the server channel
    socket->fd = impl_create_server_socket(ip, port);
    if (socket->fd == -1) {
        free(socket);
        return -1;
    }
    TV_LOG("server fd:%d", socket->fd);
    channel->serverSocket = socket;
    return 0;
}

// Drop the pairs of an earlier server whose channel was closed by id. They stay in the repository,
// so the application can still close them.
static void empty_pair_list(void)
{
    tv_channel_list *pairs = &tv_service_server.pairList;
    if (pairs->next != nullptr)
        clean_channel_repo(pairs);
    pairs->next = pairs;
    pairs->prev = pairs;
}

int tv_start_service_server(const char *ip, int port, tv_resp_handler respHandler,
                            tv_timeout_handler timeoutHandler, tv_connected_cb connectedCallback)
{
    const int channelId = tv_get_channel_id();
    if (tv_service_server.serverChannel != nullptr) {
        TV_LOG("%s, a server is running already", __func__);
        return -1;
    }
    tv_channel *channel = (tv_channel *)malloc(sizeof(tv_channel));
    if (channel == nullptr)
        return -1;
    if (ip != tv_service_server.listenIp) // a restart may pass the stored address
        snprintf(tv_service_server.listenIp, sizeof(tv_service_server.listenIp), "%s", ip);
    tv_service_server.connectedCallback = connectedCallback;
    empty_pair_list();
    if (create_server_channel(channel, channelId, ip, port) != 0) {
        free(channel);
        return -1;
    }
    channel->respHandler = respHandler;
    channel->timeoutHandler = timeoutHandler;
    if (list_new_channel(channel, __func__) == -1)
        return -1;
    tv_service_server.serverChannel = channel;
    return channelId;
}

int tv_start_server(const char *ip, int port)
{
    return tv_start_service_server(ip, port, nullptr, nullptr, nullptr);
}

// Return the oldest pair left to close, or null: there is none, or a callback has started another
// server, to which the pairs now belong.
static tv_channel *next_pair_to_stop(const tv_channel *stopping)
{
    const tv_channel *current = tv_service_server.serverChannel;
    if (current != nullptr && current != stopping)
        return nullptr;
    return list_walk(&tv_service_server.pairList).next_channel();
}

void tv_stop_server(void)
{
    tv_channel *server = tv_service_server.serverChannel;
    if (server == nullptr)
        return;

    // Closing a pair runs a callback, which may close pairs, accept one, or stop the server.
    channel_guard guard(server);
    for (tv_channel *pair = next_pair_to_stop(server); pair != nullptr;
         pair = next_pair_to_stop(server)) {
        if (is_closing(pair)) // we were called from its fd-close callback
            unlist_channel(&tv_service_server.pairList, pair);
        else
            end_channel(pair);
    }
    if (!guard.closed)
        end_channel(server);
}

int tv_get_server_polling_fd(void)
{
    return get_polling_fd(tv_service_server.serverChannel);
}

// ---- accepting

static void inherit_handlers(tv_channel *pair, const tv_channel *server)
{
    pair->actorCount = server->actorCount;
    memcpy(pair->actors, server->actors, sizeof(server->actors[0]) * server->actorCount);
    pair->respHandler = server->respHandler;
    pair->timeoutHandler = server->timeoutHandler;
}

static void inherit_link_settings(tv_channel *pair, const tv_channel *server)
{
    pair->pollTimeout = server->pollTimeout;
    pair->linkdownCallback = server->linkdownCallback;
}

static void inherit_heartbeat(tv_channel *pair, const tv_channel *server)
{
    pair->hbMode = server->hbMode;
    pair->hbInterval = server->hbInterval;
    pair->hbCount = server->hbCount;
    pair->hbSequence = 0;
    pair->hbMissCount = 0;
}

// Create the record of an accepted connection and add it to both lists. Returns null if out of
// memory.
static tv_channel *new_pair(int fd)
{
    tv_channel *pair = (tv_channel *)malloc(sizeof(tv_channel));
    tv_socket *socket = (tv_socket *)malloc(sizeof(tv_socket));
    const int channelId = tv_get_channel_id();
    if (pair != nullptr && socket != nullptr) {
        init_channel(pair, channelId);
        socket->fd = fd;
        pair->pairSocket = socket;
        pair->url[0] = '\0';
        inherit_handlers(pair, tv_service_server.serverChannel);
        inherit_link_settings(pair, tv_service_server.serverChannel);
        if (add_channel(&tv_repository, pair) != nullptr &&
            add_channel(&tv_service_server.pairList, pair) != nullptr)
            return pair;
        unlist_channel(&tv_repository, pair);
    }
    free(pair);
    free(socket);
    return nullptr;
}

int create_pair_channel(int fd)
{
    const bool running = tv_service_server.serverChannel != nullptr;
    tv_channel *pair = running ? new_pair(fd) : nullptr;
    if (pair == nullptr) {
        if (running)
            TV_LOG("malloc error in function %s", __func__);
        else
            TV_LOG("%s, no server is running", __func__);
        close(fd);
        return -1;
    }
    TV_LOG("pair fd:%d", fd);
    channel_guard guard(pair);
    if (tv_service_server.clientFdOpenCallback != nullptr)
        tv_service_server.clientFdOpenCallback(fd);
    if (guard.closed)
        return -1;

    // The callback may have changed the server's settings, or stopped the server.
    const tv_channel *server = tv_service_server.serverChannel;
    if (server != nullptr) {
        inherit_link_settings(pair, server);
        inherit_heartbeat(pair, server);
        enable_heartbeat(pair);
    }
    return 0;
}

int tv_server_fd_handler(int fd, intptr_t, intptr_t)
{
    note_input_taken(fd);
    const int pairFd = tcp_impl_accept_socket(fd);
    if (pairFd < 0) {
        TV_LOG("%s, failed on accept", __func__);
        return -1;
    }
    return create_pair_channel(pairFd);
}

int update_pair_channel(tv_channel *channel, const char *url)
{
    // A URL from the network may be of any length; the precision stops snprintf() from reading
    // it all.
    if (url != channel->url)
        snprintf(channel->url, sizeof(channel->url), "%.*s", TV_URL_SIZE - 1, url);
    index_update_url(channel);
    return 0;
}

void tv_close_client_connection(int channelId)
{
    tv_close_channel(channelId);
}

int server_remove_channel(tv_channel *channel)
{
    if (channel == nullptr)
        return 0;
    channel_guard guard(channel); // the callback may close the channel
    if (channel->pairSocket != nullptr && tv_service_server.clientFdCloseCallback != nullptr)
        tv_service_server.clientFdCloseCallback(channel->pairSocket->fd);
    return guard.closed ? 1 : unlist_channel(&tv_service_server.pairList, channel);
}

// ---- what arrives on a pair

static tv_channel *get_pair_by_fd(int fd)
{
    const tv_channel_list *head = &tv_service_server.pairList;
    const tv_channel_list *link = head->next;
    for (int steps = 1; link != nullptr && link != head && steps <= WALK_LIMIT; steps++) {
        tv_channel *pair = ((const tv_channel_node *)link)->channel;
        if (pair == nullptr || pair->pairSocket == nullptr)
            TV_LOG("internal list error, should never reach here");
        else if (pair->pairSocket->fd == fd)
            return pair;
        const tv_channel_node *found = steps == WALK_FIRST ? index_find_fd(fd) : nullptr;
        if (found != nullptr)
            return found->channel;
        link = link->next;
    }
    if (link == nullptr)
        TV_LOG("channel list is null");
    TV_LOG("could not find channel with fd[%d]", fd);
    return nullptr;
}

// Return the URL in a login or logout, of any length, or null after logging. The NUL that ends the
// message's text ends the URL too, so the message's length is not needed.
static const char *get_url_payload(const char *msg)
{
    int len = 0;
    return get_msg_payload(msg, INT_MAX, &len);
}

// Close the older connection of a client that logs in again. The disconnected callback may already
// have closed it, so close by id.
static void replace_pair(int channelId, const char *url)
{
    TV_LOG_AT("login_msg_received", __LINE__,
              "login_msg_received, close previous channel for url: %s", url);
    if (tv_service_server.disconnectedCallback != nullptr)
        tv_service_server.disconnectedCallback(channelId, url);
    tv_close_channel(channelId);
}

int login_msg_received(tv_channel *channel, char *msg)
{
    const char *url = get_url_payload(msg);
    if (url != nullptr && *url == '\0') { // it would match every pair not logged in yet
        TV_LOG("%s, empty url, ignore", __func__);
        url = nullptr;
    }
    if (url == nullptr) {
        tv_impl_free_msg(msg);
        return 0;
    }
    channel_guard guard(channel);
    const tv_channel *older = get_channel_by_ip(&tv_service_server.pairList, url);
    if (older != nullptr && older != channel)
        replace_pair(older->channelId, url);
    if (!guard.closed && tv_service_server.connectedCallback != nullptr)
        tv_service_server.connectedCallback(channel->channelId, url);
    if (!guard.closed)
        update_pair_channel(channel, url);
    tv_impl_free_msg(msg);
    return 0;
}

int logout_msg_received(tv_channel *channel, char *msg)
{
    const int channelId = channel->channelId;
    const char *url = get_url_payload(msg);
    tv_close_client_connection(channelId);
    if (tv_service_server.disconnectedCallback != nullptr)
        tv_service_server.disconnectedCallback(channelId, url != nullptr ? url : "");
    tv_impl_free_msg(msg);
    return 0;
}

static int handle_login_or_logout(tv_channel *pair, int type, char *msg)
{
    if (type == TV_MSG_LOGIN)
        return login_msg_received(pair, msg);
    if (type == TV_MSG_LOGOUT) {
        logout_msg_received(pair, msg);
        TV_LOG_AT("tv_pair_fd_handler", __LINE__, "logout msg received");
        return 0;
    }
    TV_LOG_AT("tv_pair_fd_handler", __LINE__, "unexpected msg type received!!!");
    tv_impl_free_msg(msg);
    return 0;
}

int tv_pair_fd_handler(int fd, intptr_t, intptr_t)
{
    tv_channel *pair = get_pair_by_fd(fd);
    if (pair != nullptr)
        serve_channel(pair, handle_login_or_logout);
    return 0;
}

// ---- all clients at once

int tv_broadcast_rqst_to_client(const void *data, int length)
{
    // A failed send runs the link-down callback, which may close any pair.
    list_walk walk(&tv_service_server.pairList);
    while (tv_channel *pair = walk.next_channel())
        send_rqst(pair, (const char *)data, length, 0);
    return 0;
}

int tv_service_enable_heartbeat(int interval, int count, tv_linkdown_cb linkdownCallback)
{
    tv_channel *server = tv_service_server.serverChannel;
    list_walk walk(&tv_service_server.pairList);
    if (server != nullptr) {
        server->linkdownCallback = linkdownCallback;
        server->hbInterval = interval;
        server->hbCount = count;
        server->hbMode = TV_HEARTBEAT_ON;
        while (tv_channel *pair = walk.next_channel()) {
            inherit_heartbeat(pair, server);
            enable_heartbeat(pair);
            pair->linkdownCallback = linkdownCallback;
        }
    }
    if (walk.next == nullptr)
        TV_LOG("channel list is null");
    return 0;
}

int tv_get_all_client_fds(int *fds, int maxsize)
{
    list_walk walk(&tv_service_server.pairList);
    int count = 0;
    while (count < maxsize) {
        const tv_channel *pair = walk.next_channel();
        if (pair == nullptr)
            break;
        if (pair->pairSocket != nullptr)
            fds[count++] = pair->pairSocket->fd;
        else
            TV_LOG("internal data error");
    }
    if (walk.next != walk.head && count >= maxsize)
        TV_LOG("too many fds, maxsize is [%d]", maxsize);
    else if (walk.next == nullptr)
        TV_LOG("channel list is null");
    return 0;
}

int tv_get_client_channel(const char *ip, int port)
{
    if (ip == nullptr)
        return -1;
    char url[TV_URL_SIZE];
    snprintf(url, sizeof(url), "tcp://%s:%d", ip, port);
    const tv_channel *pair = get_channel_by_ip(&tv_service_server.pairList, url);
    return pair == nullptr ? -1 : pair->channelId;
}

int tv_register_connected_callback(int, tv_connected_cb callback)
{
    tv_service_server.connectedCallback = callback;
    return 0;
}

int tv_register_disconnected_callback(int, tv_disconnected_cb callback)
{
    tv_service_server.disconnectedCallback = callback;
    return 0;
}

int tv_register_client_fd_open_callback(tv_client_fd_cb callback)
{
    tv_service_server.clientFdOpenCallback = callback;
    return 0;
}

int tv_register_client_fd_close_callback(tv_client_fd_cb callback)
{
    tv_service_server.clientFdCloseCallback = callback;
    return 0;
}
