/* minimal.c - the smallest server and client with the C interface, in one file.
 *
 *   minimal server PORT   answers every request with the same text in capitals
 *   minimal client PORT   sends "hello", prints the reply and ends
 *
 * With port 0 the system chooses one, which the server prints. */

#include <ctype.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <tolvane.h>

enum { TIMEOUT = 1000, HB_INTERVAL = 1000, HB_COUNT = 2 };

/* ---- server */

static int shout(int id, const char *payload, int len, char **respPayload, int *respLen)
{
    (void)id;
    char *reply = malloc((size_t)len + 1); /* the library sends and frees it */
    for (int i = 0; reply != NULL && i < len; i++)
        reply[i] = (char)toupper((unsigned char)payload[i]);
    *respPayload = reply; /* null: no reply, and the client times out */
    *respLen = len;
    return TV_ACTOR_HANDLED;
}

static void opened(int fd)
{
    tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0);
}

static void closed(int fd)
{
    tv_unregister_polling_fd(fd);
}

static void client_lost(int id, const char *url)
{
    (void)url;
    tv_close_client_connection(id);
}

static int serve(int port)
{
    const int server = tv_start_server("127.0.0.1", port);
    if (server == -1)
        return EXIT_FAILURE;
    tv_register_actor(server, shout);
    tv_set_poll_timeout(server, TIMEOUT);
    tv_register_client_fd_open_callback(opened);
    tv_register_client_fd_close_callback(closed);
    tv_service_enable_heartbeat(HB_INTERVAL, HB_COUNT, client_lost);
    tv_register_polling_fd(tv_get_server_polling_fd(), tv_server_fd_handler, 0, 0);

    struct sockaddr_in bound = {0};
    socklen_t size = sizeof(bound);
    getsockname(tv_get_server_polling_fd(), (struct sockaddr *)&bound, &size);
    printf("listening on port %d\n", ntohs(bound.sin_port));
    fflush(stdout);
    tv_main_loop();
    return EXIT_FAILURE; /* poll() failed */
}

/* ---- client */

static void replied(int id, const char *payload, int len)
{
    printf("%.*s\n", len, payload != NULL ? payload : "");
    exit(tv_disconnect_server(id) == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}

static void timed_out(int id)
{
    (void)id;
    fprintf(stderr, "no reply\n");
    exit(EXIT_FAILURE);
}

static void server_lost(int id, const char *url)
{
    (void)id;
    (void)url;
    fprintf(stderr, "link lost\n");
    exit(EXIT_FAILURE);
}

static int ask(int port)
{
    /* The client's address and port name it to the server: "tcp://minimal:1". */
    const tv_client_addr address = {"127.0.0.1", "minimal", (uint16_t)port, 1};
    const int id = tv_create_client_channel(&address);
    tv_set_connect_timeout(id, TIMEOUT);
    tv_set_poll_timeout(id, TIMEOUT);
    tv_register_resp_handler(id, replied);
    tv_register_timeout_handler(id, timed_out);
    tv_client_enable_heartbeat(id, HB_INTERVAL, HB_COUNT, server_lost);
    if (tv_connect_server(id) != 0) {
        fprintf(stderr, "no server\n");
        return EXIT_FAILURE;
    }
    tv_register_polling_fd(tv_get_polling_fd(id), tv_channel_fd_handler, id, 0);
    if (tv_send_rqst(id, "hello", (int)strlen("hello"), TIMEOUT) == 0)
        tv_main_loop();
    return EXIT_FAILURE;
}

int main(int argc, char **argv)
{
    /* tv_set_log_fd(stderr) here would print every step, and why one failed. */
    if (argc == 3 && strcmp(argv[1], "server") == 0)
        return serve(atoi(argv[2]));
    if (argc == 3 && strcmp(argv[1], "client") == 0)
        return ask(atoi(argv[2]));
    fprintf(stderr, "arguments: server PORT, or client PORT\n");
    return EXIT_FAILURE;
}
