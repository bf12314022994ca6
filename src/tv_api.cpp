// tv_api.cpp - operations on channels by id, the repository of all channels, the log's setters.
//
// Callers  the application, and every module that has to find, list or end a channel.
// Method   each operation looks up the record, then sets its fields or passes it to tv_channel.cpp
//          or tv_client.cpp. Closing is here, because it also removes the record from both lists.
// Failure  an unknown id is logged in the name of the operation; tv_set_poll_timeout() logs the
//          name tv_get_channel.
// State    the repository and the next id, both ready as soon as the library is loaded.

#include "tv_internal.h"
#include "tv_log.h"

#include <stdlib.h>
#include <string.h>

tv_channel_list tv_repository = {&tv_repository, &tv_repository};
static uint32_t nextChannelId = 0;

// Return the channel with the id, or null after logging in the caller's name.
static tv_channel *find_channel(int channelId, const char *caller = __builtin_FUNCTION(),
                                int line = __builtin_LINE())
{
    tv_channel *channel = get_channel(&tv_repository, channelId);
    if (channel == nullptr)
        TV_LOG_AT(caller, line, "could not get channel with id[%d] in %s", channelId, caller);
    return channel;
}

// ---- repository

int tv_get_channel_id(void)
{
    if (nextChannelId == UINT32_MAX) // -1 as an int, which means failure
        nextChannelId = 0;
    return (int)nextChannelId++;
}

tv_channel *tv_get_channel(int channelId)
{
    return find_channel(channelId);
}

tv_channel_node *tv_add_channel(tv_channel *channel)
{
    return add_channel(&tv_repository, channel);
}

int tv_remove_channel(tv_channel *channel)
{
    return remove_channel(&tv_repository, channel->channelId);
}

int list_new_channel(tv_channel *channel, const char *caller)
{
    if (add_channel(&tv_repository, channel) != nullptr)
        return channel->channelId;
    TV_LOG_AT(caller, __LINE__, "malloc error in function %s", caller);
    close_channel(channel);
    release_channel(channel);
    return -1;
}

void end_channel(tv_channel *channel)
{
    tv_channel_list *pairs = &tv_service_server.pairList;
    channel_guard guard(channel);
    guard.closing = true;
    if (channel->pairSocket != nullptr)
        server_remove_channel(channel);
    else if (index_find_record(pairs, channel) != nullptr) // a pair without its tv_socket
        unlist_channel(pairs, channel);
    close_channel(channel);
    if (channel == tv_service_server.serverChannel)
        tv_service_server.serverChannel = nullptr;
    unlist_channel(&tv_repository, channel);
    release_channel(channel);
}

void tv_close_channel(int channelId)
{
    tv_channel *channel = find_channel(channelId);
    if (channel != nullptr && !is_closing(channel)) // a pair's fd-close callback may close it again
        end_channel(channel);
}

// ---- setting a channel up

int tv_register_actor(int channelId, tv_actor actor)
{
    tv_channel *channel = find_channel(channelId);
    return channel == nullptr ? -1 : register_actor(channel, actor);
}

template <typename Callback>
static int set_callback(int channelId, Callback tv_channel::*field, Callback callback,
                        const char *caller = __builtin_FUNCTION())
{
    tv_channel *channel = find_channel(channelId, caller);
    if (channel == nullptr)
        return -1;
    channel->*field = callback;
    return 0;
}

int tv_register_resp_handler(int channelId, tv_resp_handler handler)
{
    return set_callback(channelId, &tv_channel::respHandler, handler);
}

int tv_register_timeout_handler(int channelId, tv_timeout_handler handler)
{
    return set_callback(channelId, &tv_channel::timeoutHandler, handler);
}

int tv_register_linkdown_callback(int channelId, tv_linkdown_cb cb)
{
    return set_callback(channelId, &tv_channel::linkdownCallback, cb);
}

int tv_set_poll_timeout(int channelId, int timeoutMs)
{
    tv_channel *channel = tv_get_channel(channelId);
    if (channel == nullptr || timeoutMs <= 0)
        return -1;
    channel->pollTimeout = timeoutMs;
    return 0;
}

void tv_set_connect_timeout(int channelId, int timeoutMs)
{
    tv_channel *channel = find_channel(channelId);
    if (channel != nullptr && timeoutMs > 0)
        channel->connectTimeout = timeoutMs;
}

void tv_client_enable_heartbeat(int channelId, int interval, int count, tv_linkdown_cb cb)
{
    tv_channel *channel = find_channel(channelId);
    if (channel == nullptr)
        return;
    channel->hbInterval = interval;
    channel->hbCount = count;
    channel->hbMode = TV_HEARTBEAT_ON;
    channel->linkdownCallback = cb;
}

// ---- the client's connection

int tv_create_client_channel(const tv_client_addr *addr)
{
    tv_channel *channel = (tv_channel *)malloc(sizeof(tv_channel));
    if (channel == nullptr)
        return -1;
    const int channelId = tv_get_channel_id();
    if (create_client_channel(channel, channelId, addr) != 0) {
        free(channel);
        return -1;
    }
    return list_new_channel(channel, __func__);
}

// Return the client channel with the id, or null after logging in the caller's name.
static tv_channel *find_client(int channelId, const char *caller = __builtin_FUNCTION(),
                               int line = __builtin_LINE())
{
    tv_channel *channel = find_channel(channelId, caller, line);
    if (channel != nullptr && get_channel_type(channelId) != TV_CHANNEL_CLIENT) {
        TV_LOG_AT(caller, line, "failed on %s, channel[%d] is not a client", caller, channelId);
        return nullptr;
    }
    return channel;
}

int tv_connect_server(int channelId)
{
    tv_channel *channel = find_client(channelId);
    if (channel == nullptr || connect_server(channel) != 0)
        return -1;
    enable_heartbeat(channel);
    return 0;
}

int tv_disconnect_server(int channelId)
{
    tv_channel *channel = find_client(channelId);
    return channel == nullptr ? -1 : disconnect_server(channel);
}

// ---- requests, replies, descriptor

int tv_send_rqst(int channelId, const char *payload, int len, int timeout)
{
    tv_channel *channel = find_channel(channelId);
    return channel == nullptr ? -1 : send_rqst(channel, payload, len, timeout);
}

int tv_send_resp(int channelId, const char *payload, int len)
{
    tv_channel *channel = find_channel(channelId);
    return channel == nullptr ? -1 : send_resp(channel, payload, len);
}

int tv_get_polling_fd(int channelId)
{
    tv_channel *channel = find_channel(channelId);
    return channel == nullptr ? -1 : get_polling_fd(channel);
}

int tv_channel_fd_handler(int, intptr_t channelId, intptr_t)
{
    tv_channel *channel = find_channel((int)channelId);
    if (channel != nullptr)
        handle_client_polling_fd(channel);
    return 0;
}

// ---- log sinks

int tv_set_log_fd(FILE *fp)
{
    fp_log = fp;
    return 0;
}

int tv_set_log_file(const char *path)
{
    if (path != nullptr && path != log_file)
        strncpy(log_file, path, sizeof(log_file) - 1); // never writes the last byte, a NUL
    return 0;
}
