#pragma once

#include "network/network_discovery.h"
#include "options/option_sets.h"

namespace kmio {

// The discovery settings that the global options ask for ("discovery-iface",
// "locator-format-network"), checked in full before anything changes. Throws
// OptionsError for a value that names no interface or format, and the
// discovery exceptions when "network:all" cannot read the interface list.
NetworkDiscovery::Settings discoverySettings(const GlobalOptions& options);

}  // namespace kmio
