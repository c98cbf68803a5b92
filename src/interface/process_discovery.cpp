#include "interface/process_discovery.h"

#include "interface/device_table.h"

namespace kmio {

NetworkDiscovery& processDiscovery() {
    // Never destroyed: at exit, host threads and calls on other threads may
    // still use it, and stopping its channels there could wait for an event
    // callback that never returns (a program ending mid-stream must not hang
    // or abort). The table it raises events through is never destroyed either.
    static auto* const cache = new NetworkDiscovery(
        kalometnd::createConnection, steadyClock(),
        [&table = DeviceTable::instance()](std::uint32_t type, const PropertyRecord& properties) {
            table.raiseEvent(type, properties);
        });
    return *cache;
}

}  // namespace kmio
