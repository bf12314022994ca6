/* consumer.c - a client and a server in one process, on the library's loop; C11 and C++17 alike.
 *
 * Prints "pong" when the reply has come. */

#include <ruvo_timer.h>
#include <tolvane.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

static int pong(int id, const char *payload, int len, char **reply, int *replyLen)
{
    if (id < 0 || len != 4 || memcmp(payload, "ping", 4) != 0)
        return TV_ACTOR_PASS;
    *reply = (char *)malloc(4);
    if (*reply == NULL)
        exit(1);
    memcpy(*reply, "pong", 4);
    *replyLen = 4;
    return TV_ACTOR_HANDLED;
}

static void on_reply(int id, const char *payload, int len)
{
    printf("%.*s\n", len, payload);
    tv_stop_server();
    exit(id < 0);
}

static void on_open(int fd)
{
    tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0);
}

static void give_up(intptr_t status, intptr_t unused)
{
    exit((int)(status + unused));
}

static uint16_t start_server(void)
{
    struct sockaddr_in bound;
    socklen_t size = sizeof(bound);
    const int server = tv_start_server("127.0.0.1", 0), fd = tv_get_server_polling_fd();
    tv_register_actor(server, pong);
    tv_register_client_fd_open_callback(on_open);
    tv_register_polling_fd(fd, tv_server_fd_handler, 0, 0);
    return getsockname(fd, (struct sockaddr *)&bound, &size) == 0 ? ntohs(bound.sin_port) : 0;
}

int main(void)
{
    tv_client_addr address = {"127.0.0.1", "consumer", 0, 0};
    address.serverPort = start_server();
    const int client = tv_create_client_channel(&address);
    tv_register_resp_handler(client, on_reply);
    if (tv_connect_server(client) != 0 || tv_send_rqst(client, "ping", 4, 5000) != 0)
        return 1;
    tv_register_polling_fd(tv_get_polling_fd(client), tv_channel_fd_handler, client, 0);
    ruvo_start_timer(10000, give_up, 2, 0);
    tv_main_loop();
    return 1;
}
