/* consumer.c - a program that uses both libraries; C11 and C++17 alike.
 *
 * Prints the name of a client channel. */

#include <ruvo_timer.h>
#include <tolvane.h>

int main(void)
{
    const tv_client_addr address = {"127.0.0.1", "consumer", 4711, 7};
    const int id = tv_create_client_channel(&address);
    printf("%s\n", tv_get_channel(id)->url);
    tv_close_channel(id);
    return ruvo_timer_get_expected_interval() != -1;
}
