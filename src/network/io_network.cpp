#include "network/io_network.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "link/result_translation.h"
#include "options/option_list.h"
#include "options/option_sets.h"
#include "platform/socket_api.h"

namespace kmio {

namespace {

constexpr std::uint32_t kDefaultConnectTimeoutMs = 5000;
constexpr int kReceivePassMs = 300;
// The socket is read in batches that are handed over in blocks of at most
// 1024 (deliverInBlocks): a receive of bytes already pending returns all it
// asked for, so the blocks are those of one 1024-byte receive per block.
constexpr std::size_t kReceiveBatch = 64 * 1024;
// The largest count one platform send call accepts.
constexpr std::size_t kMaxSendChunk = 2147483647;

}  // namespace

IoNetwork::IoNetwork(std::string locator, std::string options, void* userContext,
                     KM_IO_ReceiveCallback onReceive, KM_IO_LinkErrorCallback onError,
                     SerialNumberResolver resolver)
    : IoDevice(std::move(locator), std::move(options), userContext, onReceive, onError),
      resolver_(std::move(resolver)) {}

// A receiving thread that is still joinable here means close() never ran;
// ReceiverThread's destructor ends the program in that case.
IoNetwork::~IoNetwork() = default;

std::uint32_t IoNetwork::connectTimeoutMs() const {
    // The timeout in force is read straight from the option text, not from the
    // parsed set: a "connect-timeout" anywhere in the text counts.
    return rawUnsignedOption(options(), "connect-timeout", kDefaultConnectTimeoutMs);
}

std::uint32_t IoNetwork::open(std::shared_ptr<IoDevice> self) {
    return resultOf(OperationKind::Open, [&] {
        try {
            return connectAndStart(std::move(self));
        } catch (...) {
            // Whatever failed, no connection stays open.
            socket_.reset();
            throw;
        }
    });
}

std::uint32_t IoNetwork::connectAndStart(std::shared_ptr<IoDevice> self) {
    // The options come first on this link: bad options give
    // KM_IO_ERR_BAD_OPTIONS even when the locator is bad too.
    const NetworkOpenOptions parsed = NetworkOpenOptions::parse(options());

    NetworkTarget target;
    if (const std::uint32_t located = parseNetworkLocator(locator(), parsed, resolver_, target);
        located != KM_IO_OK) {
        return located;
    }
    if (const std::uint32_t connected = connectSocket(target.host, target.port, connectTimeoutMs());
        connected != KM_IO_OK) {
        return connected;
    }
    wake_.emplace();
    receiver_.start(std::move(self), [this] { receiveLoop(); });
    return KM_IO_OK;
}

std::uint32_t IoNetwork::connectSocket(const std::string& host, std::uint16_t port, std::uint32_t timeoutMs) {
    try {
        startSocketLibrary();
    } catch (const std::system_error&) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* list = nullptr;
    const int resolved = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    if (resolved != 0) {
        return isNameNotFound(resolved) ? KM_IO_ERR_NOT_FOUND : KM_IO_ERR_OPEN_FAILED;
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);

    for (const addrinfo* address = list; address != nullptr; address = address->ai_next) {
        if (address->ai_family != AF_INET || address->ai_socktype != SOCK_STREAM ||
            address->ai_protocol != IPPROTO_TCP) {
            continue;
        }
        bool creationFailed = false;
        Socket connected = connectAddress(*address, timeoutMs, creationFailed);
        if (creationFailed) {
            // Out of descriptors or sockets: later addresses would fail alike.
            break;
        }
        if (connected) {
            socket_ = std::move(connected);
            return KM_IO_OK;
        }
    }
    return KM_IO_ERR_NOT_FOUND;
}

void IoNetwork::close(bool wait) {
    receiver_.stop(wait, [this] {
        stop_.store(true);
        // Cuts the current 300 ms wait short.
        if (wake_) {
            wake_->signal();
        }
    });
}

std::uint32_t IoNetwork::send(const std::uint8_t* data, std::size_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t sent = 0;
    while (sent < length) {
        int error = 0;
        const std::ptrdiff_t n = sendSome(data + sent, std::min(length - sent, kMaxSendChunk), error);
        if (n < 0) {
            if (isInterrupted(error)) {
                continue;
            }
            return isTimedOut(error) ? KM_IO_ERR_LINK_LOST : KM_IO_ERR_SEND_FAILED;
        }
        sent += static_cast<std::size_t>(n);
    }
    return KM_IO_OK;
}

std::uint32_t IoNetwork::getProperty(const char*, char* value, std::size_t* ioSize) {
    if (ioSize != nullptr) {
        if (value != nullptr && *ioSize > 0) {
            value[0] = '\0';
        }
        *ioSize = 0;
    }
    return KM_IO_ERR_UNKNOWN_PROPERTY;
}

bool IoNetwork::stopRequested() {
    if (!stop_.load()) {
        return false;
    }
    socket_.shutdownBoth();
    std::lock_guard<std::mutex> lock(mutex_);
    socket_.reset();
    return true;
}

void IoNetwork::receiveLoop() {
    std::vector<std::uint8_t> buffer(kReceiveBatch);
    do {
        int error = 0;
        const Readiness readiness = waitReadable(kReceivePassMs, error);
        if (readiness == Readiness::Failed) {
            if (!isInterrupted(error)) {
                reportLinkError(isTimedOut(error) ? KM_IO_ERR_LINK_LOST : KM_IO_ERR_LINK_FAILED);
            }
            continue;
        }
        if (readiness == Readiness::Idle) {
            continue;
        }

        std::size_t pending = 0;
        if (!pendingBytes(pending)) {
            reportLinkError(KM_IO_ERR_LINK_FAILED);
            continue;
        }
        if (pending == 0) {
            // Readable with nothing to read: the peer has closed its side.
            reportLinkError(KM_IO_ERR_LINK_LOST);
            continue;
        }
        while (pending > 0) {
            const std::ptrdiff_t n = receiveSome(buffer.data(), std::min(pending, buffer.size()), error);
            if (n < 0 && isInterrupted(error)) {
                continue;
            }
            if (n < 0) {
                if (hasErrorCallback()) {
                    reportLinkError(isTimedOut(error) ? KM_IO_ERR_LINK_LOST : KM_IO_ERR_LINK_FAILED);
                } else {
                    // The failed receive reaches onReceive with its negative
                    // result as the length (see the class comment).
                    deliver(buffer.data(), static_cast<std::size_t>(n));
                }
                // Retrying at once would repeat the failure; the next pass
                // tells a closed peer from a transient failure.
                break;
            }
            if (n == 0) {
                break;
            }
            const auto received = static_cast<std::size_t>(n);
            deliverInBlocks(buffer.data(), received);
            pending -= std::min(pending, received);
        }
    } while (!stopRequested());
}

}  // namespace kmio
