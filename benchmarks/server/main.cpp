// The benchmark server as a program: prints its ports, without and with TLS, in a line and serves
// until its standard input ends. Usage: orvx_bench_server CERTIFICATE KEY
// One thread.

#include "Server.h"

#include <exception>
#include <iostream>
#include <stdexcept>

int main(int argc, char** argv) {
    try {
        if (argc != 3) {
            throw std::invalid_argument("usage: orvx_bench_server CERTIFICATE KEY");
        }
        orvx::benchmarks::Server server(argv[1], argv[2]);
        std::cout << server.port() << ' ' << server.tlsPort() << std::endl;
        server.run();
        return 0;
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
