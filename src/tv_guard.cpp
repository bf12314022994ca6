// tv_guard.cpp - the operations in progress: guards on channels, walks over lists.
//
// Place    beside the modules that call back into the application; tv_internal.h tells them how.
// Method   guards and walks lie on the stacks of their operations and are linked, the innermost
//          first. Closing a channel and removing an entry tell all that are concerned.
// Failure  none: nothing is allocated.
// State    the innermost guard and the innermost walk.

#include "tv_internal.h"

#include <stdlib.h>

// ---- guards

static channel_guard *guards = NULL; // the innermost one

void guard_channel(channel_guard *guard, tv_channel *channel)
{
    guard->channel = channel;
    guard->closing = false;
    guard->closed = false;
    guard->telling = false;
    guard->outer = guards;
    guards = guard;
}

bool unguard_channel(channel_guard *guard)
{
    guards = guard->outer;
    if (guard->closed)
        release_channel(guard->channel);
    return !guard->closed;
}

bool is_closing(const tv_channel *channel)
{
    for (const channel_guard *guard = guards; guard != NULL; guard = guard->outer) {
        if (guard->channel == channel && guard->closing)
            return true;
    }
    return false;
}

static void free_channel(tv_channel *channel)
{
    rb_item item;
    while (rb_pop_item(&channel->rqstQueue, &item) == 0)
        tv_impl_free_msg(item.msg);
    tv_impl_free_msg(channel->pendingRqst);
    free(channel);
}

void release_channel(tv_channel *channel)
{
    bool guarded = false;
    for (channel_guard *guard = guards; guard != NULL; guard = guard->outer) {
        if (guard->channel == channel) {
            guard->closed = true;
            guarded = true;
        }
    }
    if (!guarded)
        free_channel(channel);
}

bool report_linkdown(tv_channel *channel)
{
    if (channel->linkdownCallback == NULL)
        return false;
    for (const channel_guard *guard = guards; guard != NULL; guard = guard->outer) {
        if (guard->channel == channel && guard->telling)
            return false;
    }
    channel_guard guard; // the callback is shown the record's URL
    guard_channel(&guard, channel);
    guard.telling = true;
    channel->linkdownCallback(channel->channelId, channel->url);
    unguard_channel(&guard);
    return true;
}

// ---- walks

static list_walk *walks = NULL; // the innermost one

void begin_walk(list_walk *walk, tv_channel_list *head)
{
    walk->head = head;
    walk->next = head->next;
    walk->outer = walks;
    walks = walk;
}

tv_channel *next_channel(list_walk *walk)
{
    while (walk->next != walk->head && walk->next != NULL) {
        tv_channel_node *node = (tv_channel_node *)walk->next;
        walk->next = node->links.next;
        if (node->channel != NULL)
            return node->channel;
    }
    return NULL;
}

void end_walk(list_walk *walk)
{
    walks = walk->outer;
}

void step_walks_over(const tv_channel_list *entry)
{
    for (list_walk *walk = walks; walk != NULL; walk = walk->outer) {
        if (walk->next == entry)
            walk->next = entry->next;
    }
}
