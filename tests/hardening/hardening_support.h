#pragma once

// kmio-sim devices for the hardening tests, with serial numbers of their own
// (HZ...), so that simulators other programs run on loopback at the same
// time cannot show up in what these tests count.

#include <sstream>

#include "network/api_support.h"

namespace kmiotest {

inline std::unique_ptr<ChildProcess> startHardeningSimulator(std::uint16_t firstPort) {
    auto sim = std::make_unique<ChildProcess>(
        std::vector<std::string>{KMIO_SIM_PATH, "--iface", "127.0.0.1", "--serial-prefix", "HZ",
                                 "--first-port", std::to_string(firstPort)});
    EXPECT_TRUE(sim->waitForLine("ready", 10s)) << sim->out();
    return sim;
}

// The locators of our devices that a forced combined listing on loopback
// finds, with the reply-collection time of a normal pass.
inline std::string ourLocators(std::uint32_t& rc) {
    std::vector<char> buffer(1 << 20);
    std::size_t size = buffer.size();
    const std::string options = kLoopbackEnumeration + "only-locator\nforce-rescan 1\ndiscovery-timeout 500";
    rc = KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, options.c_str(), buffer.data(), &size);
    std::istringstream text(std::string(buffer.data(), rc == KM_IO_OK ? size : 0));
    std::string ours;
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with("network:sn:HZ")) {
            ours += (ours.empty() ? "" : "\n") + line;
        }
    }
    return ours;
}

}  // namespace kmiotest
