#pragma once

#include "network/network_discovery.h"

namespace kmio {

// The library's discovery cache, made on first use with its events wired to
// DeviceTable::instance(): every discovery event reaches the application's
// event callback through the table. Neither is ever destroyed, so host
// threads still raising events at exit find both in place.
NetworkDiscovery& processDiscovery();

}  // namespace kmio
