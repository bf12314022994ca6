// layer_alone.cpp - a program that includes nothing but tolvane.hpp, compiled with every warning,
// without exceptions and RTTI. It has two translation units, both of them this file. The library
// exports the names of the variables below, but tolvane.hpp must hide them from programs.

#include <tolvane.hpp>

static int get_channel = 0, send_rqst = 0, add_channel = 0, log_file = 0;

int main() // the second translation unit renames it to second(), see CMakeLists.txt
{
    tolvane::loop loop;
    tolvane::server server(loop);
    server.on_request([](tolvane::request request) { (void)request.reply("b"); });
    bool works = server.listen("127.0.0.1", 0) && server.port() != 0;
    tolvane::client client(loop, {"127.0.0.1", server.port()}, {"a", 1});
    works = works && client.connect();
    client.request("a", std::chrono::seconds(20), [&](const tolvane::response &response) {
        works = works && response.payload() == "b";
        loop.stop();
    });
    works = works && loop.run();
    return (works ? EXIT_SUCCESS : EXIT_FAILURE) + get_channel + send_rqst + add_channel + log_file;
}
