#pragma once

#include <cstdint>

#include "platform/ipv4.h"
#include "platform/socket.h"

namespace kmio {

// The socket settings that the discovery transport and the device simulator
// make on every system. Each returns 0, or the system's error number (errno,
// or WinSock's error on Windows) when the system refuses.

// An int-valued option, such as SO_REUSEADDR or IP_MULTICAST_LOOP.
int setSocketInt(const Socket& socket, int level, int option, int value);

// Binds the socket to address:port (host order; port 0 lets the system pick).
int bindIpv4(const Socket& socket, Ipv4 address, std::uint16_t port);

// Multicasts sent on the socket leave through the interface with this address.
int setMulticastInterface(const Socket& socket, Ipv4 interfaceAddress);

// Joins the multicast group on the interface with this address.
int joinMulticastGroup(const Socket& socket, Ipv4 group, Ipv4 interfaceAddress);

}  // namespace kmio
