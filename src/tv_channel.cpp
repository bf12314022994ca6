// tv_channel.cpp - what one channel does: exchange, heartbeat, dispatch, actors, closing.
//
// Callers    tv_api.cpp, tv_client.cpp, tv_server_api.cpp, tolvane.hpp and, with a channel id, the
//            timers; tcp_impl.cpp for a channel's type, tv_guard.cpp for its queue.
// Exchange   outgoing: at most one request awaits its reply. Incoming: at most one request awaits
//            the application's reply; more wait in a queue of 8.
// Messages   an operation owns the message passed to it: it frees the message or stores it in
//            pendingRqst or the queue.
// Callbacks  may close their channel. After each one the operation checks its guard; if the channel
//            is closed, it frees what it still holds and stops.
// State      none but the channel records.

#include "tv_internal.h"
#include "tv_log.h"

#include "ruvo_timer.h"

#include <stdlib.h>

// Buffer for a heartbeat or an acknowledgement, which take less than 200 bytes.
static const int heartbeatBufSize = 512;

// ---- the record

void init_channel(tv_channel *channel, int channelId)
{
    channel->channelId = channelId;
    channel->respHandler = nullptr;
    channel->timeoutHandler = nullptr;
    channel->linkdownCallback = nullptr;
    channel->rqstTimerId = -1;
    channel->pollTimeout = INT_MAX;
    channel->connectTimeout = -1;
    channel->waitingResp = 0;
    channel->msgSequence = 0;
    channel->recvSequence = 0;
    channel->actorCount = 0;
    channel->pendingRqst = nullptr;
    const int size = TV_RQST_QUEUE_SIZE;
    channel->rqstQueue = {channel->rqstQueueItems, size, size, size}; // empty
    channel->hbMode = TV_HEARTBEAT_OFF;
    channel->hbInterval = 0;
    channel->hbCount = 0;
    channel->hbTimerId = -1;
    channel->hbSequence = 0;
    channel->hbMissCount = 0;
    channel->clientSocket = nullptr;
    channel->serverSocket = nullptr;
    channel->pairSocket = nullptr;
}

int get_channel_type(int channelId)
{
    const tv_channel *channel = tv_get_channel(channelId);
    if (channel == nullptr)
        return TV_CHANNEL_NONE;
    if (channel->clientSocket != nullptr)
        return TV_CHANNEL_CLIENT;
    if (channel->serverSocket != nullptr)
        return TV_CHANNEL_SERVER;
    return channel->pairSocket != nullptr ? TV_CHANNEL_PAIR : TV_CHANNEL_NONE;
}

// ---- the queue of requests

int rb_is_empty(const ring_buffer *rb)
{
    return rb->lastIdx >= rb->capacity && rb->firstIdx >= rb->capacity;
}

static int next_index(const ring_buffer *rb, int index)
{
    return index + 1 >= rb->capacity ? index + 1 - rb->capacity : index + 1;
}

int rb_push_item(ring_buffer *rb, rb_item item)
{
    const int slot = rb->lastIdx >= rb->capacity ? 0 : next_index(rb, rb->lastIdx);
    if (slot == rb->firstIdx)
        return -1;
    rb->items[slot] = item;
    rb->lastIdx = slot;
    if (rb->firstIdx >= rb->capacity)
        rb->firstIdx = slot;
    return 0;
}

int rb_pop_item(ring_buffer *rb, rb_item *out)
{
    if (rb_is_empty(rb))
        return -1;
    *out = rb->items[rb->firstIdx];
    if (rb->firstIdx == rb->lastIdx) {
        rb->firstIdx = rb->capacity;
        rb->lastIdx = rb->capacity;
    } else {
        rb->firstIdx = next_index(rb, rb->firstIdx);
    }
    return 0;
}

// ---- incoming requests

// Offer a request to the actors in turn, until one takes it or closes the channel. Returns the
// result of the last one asked, or TV_ACTOR_PASS if there are none.
static int offer_to_actors(const channel_guard &guard, const char *payload, int payloadLen,
                           char **reply, int *replyLen)
{
    const tv_channel *channel = guard.channel;
    int result = TV_ACTOR_PASS;
    for (int i = 0; result == TV_ACTOR_PASS && !guard.closed && i < channel->actorCount; i++) {
        const tv_actor actor = channel->actors[i];
        if (actor != nullptr)
            result = actor(channel->channelId, payload, payloadLen, reply, replyLen);
    }
    return result;
}

// Act on the result of the actor that took the request. Takes ownership of msg, not of reply.
static int finish_rqst(tv_channel *channel, char *msg, int result, const char *reply, int replyLen)
{
    if (result != TV_ACTOR_DEFERRED && reply == nullptr) {
        tv_impl_free_msg(msg);
        return 0;
    }
    // An actor may itself have served the channel's descriptor, directly or through a loop. If a
    // request that it served there is still pending, drop that one.
    tv_impl_free_msg(channel->pendingRqst);
    channel->pendingRqst = msg;
    return result == TV_ACTOR_DEFERRED ? 0 : send_resp(channel, reply, replyLen);
}

