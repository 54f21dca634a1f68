// A client that is there to be killed: dials the address in its argument, and once it is ready sends posts and requests
// until it dies or its server goes.
#include <cstdio>
#include <string>

#include "standin/qscservice/ServiceEnd.h"

int main(int argc, char** argv) {
    using namespace qscservice;
    ServiceEnd::Options options;
    options.channel.role = Role::Client;
    ServiceEnd client({}, options);
    std::string error;
    if (argc != 2 || !client.Channel().Dial(argv[1], &error) || !client.WaitReady(20000)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    for (uint32_t number = 0; client.IsReady(); ++number) {
        client.Post(1, {Value(number)});
        client.Request(2, {Value(number)});
    }
    return 0;
}
