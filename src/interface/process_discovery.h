#pragma once

#include "network/network_discovery.h"

namespace kmio {

// The library's discovery cache, made on first use with its events wired to
// DeviceTable::instance(): every discovery event reaches the application's
// event callback through the table. The table is made first, so it outlives
// the cache, whose destruction at exit stops the host threads that raise
// events.
NetworkDiscovery& processDiscovery();

}  // namespace kmio
