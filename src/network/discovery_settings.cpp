#include "network/discovery_settings.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "network/local_addresses.h"
#include "options/locator.h"
#include "options/options_error.h"

namespace kmio {

namespace {

constexpr std::string_view kNetworkPrefix = "network:";

// True when an entry is "network:none" (anything may follow another ':').
bool selectsNone(const std::string& entry) {
    if (entry.compare(0, kNetworkPrefix.size(), kNetworkPrefix) != 0) {
        return false;
    }
    const std::string_view rest = std::string_view(entry).substr(kNetworkPrefix.size());
    return rest.substr(0, rest.find(':')) == "none";
}

// The "discovery-iface" values as a set of interfaces; empty for "none",
// which wins over every entry around it. Throws OptionsError for an entry
// that names no interface, so that a bad request changes nothing.
std::set<Ipv4> discoveryInterfaces(const std::vector<std::string>& entries) {
    if (std::any_of(entries.begin(), entries.end(), selectsNone)) {
        return {};
    }
    std::optional<std::set<Ipv4>> addresses = parseInterfaceSelectors(entries, localAddresses);
    if (!addresses) {
        throw OptionsError("Invalid discovery-iface value");
    }
    return std::move(*addresses);
}

}  // namespace

NetworkDiscovery::Settings discoverySettings(const GlobalOptions& options) {
    NetworkDiscovery::Settings settings;
    if (options.locatorFormatNetwork) {
        settings.locatorFormat = parseLocatorFormat(*options.locatorFormatNetwork);
    }
    if (options.discoveryIface) {
        settings.interfaces = discoveryInterfaces(*options.discoveryIface);
    }
    return settings;
}

}  // namespace kmio
