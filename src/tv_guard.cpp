// tv_guard.cpp - the operations in progress: guards on channels, walks over lists.
//
// Callers  every module that calls back while it uses a channel, and tv_channel_repo.cpp when it
//          removes an entry; see tv_internal.h.
// Method   guards and walks are local variables of their operations, linked in two chains from the
//          innermost out. Closing a channel marks its guards; removing an entry moves any walk that
//          is about to visit it to the next one.
// Failure  none: nothing is allocated.
// State    the innermost guard and the innermost walk.

#include "tv_internal.h"

#include <stdlib.h>

// ---- guards

static channel_guard *guards = nullptr; // the innermost one

channel_guard::channel_guard(tv_channel *channel) : channel(channel), outer(guards)
{
    guards = this;
}

channel_guard::~channel_guard()
{
    guards = outer;
    if (closed)
        release_channel(channel);
}

// Return the innermost guard on the channel that has the flag set, or null.
static channel_guard *find_guard(const tv_channel *channel, bool channel_guard::*flag)
{
    channel_guard *guard = guards;
    while (guard != nullptr && !(guard->channel == channel && guard->*flag))
        guard = guard->outer;
    return guard;
}

bool is_closing(const tv_channel *channel)
{
    return find_guard(channel, &channel_guard::closing) != nullptr;
}

bool mark_guards(const tv_channel *channel, bool channel_guard::*flag)
{
    bool guarded = false;
    for (channel_guard *guard = guards; guard != nullptr; guard = guard->outer) {
        if (guard->channel == channel) {
            guard->*flag = true;
            guarded = true;
        }
    }
    return guarded;
}

void release_channel(tv_channel *channel)
{
    if (mark_guards(channel, &channel_guard::closed))
        return;
    rb_item item;
    while (rb_pop_item(&channel->rqstQueue, &item) == 0)
        tv_impl_free_msg(item.msg);
    tv_impl_free_msg(channel->pendingRqst);
    free(channel);
}

bool report_linkdown(tv_channel *channel, bool repeatIfRunning)
{
    channel_guard *running = find_guard(channel, &channel_guard::inLinkdown);
    if (running != nullptr) {
        running->repeatLinkdown |= repeatIfRunning;
        return false;
    }
    if (channel->linkdownCallback == nullptr)
        return false;
    channel_guard guard(channel); // the callback reads the record's URL
    guard.inLinkdown = true;
    do {
        guard.repeatLinkdown = false;
        channel->linkdownCallback(channel->channelId, channel->url);
    } while (guard.repeatLinkdown && !guard.closed && channel->linkdownCallback != nullptr);
    return true;
}

// ---- walks

static list_walk *walks = nullptr; // the innermost one

list_walk::list_walk(tv_channel_list *head) : head(head), next(head->next), outer(walks)
{
    walks = this;
}

list_walk::~list_walk()
{
    walks = outer;
}

tv_channel *list_walk::next_channel()
{
    while (next != head && next != nullptr) {
        const tv_channel_node *entry = (const tv_channel_node *)next;
        next = entry->links.next;
        if (entry->channel != nullptr)
            return entry->channel;
    }
    return nullptr;
}

void step_walks_over(const tv_channel_list *entry)
{
    for (list_walk *walk = walks; walk != nullptr; walk = walk->outer) {
        if (walk->next == entry)
            walk->next = entry->next;
    }
}
