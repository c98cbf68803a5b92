#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace kmiosim {

// What the command line asks the simulator to be.
struct SimOptions {
    std::vector<std::uint32_t> interfaces;  // IPv4, host order, in command-line order
    unsigned count = 1;
    std::string serialPrefix = "SIM";
    std::uint16_t firstPort = 55550;
    std::uint8_t protocolId = 42;
    // The device type travels as the header's selector: a host filters
    // discovery by selector and reports a device's selector as its type.
    std::uint32_t deviceType = 7;
    std::string info = "kmio-sim";

    // Faults for testing hosts.
    std::uint32_t replyVersion = 1;
    int delayMs = 0;
    unsigned garbage = 0;
    bool tcp = true;

    bool help = false;
};

// A command line the simulator cannot use; the text says why.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Parses argv[1..]. Throws UsageError.
SimOptions parseSimOptions(int argc, const char* const* argv);

// The --help text.
const char* simUsage();

// Serial number of device `index` (from 0): prefix and a 4-digit number from 1.
std::string serialNumberOf(const SimOptions& options, unsigned index);

}  // namespace kmiosim
