#include "options/locator.h"

#include "kmio/kmio.h"
#include "options/option_list.h"
#include "options/options_error.h"

namespace kmio {

namespace {

constexpr std::uint32_t kMaxPort = 65535;
constexpr std::string_view kNetworkPrefix = "network:";

bool allDigits(std::string_view text) {
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

}  // namespace

std::vector<std::string> tokenizeLocator(std::string_view locator) {
    std::vector<std::string> tokens;
    std::size_t pos = 0;
    while (pos <= locator.size()) {
        std::size_t end = locator.find(':', pos);
        if (end == std::string_view::npos) {
            end = locator.size();
        }
        if (end > pos) {
            tokens.emplace_back(locator.substr(pos, end - pos));
        }
        pos = end + 1;
    }
    return tokens;
}

std::uint32_t classifyLocator(std::string_view locator, std::uint32_t& type) {
    type = KM_IO_IFACE_NONE;
    const std::size_t colon = locator.find(':');
    if (colon == std::string_view::npos) {
        return KM_IO_ERR_BAD_LOCATOR;
    }
    const std::string_view prefix = locator.substr(0, colon);
    if (prefix == "usb") {
        type = KM_IO_IFACE_USB;
    } else if (prefix == "serial") {
        type = KM_IO_IFACE_SERIAL;
    } else if (prefix == "network") {
        type = KM_IO_IFACE_NETWORK;
    } else {
        return KM_IO_ERR_BAD_LOCATOR;
    }
    return KM_IO_OK;
}

std::uint32_t parseSerialLocator(std::string_view locator, std::string& portName) {
    const std::vector<std::string> tokens = tokenizeLocator(locator);
    if (tokens.size() != 2 || tokens[0] != "serial") {
        return KM_IO_ERR_BAD_LOCATOR;
    }
    portName = tokens[1];
    return KM_IO_OK;
}

std::optional<Ipv4> parseIpv4(std::string_view text) {
    Ipv4 address = 0;
    std::size_t pos = 0;
    for (int part = 0; part < 4; ++part) {
        if (part != 0) {
            if (pos >= text.size() || text[pos] != '.') {
                return std::nullopt;
            }
            ++pos;
        }
        std::size_t end = text.find('.', pos);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        const std::string_view digits = text.substr(pos, end - pos);
        if (digits.empty() || digits.size() > 3 || !allDigits(digits)) {
            return std::nullopt;
        }
        std::uint32_t value = 0;
        for (const char c : digits) {
            value = value * 10 + static_cast<std::uint32_t>(c - '0');
        }
        if (value > 255) {
            return std::nullopt;
        }
        address = (address << 8) | value;
        pos = end;
    }
    if (pos != text.size()) {
        return std::nullopt;
    }
    return address;
}

std::optional<std::set<Ipv4>> parseInterfaceSelectors(const std::vector<std::string>& entries,
                                                      const LocalAddressSource& localAddresses) {
    std::set<Ipv4> addresses;
    for (const std::string& entry : entries) {
        // Other links' locators may stand in the same list; they select no
        // network interface and are passed over.
        if (entry.compare(0, kNetworkPrefix.size(), kNetworkPrefix) != 0) {
            continue;
        }
        std::string_view rest = std::string_view(entry).substr(kNetworkPrefix.size());
        rest = rest.substr(0, rest.find(':'));
        if (rest == "all") {
            if (localAddresses) {
                for (const Ipv4 address : localAddresses()) {
                    addresses.insert(address);
                }
            }
            continue;
        }
        const std::optional<Ipv4> address = parseIpv4(rest);
        if (!address || *address == 0) {
            return std::nullopt;
        }
        addresses.insert(*address);
    }
    return addresses;
}

LocatorFormat parseLocatorFormat(std::string_view text) {
    if (text == "sn") {
        return LocatorFormat::BySerialNumber;
    }
    if (text == "host") {
        return LocatorFormat::ByHost;
    }
    throw OptionsError("Unknown locator format: " + std::string(text));
}

std::string writeNetworkLocator(LocatorFormat format, std::string_view serialNumber, Ipv4 address,
                                std::uint16_t port) {
    if (format == LocatorFormat::BySerialNumber) {
        return "network:sn:" + std::string(serialNumber);
    }
    return interfaceLocator(address) + ":" + std::to_string(port);
}

std::string interfaceLocator(Ipv4 address) {
    return std::string(kNetworkPrefix) + formatIpv4(address);
}

std::uint32_t parseNetworkLocator(std::string_view locator, const NetworkOpenOptions& options,
                                  const SerialNumberResolver& resolver, NetworkTarget& target) {
    // A bad port option is reported before the locator is even looked at.
    if (options.port > kMaxPort) {
        return KM_IO_ERR_BAD_OPTIONS;
    }
    const std::vector<std::string> tokens = tokenizeLocator(locator);
    if (tokens.size() < 2 || tokens[0] != "network") {
        return KM_IO_ERR_BAD_LOCATOR;
    }

    std::string host;
    const std::string* portText = nullptr;
    std::uint32_t discoveredPort = 0;
    // "network:sn" alone names a host called "sn": the serial-number form
    // needs a serial number after it.
    if (tokens[1] == "sn" && (tokens.size() == 3 || tokens.size() == 4)) {
        if (!resolver) {
            return KM_IO_ERR_NOT_FOUND;
        }
        DiscoveredAddress found;
        const std::uint32_t rc = resolver(tokens[2], options, found);
        if (rc != KM_IO_OK) {
            return rc;
        }
        host = formatIpv4(found.address);
        discoveredPort = found.port;
        if (tokens.size() == 4) {
            portText = &tokens[3];
        }
    } else if (tokens.size() == 2 || tokens.size() == 3) {
        host = tokens[1];
        if (tokens.size() == 3) {
            portText = &tokens[2];
        }
    } else {
        return KM_IO_ERR_BAD_LOCATOR;
    }

    std::uint32_t locatorPort = 0;
    if (portText != nullptr) {
        if (readUnsigned(*portText, locatorPort) != NumberReading::Ok || locatorPort > kMaxPort) {
            return KM_IO_ERR_BAD_OPTIONS;
        }
    }

    // First non-zero wins; a locator port of 0 defers to the next source.
    std::uint32_t port = locatorPort != 0 ? locatorPort : options.port;
    if (port == 0) {
        port = discoveredPort;
    }
    if (port == 0) {
        return KM_IO_ERR_BAD_OPTIONS;
    }
    target.host = std::move(host);
    target.port = static_cast<std::uint16_t>(port);
    return KM_IO_OK;
}

}  // namespace kmio
