#pragma once

// kmio-sim devices for the hardening tests, with serial numbers of their own
// (HZ...), so that simulators other programs run on loopback at the same
// time cannot show up in what these tests count.

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
    return enumerateLinesHolding(kLoopbackEnumeration + "only-locator\nforce-rescan 1", "network:sn:HZ", rc);
}

}  // namespace kmiotest
