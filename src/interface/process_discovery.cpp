#include "interface/process_discovery.h"

#include "interface/device_table.h"

namespace kmio {

NetworkDiscovery& processDiscovery() {
    static NetworkDiscovery cache(
        kalometnd::createConnection, steadyClock(),
        [&table = DeviceTable::instance()](std::uint32_t type, const PropertyRecord& properties) {
            table.raiseEvent(type, properties);
        });
    return cache;
}

}  // namespace kmio
