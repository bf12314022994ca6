// layer_alone.cpp - a program that includes tolvane.hpp in two translation units, this file both
// times, with every warning, without exceptions and RTTI. It has functions of its own by the names of
// some that the library exports.

#include <tolvane.hpp>

#ifdef SECOND
extern "C" int get_channel()
{
    return tolvane::endpoint{"a", 1}.url() == "tcp://a:1";
}
#else
extern "C" {
int get_channel();
int send_rqst = 1;
int add_channel()
{
    return 1;
}
}

int main()
{
    tolvane::loop loop;
    tolvane::server server(loop);
    int heard = 0;
    server.on_request([&](tolvane::request request) { heard += bool(request.reply("b")); });
    if (!server.listen("127.0.0.1", 0))
        return EXIT_FAILURE;
    tolvane::client client(loop, {"127.0.0.1", server.port()}, {"a", 1});
    const tolvane::status connecting = client.connect();
    client.request("a", std::chrono::seconds(20), [&](const tolvane::response &response) {
        heard += response.payload() == "b";
        loop.stop();
    });
    const bool works = connecting && loop.run() && heard == 2;
    return works && get_channel() + send_rqst + add_channel() == 3 ? EXIT_SUCCESS : EXIT_FAILURE;
}
#endif
