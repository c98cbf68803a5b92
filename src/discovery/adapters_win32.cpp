#include "discovery/adapters.h"

namespace kalometnd {

// The walk reads the adapter's friendly name from GetAdaptersAddresses.
std::string friendlyNameOf(const kmio::InterfaceAddress& entry) {
    return entry.friendlyName;
}

}  // namespace kalometnd
