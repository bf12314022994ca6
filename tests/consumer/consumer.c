/* consumer.c - a client and a server in one process, on the library's loop; C11 and C++17 alike.
 *
 * Prints "pong" when the reply has come. */

#include <ruvo_timer.h>
#include <tolvane.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

static int pong(int id, const char *payload, int len, char **reply, int *replyLen)
{
    if (get_channel_type(id) != TV_CHANNEL_PAIR || len != 4 || memcmp(payload, "ping", len) != 0)
        return TV_ACTOR_PASS;
    *reply = (char *)memcpy(malloc(len), "pong", len);
    *replyLen = len;
    return TV_ACTOR_HANDLED;
}

static void on_reply(int id, const char *payload, int len)
{
    printf("%.*s\n", len, payload);
    exit(tv_disconnect_server(id));
}

static void on_open(int fd)
{
    tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0);
}

static void give_up(intptr_t status, intptr_t unused)
{
    exit((int)(status + unused));
}

int main(void)
{
    struct sockaddr_in bound;
    socklen_t size = sizeof(bound);
    const int server = tv_start_server("127.0.0.1", 0), fd = tv_get_server_polling_fd();
    getsockname(fd, (struct sockaddr *)&bound, &size);
    tv_register_actor(server, pong);
    tv_register_client_fd_open_callback(on_open);
    tv_register_polling_fd(fd, tv_server_fd_handler, 0, 0);

    const tv_client_addr address = {"127.0.0.1", "consumer", ntohs(bound.sin_port), 0};
    const int client = tv_create_client_channel(&address);
    tv_register_resp_handler(client, on_reply);
    if (tv_connect_server(client) != 0 || tv_send_rqst(client, "ping", 4, 5000) != 0)
        return 1;
    tv_register_polling_fd(tv_get_polling_fd(client), tv_channel_fd_handler, client, 0);
    ruvo_start_timer(10000, give_up, 2, 0);
    tv_main_loop();
    return 1;
}
