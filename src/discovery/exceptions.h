#pragma once

#include <stdexcept>
#include <string>

namespace kalometnd {

// Base of every failure the discovery component reports by exception.
class KalometNDException : public std::runtime_error {
public:
    explicit KalometNDException(const std::string& what) : std::runtime_error(what) {}
};

// A caller passed a value the operation cannot use (a bad network id, a payload too long).
class InvalidArgumentException : public KalometNDException {
public:
    using KalometNDException::KalometNDException;
};

// The object is in the wrong state for the call ("Host already running").
class InvalidOperationException : public KalometNDException {
public:
    using KalometNDException::KalometNDException;
};

// A socket or interface-list failure: the operation's text, ": ", the system's message.
class NetworkException : public KalometNDException {
public:
    using KalometNDException::KalometNDException;
};

// A receive that failed on a datagram it took off the socket (one longer than
// the receive buffer): the socket itself is sound, so the next receive can
// follow at once.
class DatagramDroppedException : public NetworkException {
public:
    using NetworkException::NetworkException;
};

// A peer sent something the protocol does not allow.
class ProtocolException : public KalometNDException {
public:
    using KalometNDException::KalometNDException;
};

// A pending request was abandoned by Host::cancelAll.
class RequestCancelledException : public KalometNDException {
public:
    using KalometNDException::KalometNDException;
};

}  // namespace kalometnd
