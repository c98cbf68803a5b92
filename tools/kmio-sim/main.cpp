// kmio-sim: network devices without hardware. See simUsage() for the options.

#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "platform/error_text.h"
#include "platform/unique_fd.h"
#include "sim_options.h"
#include "simulator.h"

namespace {

// SIGINT and SIGTERM become a readable descriptor in the poll loop, so the
// simulator stops between events and closes every socket on the way out.
kmio::UniqueFd stopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0) {
        throw std::runtime_error("Could not block signals: " + kmio::lastSystemErrorText());
    }
    kmio::UniqueFd fd(signalfd(-1, &signals, SFD_CLOEXEC));
    if (!fd) {
        throw std::runtime_error("Could not create signalfd: " + kmio::lastSystemErrorText());
    }
    return fd;
}

// A thousand devices with TCP listeners need more descriptors than the usual
// soft limit of 1024; take what the hard limit allows.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

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
        std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away must not kill us
        raiseDescriptorLimit();
        const kmio::UniqueFd stop = stopSignals();
        kmiosim::Simulator simulator(options);
        simulator.run(stop.get());
        signalfd_siginfo info{};
        if (::read(stop.get(), &info, sizeof info) == sizeof info) {
            std::printf("stopping on signal %u\n", info.ssi_signo);
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kmio-sim: %s\n", error.what());
        return 1;
    }
}
