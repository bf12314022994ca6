/* consumer.c - a client and a server in one process, on a loop of its own; C11 and C++17 alike.
 *
 * Prints "pong" when the reply has come. */

#include <ruvo_timer.h>
#include <tolvane.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int replied;
static struct pollfd watched[3]; /* the listening descriptor, the client's, the pair's */

static int pong(int id, const char *payload, int len, char **reply, int *replyLen)
{
    (void)id;
    if (len != 4 || memcmp(payload, "ping", 4) != 0)
        return TV_ACTOR_PASS;
    *reply = (char *)malloc(4);
    if (*reply == NULL)
        return TV_ACTOR_HANDLED;
    memcpy(*reply, "pong", 4);
    *replyLen = 4;
    return TV_ACTOR_HANDLED;
}

static void on_reply(int id, const char *payload, int len)
{
    (void)id;
    printf("%.*s\n", len, payload);
    replied = 1;
}

static void on_open(int fd)
{
    watched[2].fd = fd;
}

static void give_up(intptr_t arg1, intptr_t arg2)
{
    (void)arg1;
    (void)arg2;
    exit(2);
}

static uint16_t start_server(void)
{
    struct sockaddr_in bound;
    socklen_t size = sizeof(bound);
    const int server = tv_start_server("127.0.0.1", 0);
    tv_register_actor(server, pong);
    tv_set_poll_timeout(server, 5000);
    tv_register_client_fd_open_callback(on_open);
    watched[0].fd = tv_get_server_polling_fd();
    if (getsockname(watched[0].fd, (struct sockaddr *)&bound, &size) != 0)
        return 0;
    return ntohs(bound.sin_port);
}

static int start_client(uint16_t port)
{
    tv_client_addr address;
    memset(&address, 0, sizeof(address));
    strcpy(address.serverIp, "127.0.0.1");
    strcpy(address.clientIp, "consumer");
    address.serverPort = port;
    const int client = tv_create_client_channel(&address);
    tv_set_connect_timeout(client, 5000);
    tv_set_poll_timeout(client, 5000);
    tv_register_resp_handler(client, on_reply);
    if (tv_connect_server(client) != 0 || tv_send_rqst(client, "ping", 4, 5000) != 0)
        exit(1);
    watched[1].fd = tv_get_polling_fd(client);
    return client;
}

int main(void)
{
    for (int i = 0; i < 3; i++) {
        watched[i].fd = -1;
        watched[i].events = POLLIN;
    }
    const int client = start_client(start_server());
    ruvo_start_timer(10000, give_up, 0, 0);
    while (!replied) {
        if (poll(watched, 3, ruvo_timer_get_expected_interval()) < 0)
            return 1;
        ruvo_fire_timer();
        if (watched[0].revents != 0)
            tv_server_fd_handler(watched[0].fd, 0, 0);
        if (watched[1].revents != 0)
            tv_channel_fd_handler(watched[1].fd, client, 0);
        if (watched[2].revents != 0)
            tv_pair_fd_handler(watched[2].fd, 0, 0);
    }
    tv_close_channel(client);
    tv_stop_server();
    return 0;
}
