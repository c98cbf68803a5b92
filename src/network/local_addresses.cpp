#include "network/local_addresses.h"

#include "discovery/adapters.h"

namespace kmio {

std::vector<Ipv4> localAddresses() {
    std::vector<Ipv4> addresses;
    for (const kalometnd::AdapterInfo& adapter : kalometnd::listAdapters()) {
        addresses.push_back(adapter.address);
    }
    return addresses;
}

}  // namespace kmio
