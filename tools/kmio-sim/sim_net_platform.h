#pragma once

#include <cstdint>
#include <string>

#include "platform/socket.h"

namespace kmiosim {

// What the socket layer of the simulator needs from each system; the rest of
// it (sim_net.cpp) reads the same everywhere.

// Throws std::runtime_error with what failed, ": " and the system's text for
// the calling thread's last socket error (sim_net.cpp).
[[noreturn]] void failWithLastError(const std::string& what);

// The system's part (sim_net_linux.cpp, sim_net_win32.cpp):
//
// A new IPv4 socket of the type (SOCK_DGRAM or SOCK_STREAM), kept from child
// processes where the system allows, non-blocking when asked and blocking
// otherwise. An invalid socket when the system refuses, with the system's
// last error telling why.
kmio::Socket newSocket(int type, bool nonBlocking);
// The address a discovery receiver for a broadcast address or a group binds.
std::uint32_t receiverBindAddress(std::uint32_t broadcastOrGroup);
// Keeps group traffic that arrives on other interfaces out of a multicast
// receiver, where the system delivers it otherwise.
void receiveJoinedGroupsOnly(const kmio::Socket& socket);
// The flags of every stream send.
int streamSendFlags();
// Whether a failed stream call only means "not now".
bool isWouldBlock(int error);

}  // namespace kmiosim
