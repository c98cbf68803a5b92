#pragma once

#include <cstdint>
#include <string>

#include "discovery/connection.h"
#include "platform/socket.h"
#include "platform/socket_address.h"

namespace kalometnd {

// The steps of setting up a channel's socket that read the same on every
// system (connection_linux.cpp, connection_win32.cpp make the socket and add
// their own steps between these). Each throws NetworkException with the
// step's text, ": " and the system's message.

// Throws NetworkException "<what>: <system message>".
[[noreturn]] void throwSocketError(const std::string& what, int error);
// The same unless error is 0.
void throwIfFailed(int error, const std::string& what);

// Where the channel sends: the directed broadcast address given, port 65111,
// for a broadcast channel; the discovery group, port 65110, for a multicast one.
sockaddr_in channelDestination(ChannelConnection::Kind kind, std::uint32_t broadcastAddress);

// SO_REUSEADDR, then SO_BROADCAST on a broadcast channel or
// IP_MULTICAST_LOOP on a multicast one.
void setChannelOptions(const kmio::Socket& socket, ChannelConnection::Kind kind);

// Binds address (host order) on the channel kind's port.
void bindChannel(const kmio::Socket& socket, ChannelConnection::Kind kind, std::uint32_t address);

// For a multicast channel, once bound: sends leave through the interface,
// and the socket joins the discovery group on it.
void joinChannelGroup(const kmio::Socket& socket, std::uint32_t interfaceAddress);

}  // namespace kalometnd