static int do_process_rqst(tv_channel *channel, char *msg, int len)
{
    int payloadLen = 0;
    const char *payload = get_msg_payload(msg, len, &payloadLen);
    if (payload == nullptr) {
        TV_LOG("not expected msg layout, ignore: %.*s", TV_MSG_BUF_SIZE, msg);
        tv_impl_free_msg(msg);
        return -1;
    }
    char *reply = nullptr;
    int replyLen = 0;
    int outcome = -1;
    channel_guard guard(channel);
    const int result = offer_to_actors(guard, payload, payloadLen, &reply, &replyLen);
    if (guard.closed) {
        tv_impl_free_msg(msg);
    } else if (result == TV_ACTOR_PASS) {
        TV_LOG("no actor registered to process this msg: %.*s", TV_MSG_BUF_SIZE, msg);
        tv_impl_free_msg(msg);
    } else {
        outcome = finish_rqst(channel, msg, result, reply, replyLen);
    }
    free(reply);
    return outcome;
}

static int process_queued_rqsts(tv_channel *channel)
{
    channel_guard guard(channel);
    rb_item item;
    while (!guard.closed && channel->pendingRqst == nullptr &&
           rb_pop_item(&channel->rqstQueue, &item) == 0)
        do_process_rqst(channel, item.msg, item.len);
    return 0;
}

int process_channel_rqst(tv_channel *channel, char *msg, int len)
{
    if (channel == nullptr) {
        tv_impl_free_msg(msg);
        return -1;
    }
    if (channel->pendingRqst == nullptr && !channel->waitingResp)
        return do_process_rqst(channel, msg, len);

    const rb_item item = {msg, len};
    const int result = rb_push_item(&channel->rqstQueue, item);
    if (result != 0)
        tv_impl_free_msg(msg);
    return result;
}

int send_resp(tv_channel *channel, const char *payload, int len)
{
    if (channel->pendingRqst == nullptr) {
        TV_LOG("no message pending, response discarded");
        return -1;
    }
    const int msgLen = pack_outgoing_resp(channel, payload, len);
    if (msgLen < 1 || tv_impl_send_resp(channel, channel->msgBuf, msgLen) != 0)
        return -1;
    tv_impl_free_msg(channel->pendingRqst);
    channel->pendingRqst = nullptr;
    return process_queued_rqsts(channel);
}

// ---- outgoing requests

static void rqst_timeout(intptr_t channelId, intptr_t)
{
    tv_channel *channel = tv_get_channel((int)channelId);
    if (channel == nullptr)
        return;
    channel->rqstTimerId = -1;
    if (channel->waitingResp) {
        channel_guard guard(channel);
        if (channel->timeoutHandler != nullptr)
            channel->timeoutHandler(channel->channelId);
        if (guard.closed)
            return;
        // The timeout handler may have served the descriptor and so received the reply after all.
        // If so, keep waitingResp: the response handler may have sent the next request.
        if (!guard.replyReceived)
            channel->waitingResp = 0;
    }
    process_queued_rqsts(channel);
}

int send_rqst(tv_channel *channel, const char *payload, int len, int timeout)
{
    if (channel->waitingResp) {
        TV_LOG("has pending outgoing request, could not send request now");
        return -1;
    }
    const int msgLen = pack_outgoing_rqst(channel, payload, len);
    if (msgLen < 1) {
        TV_LOG("pack requst fail:%d", msgLen);
        return -1;
    }
    if (tv_impl_send_rqst(channel, channel->msgBuf, msgLen) != 0) {
        TV_LOG("failed to send rqst");
        return -1;
    }
    if (timeout <= 0)
        return 0;

    channel->waitingResp = 1;
    channel->rqstTimerId = ruvo_start_timer(timeout, rqst_timeout, channel->channelId, 0);
    if (channel->rqstTimerId == -1)
        TV_LOG("failed on start timer for channel[%d]", channel->channelId);
    return 0;
}

int process_channel_resp(tv_channel *channel, char *msg, int len)
{
    if (channel == nullptr) {
        tv_impl_free_msg(msg);
        return -1;
    }
    if (!channel->waitingResp) {
        tv_impl_free_msg(msg);
        TV_LOG("no outgoing request, response discarded");
        return -1;
    }
    if (channel->rqstTimerId != -1)
        ruvo_stop_timer(channel->rqstTimerId);
    channel->waitingResp = 0;
    mark_guards(channel, &channel_guard::replyReceived);

    int payloadLen = 0;
    const char *payload = get_msg_payload(msg, len, &payloadLen);
    channel_guard guard(channel);
    if (channel->respHandler != nullptr)
        channel->respHandler(channel->channelId, payload, payloadLen);
    tv_impl_free_msg(msg);
    if (!guard.closed)
        process_queued_rqsts(channel);
    return 0;
}

// ---- heartbeat

static void stop_heartbeat_timer(tv_channel *channel)
{
    if (channel->hbTimerId != -1) {
        ruvo_stop_timer(channel->hbTimerId);
        channel->hbTimerId = -1;
    }
}

