#pragma once

#include <cstdint>
#include <string_view>

namespace kmio {

class DeviceTable;
class NetworkDiscovery;

// KM_IO_SetGlobalOptions: parses the global options, has the discovery cache
// start the channels of new interfaces (no library lock held: their host
// threads take the table mutex to raise events), then puts the settings in
// force under the table mutex, so that they never change while an event
// callback runs. KM_IO_ERR_BAD_OPTIONS for a bad string or an interface that
// cannot be set up, and then every setting stays as it was. A call from the
// event callback throws std::system_error(resource_deadlock_would_occur).
std::uint32_t setGlobalOptions(DeviceTable& table, NetworkDiscovery& discovery, std::string_view options);

}  // namespace kmio
