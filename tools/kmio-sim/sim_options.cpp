#include "sim_options.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "discovery/packet.h"
#include "options/locator.h"

namespace kmiosim {

namespace {

std::uint64_t parseNumber(std::string_view name, std::string_view text, std::uint64_t max) {
    std::uint64_t value = 0;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        base = 16;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || text.empty() || value > max) {
        throw UsageError(std::string(name) + " needs a number from 0 to " + std::to_string(max) + ", not \"" +
                         std::string(text) + "\"");
    }
    return value;
}

bool takesValue(std::string_view name) {
    static constexpr std::string_view kWithValue[] = {
        "--iface",    "--count", "--serial-prefix", "--first-port", "--protocol-id", "--device-type",
        "--selector", "--info",  "--version",       "--delay-ms",   "--garbage"};
    return std::find(std::begin(kWithValue), std::end(kWithValue), name) != std::end(kWithValue);
}

}  // namespace

const char* simUsage() {
    return "usage: kmio-sim --iface ADDR [--iface ADDR]... [options]\n"
           "\n"
           "Simulates network devices that answer discovery requests on every\n"
           "--iface address and echo every byte a TCP client sends.\n"
           "\n"
           "  --iface ADDR          local IPv4 interface address (127.0.0.1 for loopback)\n"
           "  --count N             number of devices (default 1)\n"
           "  --serial-prefix TEXT  serial numbers are TEXT0001, TEXT0002, ... (default SIM)\n"
           "  --first-port PORT     device i listens on TCP PORT+i (default 55550)\n"
           "  --protocol-id N       protocol id the devices report (default 42)\n"
           "  --device-type N       device type, sent as the packet selector (default 7);\n"
           "                        requests for selector N or 0xFFFFFFFF are answered\n"
           "  --selector N          the same setting as --device-type\n"
           "  --info TEXT           device info text (default kmio-sim)\n"
           "\n"
           "Faults, for testing hosts:\n"
           "  --version N           send replies and informs with packet version N\n"
           "  --delay-ms MS         send replies MS milliseconds late\n"
           "  --garbage N           send N malformed datagrams before each reply\n"
           "  --no-tcp              open no TCP listeners (the port is still announced)\n"
           "\n"
           "Prints one line per device and per event; stops on SIGINT or SIGTERM.\n";
}

SimOptions parseSimOptions(int argc, const char* const* argv) {
    SimOptions options;
    bool typeGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--help" || name == "-h") {
            options.help = true;
            continue;
        }
        if (name == "--no-tcp") {
            options.tcp = false;
            continue;
        }
        if (i + 1 >= argc) {
            throw UsageError(std::string(name) + (takesValue(name) ? " needs a value" : ": unknown option"));
        }
        const std::string_view value = argv[++i];
        if (name == "--iface") {
            const auto address = kmio::parseIpv4(value);
            if (!address || *address == 0) {
                throw UsageError("--iface needs an IPv4 address, not \"" + std::string(value) + "\"");
            }
            if (std::find(options.interfaces.begin(), options.interfaces.end(), *address) !=
                options.interfaces.end()) {
                throw UsageError("--iface " + std::string(value) + " is given twice");
            }
            options.interfaces.push_back(*address);
        } else if (name == "--count") {
            options.count = static_cast<unsigned>(parseNumber(name, value, 65535));
        } else if (name == "--serial-prefix") {
            options.serialPrefix = value;
        } else if (name == "--first-port") {
            options.firstPort = static_cast<std::uint16_t>(parseNumber(name, value, 65535));
        } else if (name == "--protocol-id") {
            options.protocolId = static_cast<std::uint8_t>(parseNumber(name, value, 255));
        } else if (name == "--device-type" || name == "--selector") {
            const auto type = static_cast<std::uint32_t>(parseNumber(name, value, 0xFFFFFFFF));
            if (typeGiven && type != options.deviceType) {
                throw UsageError("--device-type and --selector are one setting; give one value");
            }
            options.deviceType = type;
            typeGiven = true;
        } else if (name == "--info") {
            options.info = value;
        } else if (name == "--version") {
            options.replyVersion = static_cast<std::uint32_t>(parseNumber(name, value, 0xFFFFFFFF));
        } else if (name == "--delay-ms") {
            options.delayMs = static_cast<int>(parseNumber(name, value, 60000));
        } else if (name == "--garbage") {
            options.garbage = static_cast<unsigned>(parseNumber(name, value, 1000));
        } else {
            throw UsageError(std::string(name) + ": unknown option");
        }
    }
    if (options.help) {
        return options;
    }
    if (options.interfaces.empty()) {
        throw UsageError("at least one --iface is needed");
    }
    if (options.count == 0) {
        throw UsageError("--count must be at least 1");
    }
    if (options.firstPort == 0 || options.firstPort + options.count - 1 > 65535) {
        throw UsageError("--first-port plus --count must stay within 1..65535");
    }
    if (serialNumberOf(options, options.count - 1).size() > kalometnd::kMaxSerialNumberLength) {
        throw UsageError("--serial-prefix is too long");
    }
    if (options.info.size() > kalometnd::kMaxInfoLength) {
        throw UsageError("--info is longer than 63 characters");
    }
    return options;
}

std::string serialNumberOf(const SimOptions& options, unsigned index) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%04u", index + 1);
    return options.serialPrefix + digits;
}

}  // namespace kmiosim
