// Any text as a locator of every form and as an interface selector list:
// classification, the serial and network forms, dotted addresses and the
// "iface" lists give a result code or a value, never a failure.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "kmio/kmio.h"
#include "options/locator.h"
#include "options/option_sets.h"
#include "options/options_error.h"

namespace {

using namespace kmio;

// Serial numbers starting with "KM" are found at 10.0.0.5 port 55550.
std::uint32_t resolve(const std::string& serialNumber, const NetworkOpenOptions&, DiscoveredAddress& found) {
    if (serialNumber.rfind("KM", 0) != 0) {
        return KM_IO_ERR_NOT_FOUND;
    }
    found = {0x0A000005, 55550};
    return KM_IO_OK;
}

std::vector<Ipv4> localAddresses() {
    return {0x0A000001, 0xC0A80101};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    std::uint32_t type = 99;
    const std::uint32_t classified = classifyLocator(text, type);
    FUZZ_CHECK(classified == KM_IO_OK || (classified == KM_IO_ERR_BAD_LOCATOR && type == KM_IO_IFACE_NONE));
    for (const std::string& token : tokenizeLocator(text)) {
        FUZZ_CHECK(!token.empty() && token.find(':') == std::string::npos);
    }

    std::string port;
    if (parseSerialLocator(text, port) == KM_IO_OK) {
        FUZZ_CHECK(!port.empty());
    }

    if (const std::optional<Ipv4> address = parseIpv4(text)) {
        FUZZ_CHECK(parseIpv4(formatIpv4(*address)) == address);
    }
    try {
        const LocatorFormat format = parseLocatorFormat(text);
        FUZZ_CHECK(text == "sn" || text == "host");
        (void)writeNetworkLocator(format, text, 0x7F000001, 55550);
    } catch (const OptionsError&) {
    }

    NetworkOpenOptions options;
    options.port = size > 0 ? data[0] * 300u : 0;
    NetworkTarget target;
    const std::uint32_t opened = parseNetworkLocator(text, options, resolve, target);
    FUZZ_CHECK(opened == KM_IO_OK || opened == KM_IO_ERR_BAD_LOCATOR || opened == KM_IO_ERR_NOT_FOUND ||
               opened == KM_IO_ERR_BAD_OPTIONS);
    if (opened == KM_IO_OK) {
        FUZZ_CHECK(!target.host.empty() && target.port != 0);
    }

    // The same text as an "iface" list, one entry per line.
    std::vector<std::string> entries;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        entries.emplace_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    if (const auto selected = parseInterfaceSelectors(entries, localAddresses)) {
        FUZZ_CHECK(!selected->contains(0));
    }
    return 0;
}
