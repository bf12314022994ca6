/* consumer.c - a server and its client in one process, on the library's loop; C11 and C++17 alike.
 *
 * Prints the name under which the client has logged in. */

#include <ruvo_timer.h>
#include <tolvane.h>

#include <arpa/inet.h>
#include <stdlib.h>

static void on_fd_open(int fd)
{
    tv_register_polling_fd(fd, tv_pair_fd_handler, 0, 0);
}

static void on_login(int id, const char *url)
{
    printf("%s\n", url);
    exit(get_channel_type(id) != TV_CHANNEL_PAIR);
}

int main(void)
{
    struct sockaddr_in bound;
    socklen_t size = sizeof(bound);
    tv_start_service_server("127.0.0.1", 0, NULL, NULL, on_login);
    tv_register_client_fd_open_callback(on_fd_open);
    const int fd = tv_get_server_polling_fd();
    tv_register_polling_fd(fd, tv_server_fd_handler, 0, 0);
    getsockname(fd, (struct sockaddr *)&bound, &size);
    const tv_client_addr address = {"127.0.0.1", "consumer", ntohs(bound.sin_port), 7};
    if (tv_connect_server(tv_create_client_channel(&address)) == 0)
        tv_main_loop();
    return EXIT_FAILURE;
}