static void switch_heartbeat_off(tv_channel *channel)
{
    stop_heartbeat_timer(channel);
    channel->hbMode = TV_HEARTBEAT_OFF;
    channel->hbInterval = 0;
    channel->hbCount = 0;
}

static void active_hb_timeout(intptr_t arg, intptr_t)
{
    const int channelId = (int)arg;
    tv_channel *channel = tv_get_channel(channelId);
    if (channel == nullptr) {
        TV_LOG("active_hb_timeout , channel[%d] not found", channelId);
        return;
    }
    TV_LOG("active_hb_timeout, channel id[%d]", channelId);
    channel->hbMissCount++;
    if (channel->hbMissCount <= channel->hbCount) {
        send_heartbeat(channel);
        return;
    }
    switch_heartbeat_off(channel);
    report_linkdown(channel, true);
}

int enable_heartbeat(tv_channel *channel)
{
    if (channel == nullptr || channel->hbInterval < 1)
        return -1;
    if (channel->clientSocket == nullptr && channel->pairSocket == nullptr)
        return 0;
    stop_heartbeat_timer(channel);
    channel->hbMode = TV_HEARTBEAT_ON;
    channel->hbSequence = 0;
    channel->hbMissCount = 0;
    channel->hbTimerId =
        ruvo_start_periodic_timer(channel->hbInterval, active_hb_timeout, channel->channelId, 0);
    return 0;
}

void send_heartbeat(tv_channel *channel)
{
    if (channel == nullptr)
        return;
    if (channel->hbMode != TV_HEARTBEAT_ON) {
        TV_LOG("could not send HB on mode[%d]", channel->hbMode);
        return;
    }
    channel->hbSequence++;
    char msg[heartbeatBufSize];
    const int len = build_heartbeat_msg(channel, msg, sizeof(msg));
    tv_impl_send_rqst(channel, msg, len);
}

int send_heartbeat_ack(tv_channel *channel)
{
    char msg[heartbeatBufSize];
    const int len = build_heartbeat_ack_msg(channel, msg, sizeof(msg));
    return tv_impl_send_rqst(channel, msg, len);
}

void heartbeat_received(tv_channel *channel, char *msg)
{
    TV_LOG("heartbeat msg");
    send_heartbeat_ack(channel);
    tv_impl_free_msg(msg);
}

void heartbeat_ack_received(tv_channel *, char *msg) // tv_msg_received() has reset hbMissCount
{
    TV_LOG("heartbeat ack msg");
    tv_impl_free_msg(msg);
}

// ---- dispatch

int tv_msg_received(tv_channel *channel, int seq)
{
    if (channel == nullptr)
        return -1;
    const int expected = next_sequence(channel->recvSequence);
    if (channel->recvSequence != 0 && seq != expected) {
        TV_LOG("unexpected msg with seq[%d] received, ignore, expected[%d]", seq, expected);
        return -1;
    }
    channel->recvSequence = seq;
    enable_heartbeat(channel);
    return 0;
}

int serve_channel(tv_channel *channel, int (*handle_other)(tv_channel *, int type, char *msg))
{
    int len = 0;
    char *msg = tv_impl_recv_with_timeout(channel, &len, channel->pollTimeout);
    if (msg == nullptr || len == 0) { // the link-down callback may have closed the channel
        tv_impl_free_msg(msg);
        return 0;
    }
    if (tv_msg_received(channel, get_msg_sequence(msg)) != 0) {
        tv_impl_free_msg(msg);
        return -1;
    }
    const int type = get_msg_type(msg);
    switch (type) {
    case TV_MSG_REQUEST:
        return process_channel_rqst(channel, msg, len);
    case TV_MSG_REPLY:
        return process_channel_resp(channel, msg, len);
    case TV_MSG_HEARTBEAT:
        heartbeat_received(channel, msg);
        return 0;
    case TV_MSG_HEARTBEAT_ACK:
        heartbeat_ack_received(channel, msg);
        return 0;
    default:
        return handle_other(channel, type, msg);
    }
}

static int reject_msg(tv_channel *, int, char *msg)
{
    TV_LOG_AT("handle_client_polling_fd", __LINE__, "unexpected msg received");
    tv_impl_free_msg(msg);
    return -1;
}

int handle_client_polling_fd(tv_channel *channel)
{
    return serve_channel(channel, reject_msg);
}

// ---- actors, closing, descriptor

int register_actor(tv_channel *channel, tv_actor actor)
{
    if (channel == nullptr)
        return -1;
    if (channel->pairSocket != nullptr) {
        TV_LOG("should not register actor for pair channel, register for server");
        return -1;
    }
    if (channel->actorCount >= TV_MAX_ACTORS) {
        TV_LOG("too many actors, limitation is %d", TV_MAX_ACTORS);
        return -1;
    }
    channel->actors[channel->actorCount++] = actor;
    return 0;
}

void close_channel(tv_channel *channel)
{
    switch_heartbeat_off(channel);
    tv_impl_close_channel(channel);
}

int get_polling_fd(tv_channel *channel)
{
    if (channel == nullptr) {
        TV_LOG("get_polling_fd, channel is NULL");
        return -1;
    }
    return tv_impl_get_polling_fd(channel);
}
