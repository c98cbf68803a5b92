#include "network/network_interface_enumeration.h"

#include "kmio/kmio.h"
#include "options/locator.h"

namespace kmio {

std::uint32_t enumerateNetworkInterfaces(RecordList& records, const AdapterSource& adapters) {
    for (const kalometnd::AdapterInfo& adapter : adapters()) {
        PropertyRecord record;
        record.set("iface-type", "network");
        record.set("network-host", formatIpv4(adapter.address));
        record.set("network-subnet-mask", formatIpv4(adapter.netmask));
        record.set("name", adapter.friendlyName);
        records.push_back(std::move(record));
    }
    return KM_IO_OK;
}

std::uint32_t enumerateNetworkInterfaces(RecordList& records) {
    return enumerateNetworkInterfaces(records, kalometnd::listAdapters);
}

}  // namespace kmio
