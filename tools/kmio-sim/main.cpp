// kmio-sim: network devices without hardware. See simUsage() for the options.

#include <cstdio>
#include <exception>
#include <string>

#include "sim_net.h"
#include "sim_options.h"
#include "simulator.h"

int main(int argc, char** argv) {
    kmiosim::SimOptions options;
    try {
        options = kmiosim::parseSimOptions(argc, argv);
    } catch (const kmiosim::UsageError& error) {
        std::fprintf(stderr, "kmio-sim: %s\n\n%s", error.what(), kmiosim::simUsage());
        return 2;
    }
    if (options.help) {
        std::fputs(kmiosim::simUsage(), stdout);
        return 0;
    }
    try {
        kmiosim::prepareProcess();
        kmiosim::StopRequest stop;
        kmiosim::Simulator simulator(options);
        if (const int signal = simulator.run(stop); signal != 0) {
            std::printf("stopping on signal %d\n", signal);
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kmio-sim: %s\n", error.what());
        return 1;
    }
}
