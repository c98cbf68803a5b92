// winsock2.h must come before iphlpapi.h.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <iphlpapi.h>

#include <cstdlib>
#include <memory>
#include <system_error>
#include <vector>

#include "platform/interface_addresses.h"
#include "platform/netmask.h"

namespace kmio {

namespace {

constexpr ULONG kFirstBufferBytes = 15360;
constexpr ULONG kLargestBufferBytes = 10 * 1024 * 1024;

// The friendly name is wide text; each character keeps its low byte only.
std::string narrowed(const wchar_t* text) {
    std::string out;
    for (; text != nullptr && *text != L'\0'; ++text) {
        out.push_back(static_cast<char>(static_cast<unsigned>(*text) & 0xFF));
    }
    return out;
}

// IPv4 adapter addresses with gateways, in a buffer that grows to the size
// the system asks for while it answers that the buffer is too small.
std::vector<std::uint8_t> adapterAddresses() {
    std::vector<std::uint8_t> buffer(kFirstBufferBytes);
    for (;;) {
        ULONG size = static_cast<ULONG>(buffer.size());
        const ULONG result =
            ::GetAdaptersAddresses(AF_INET, GAA_FLAG_INCLUDE_GATEWAYS, nullptr,
                                   reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
        if (result == NO_ERROR) {
            return buffer;
        }
        if (result == ERROR_NO_DATA) {
            return {};
        }
        if (result != ERROR_BUFFER_OVERFLOW || size >= kLargestBufferBytes) {
            throw std::system_error(static_cast<int>(result), std::system_category(), "GetAdaptersAddresses");
        }
        buffer.resize(size);
    }
}

}  // namespace

std::vector<InterfaceAddress> listInterfaceAddresses() {
    std::vector<std::uint8_t> buffer = adapterAddresses();
    std::vector<InterfaceAddress> addresses;
    if (buffer.empty()) {
        return addresses;
    }
    for (auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.data()); adapter != nullptr;
         adapter = adapter->Next) {
        const bool up = adapter->OperStatus == IfOperStatusUp;
        // An adapter that only receives, or has IPv4 switched off, cannot
        // carry discovery: it counts as not running.
        const bool usable = adapter->Ipv4Enabled != 0 && (adapter->Flags & IP_ADAPTER_RECEIVE_ONLY) == 0;
        for (const IP_ADAPTER_UNICAST_ADDRESS* unicast = adapter->FirstUnicastAddress; unicast != nullptr;
             unicast = unicast->Next) {
            const sockaddr* address = unicast->Address.lpSockaddr;
            if (address == nullptr || address->sa_family != AF_INET) {
                continue;
            }
            InterfaceAddress item;
            item.name = adapter->AdapterName != nullptr ? adapter->AdapterName : "";
            item.friendlyName = narrowed(adapter->FriendlyName);
            item.address = ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
            item.netmask = netmaskOfPrefixLength(unicast->OnLinkPrefixLength);
            item.up = up;
            item.running = up && usable;
            item.loopback = adapter->IfType == IF_TYPE_SOFTWARE_LOOPBACK;
            addresses.push_back(std::move(item));
        }
    }
    return addresses;
}

}  // namespace kmio
