// Any text as a locator of every form and as an interface selector list:
// classification, the serial, network and USB forms, dotted addresses and the
// "iface" lists give a result code or a value, never a failure. The text is
// also an older USB listing searched for a chip id.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_check.h"
#include "kmio/kmio.h"
#include "options/locator.h"
#include "options/option_sets.h"
#include "options/options_error.h"
#include "usb/usb_locator.h"

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

void checkUsbLocator(std::string_view text) {
    const std::optional<UsbDeviceChoice> choice = parseUsbLocator(text);
    if (!choice) {
        return;
    }
    // Empty tokens are dropped, so ":usb:sn:X" parses too; classification,
    // which comes first at open, turns that one away.
    std::uint32_t type = 0;
    if (classifyLocator(text, type) == KM_IO_OK) {
        FUZZ_CHECK(type == KM_IO_IFACE_USB);
    }
    FUZZ_CHECK(!choice->text.empty() && choice->text.find(':') == std::string::npos);
    if (choice->by == UsbDeviceChoice::By::Position) {
        FUZZ_CHECK(std::all_of(choice->text.begin(), choice->text.end(),
                               [](char c) { return c >= '0' && c <= '9'; }));
        FUZZ_CHECK(choice->text.size() > 18 || choice->position == std::stoull(choice->text));
        return;
    }
    // A chip id found on a listing line of its own gives that line's serial number.
    if (choice->by == UsbDeviceChoice::By::ChipId && choice->text.find('\n') == std::string::npos) {
        std::string serial;
        const std::string listing = "usb:id:1:sn:A\nusb:id:" + choice->text + ":sn:SERIAL-9\n";
        FUZZ_CHECK(serialNumberOfChipId(listing, choice->text, serial) == KM_IO_OK);
        FUZZ_CHECK(serial == (choice->text == "1" ? "A" : "SERIAL-9"));
    }
}

// The text as a listing, searched for the id its first line ends with.
void checkChipIdListing(std::string_view text) {
    const std::string_view firstLine = text.substr(0, text.find('\n'));
    const std::string_view chipId = firstLine.substr(firstLine.rfind(':') + 1);
    std::string serial = "unchanged";
    const std::uint32_t found = serialNumberOfChipId(text, chipId, serial);
    FUZZ_CHECK(found == KM_IO_OK || found == KM_IO_ERR_NOT_FOUND || found == KM_IO_ERR_ENUMERATION_FAILED);
    if (found == KM_IO_OK) {
        FUZZ_CHECK(!serial.empty() && serial.find('\n') == std::string::npos);
        FUZZ_CHECK(text.find(":id:" + std::string(chipId)) != std::string_view::npos);
        FUZZ_CHECK(text.find(":sn:" + serial) != std::string_view::npos);
    } else {
        FUZZ_CHECK(serial == "unchanged");
    }
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

    checkUsbLocator(text);
    checkChipIdListing(text);

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
