// The benchmark server as a program: prints its port in a line and serves until its standard input
// ends.
// One thread.

#include "Server.h"

#include <exception>
#include <iostream>

int main() {
    try {
        orvx::benchmarks::Server server;
        std::cout << server.port() << std::endl;
        server.run();
        return 0;
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
