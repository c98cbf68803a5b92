#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "options/option_sets.h"
#include "platform/ipv4.h"

namespace kmio {

// Splits a locator at ':' and drops empty tokens.
std::vector<std::string> tokenizeLocator(std::string_view locator);

// Classifies by the text before the first ':'. Writes the type (0 on failure)
// and returns KM_IO_OK or KM_IO_ERR_BAD_LOCATOR.
std::uint32_t classifyLocator(std::string_view locator, std::uint32_t& type);

// "serial:" NAME with exactly two tokens. Returns KM_IO_OK or KM_IO_ERR_BAD_LOCATOR.
std::uint32_t parseSerialLocator(std::string_view locator, std::string& portName);

// Dotted-quad text (four decimal parts) to an address; nullopt when malformed.
std::optional<Ipv4> parseIpv4(std::string_view text);
// formatIpv4, the other direction, is in platform/ipv4.h.

// The addresses of the machine's IPv4 interfaces, for "network:all".
using LocalAddressSource = std::function<std::vector<Ipv4>()>;

// Turns "iface" entries into a set of addresses: entries not starting with
// "network:" are skipped; "network:all" adds every local address; anything
// else must be a dotted address other than 0.0.0.0, or the result is nullopt.
std::optional<std::set<Ipv4>> parseInterfaceSelectors(const std::vector<std::string>& entries,
                                                      const LocalAddressSource& localAddresses);

enum class LocatorFormat { BySerialNumber, ByHost };

// "sn" or "host", exactly; anything else throws
// OptionsError("Unknown locator format: " + text).
LocatorFormat parseLocatorFormat(std::string_view text);

// "network:sn:SERIAL" or "network:A.B.C.D:PORT".
std::string writeNetworkLocator(LocatorFormat format, std::string_view serialNumber, Ipv4 address,
                                std::uint16_t port);

// "network:A.B.C.D".
std::string interfaceLocator(Ipv4 address);

// Where a "network:sn:" locator's device was found.
struct DiscoveredAddress {
    Ipv4 address = 0;
    std::uint16_t port = 0;
};

// Finds a network device by serial number for IoNetwork: first the discovery
// cache, then a forced discovery on the "iface" interfaces. Returns KM_IO_OK,
// KM_IO_ERR_NOT_FOUND or KM_IO_ERR_BAD_OPTIONS (unparsable "iface").
using SerialNumberResolver = std::function<std::uint32_t(
    const std::string& serialNumber, const NetworkOpenOptions& options, DiscoveredAddress& found)>;

struct NetworkTarget {
    std::string host;
    std::uint16_t port = 0;
};

// Reads a network locator at open: port rules, host and serial-number forms.
// Returns KM_IO_OK, KM_IO_ERR_BAD_LOCATOR, KM_IO_ERR_NOT_FOUND or KM_IO_ERR_BAD_OPTIONS.
std::uint32_t parseNetworkLocator(std::string_view locator, const NetworkOpenOptions& options,
                                  const SerialNumberResolver& resolver, NetworkTarget& target);

}  // namespace kmio
