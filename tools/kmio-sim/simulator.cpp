#include "simulator.h"

#include <cstdio>
#include <stdexcept>
#include <string>

#include "options/locator.h"
#include "platform/error_text.h"
#include "platform/steady_clock.h"

namespace kmiosim {

namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kRememberTokenNs = 5'000 * kNsPerMs;
constexpr std::uint32_t kAnySelector = 0xFFFFFFFF;

// One line per event, flushed at once: tests and scripts read it from a pipe.
void say(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

std::string endpoint(std::uint32_t address, std::uint16_t port) {
    return kmio::formatIpv4(address) + ":" + std::to_string(port);
}

}  // namespace

Simulator::Simulator(SimOptions options) : options_(std::move(options)) {
    std::string where;
    for (const std::uint32_t address : options_.interfaces) {
        interfaces_.emplace_back(address);
        if (!where.empty()) {
            where += ',';
        }
        where += kmio::formatIpv4(address);
    }
    devices_.reserve(options_.count);
    for (unsigned i = 0; i < options_.count; ++i) {
        SimDevice& device = devices_.emplace_back(serialNumberOf(options_, i),
                                                  static_cast<std::uint16_t>(options_.firstPort + i));
        if (options_.tcp) {
            for (const SimInterface& iface : interfaces_) {
                device.listen(iface.address());
            }
        }
        say("device " + device.serialNumber() + " port " + std::to_string(device.port()) + " iface " + where +
            (options_.tcp ? "" : " (no tcp)"));
    }
}

int Simulator::run(StopRequest& stop) {
    // Our own announcements loop back to our listening sockets. Read them as
    // we go, so that a thousand of them never fill the receive buffers and
    // crowd out the request of a host that starts right after "ready".
    for (std::size_t d = 0; d < devices_.size(); ++d) {
        announce(devices_[d]);
        if (d % 32 == 31 || d + 1 == devices_.size()) {
            for (std::size_t i = 0; i < interfaces_.size(); ++i) {
                receiveRequest(i, interfaces_[i].broadcastSocket());
                receiveRequest(i, interfaces_[i].multicastSocket());
            }
        }
    }
    say("ready: " + std::to_string(devices_.size()) + " devices on " + std::to_string(interfaces_.size()) +
        " interface(s)");

    // What each poll entry stands for.
    enum class Source { Stop, Discovery, Listener, Client };
    struct Slot {
        Source source;
        std::size_t index;
        const kmio::Socket* socket;
    };
    std::vector<PollEntry> entries;
    std::vector<Slot> slots;
    const auto watch = [&](kmio::Socket::Native handle, unsigned wanted, Source source, std::size_t index,
                           const kmio::Socket* socket) {
        entries.push_back(PollEntry{handle, wanted, 0});
        slots.push_back(Slot{source, index, socket});
    };

    for (;;) {
        entries.clear();
        slots.clear();
        if (stop.pollHandle() != kmio::Socket::kInvalid) {
            watch(stop.pollHandle(), kReadable, Source::Stop, 0, nullptr);
        }
        for (std::size_t i = 0; i < interfaces_.size(); ++i) {
            const SimInterface& iface = interfaces_[i];
            watch(iface.broadcastSocket().get(), kReadable, Source::Discovery, i, &iface.broadcastSocket());
            watch(iface.multicastSocket().get(), kReadable, Source::Discovery, i, &iface.multicastSocket());
        }
        for (std::size_t d = 0; d < devices_.size(); ++d) {
            for (const kmio::Socket& listener : devices_[d].listeners()) {
                watch(listener.get(), kReadable, Source::Listener, d, &listener);
            }
            if (devices_[d].client()) {
                watch(devices_[d].client().get(), devices_[d].clientWanted(), Source::Client, d, nullptr);
            }
        }

        int timeout = pollTimeoutMs();
        if (stop.pollLimitMs() >= 0 && (timeout < 0 || timeout > stop.pollLimitMs())) {
            timeout = stop.pollLimitMs();
        }
        pollSockets(entries, timeout);
        if (stop.pollHandle() == kmio::Socket::kInvalid) {
            if (const int requested = stop.taken(); requested != 0) {
                return requested;
            }
        }
        for (std::size_t k = 0; k < entries.size(); ++k) {
            if (entries[k].ready == 0) {
                continue;
            }
            SimDevice* device = slots[k].source == Source::Client || slots[k].source == Source::Listener
                                    ? &devices_[slots[k].index]
                                    : nullptr;
            switch (slots[k].source) {
                case Source::Stop:
                    return stop.taken();
                case Source::Discovery:
                    receiveRequest(slots[k].index, *slots[k].socket);
                    break;
                case Source::Listener:
                    acceptClient(*device, *slots[k].socket);
                    break;
                case Source::Client:
                    if (!device->serviceClient(entries[k].ready)) {
                        say("client disconnected from " + device->serialNumber());
                        announce(*device);
                    }
                    break;
            }
        }
        while (!pending_.empty() && pending_.front().dueNs <= kmio::steadyNowNs()) {
            sendReplies(pending_.front());
            pending_.pop_front();
        }
    }
}

void Simulator::receiveRequest(std::size_t iface, const kmio::Socket& socket) {
    std::uint8_t buffer[2048];
    for (;;) {
        std::uint32_t fromAddress = 0;
        std::uint16_t fromPort = 0;
        const std::ptrdiff_t got = receiveDatagram(socket, buffer, fromAddress, fromPort);
        if (got < 0) {
            return;  // drained
        }
        // Our own announcements and other devices' traffic arrive here too;
        // only well-formed requests matter.
        kalometnd::Packet request;
        if (kalometnd::decode(std::span(buffer, static_cast<std::size_t>(got)), request) !=
                kalometnd::DecodeResult::Valid ||
            request.opcode != kalometnd::OpCode::DiscoverRequest) {
            continue;
        }
        const std::int64_t now = kmio::steadyNowNs();
        if (!firstSighting(iface, request.token, now)) {
            continue;
        }
        PendingReplies replies;
        replies.dueNs = now + options_.delayMs * kNsPerMs;
        replies.iface = iface;
        replies.address = fromAddress;
        replies.port = fromPort;
        replies.token = request.token;
        for (std::size_t d = 0; d < devices_.size(); ++d) {
            const bool selectorMatches =
                request.selector == kAnySelector || request.selector == options_.deviceType;
            const bool serialMatches =
                request.serialNumber.empty() || request.serialNumber == devices_[d].serialNumber();
            if (selectorMatches && serialMatches) {
                replies.devices.push_back(d);
            }
        }
        if (replies.devices.empty()) {
            say("request " + kalometnd::tokenText(request.token) + " from " +
                endpoint(replies.address, replies.port) + " matches no device");
        } else if (options_.delayMs == 0) {
            sendReplies(replies);
        } else {
            pending_.push_back(std::move(replies));
        }
    }
}

bool Simulator::firstSighting(std::size_t iface, const kalometnd::Token& token, std::int64_t now) {
    std::erase_if(answered_, [now](const auto& entry) { return now - entry.second > kRememberTokenNs; });
    return answered_.try_emplace({iface, token}, now).second;
}

void Simulator::sendReplies(const PendingReplies& replies) {
    const SimInterface& iface = interfaces_[replies.iface];
    std::size_t lost = 0;
    int error = 0;
    for (const std::size_t d : replies.devices) {
        const SimDevice& device = devices_[d];
        kalometnd::Packet reply = kalometnd::buildDiscoverReply(replies.token, options_.deviceType,
                                                                device.serialNumber(), payloadOf(device));
        reply.version = options_.replyVersion;
        const kalometnd::RawPacket bytes = kalometnd::encode(reply);
        sendGarbage(iface, replies.address, replies.port, bytes);
        if (const int failed = iface.sendTo(replies.address, replies.port, bytes); failed != 0) {
            ++lost;
            error = failed;
        }
    }
    std::string line = "answered request " + kalometnd::tokenText(replies.token) + " from " +
                       endpoint(replies.address, replies.port) + " on " + kmio::formatIpv4(iface.address()) +
                       " with " + std::to_string(replies.devices.size()) + " replies";
    if (lost != 0) {
        line += " (" + std::to_string(lost) + " not sent: " + kmio::systemErrorText(error) + ")";
    }
    say(line);
}

// Each malformed datagram breaks the reply in a different way, so that a host
// meets every kind of decode failure.
void Simulator::sendGarbage(const SimInterface& iface, std::uint32_t address, std::uint16_t port,
                            const kalometnd::RawPacket& reply) {
    for (unsigned i = 0; i < options_.garbage; ++i) {
        kalometnd::RawPacket bad = reply;
        switch (garbageCount_++ % 5) {
            case 0:
                bad.resize(40);  // shorter than a header
                break;
            case 1:
                bad[0] = 0x00;  // wrong start byte
                break;
            case 2:
                bad[1] ^= 0x04;  // length field disagrees with the size
                break;
            case 3:
                bad[4] = 'X';  // wrong magic
                break;
            default:
                bad.push_back(0);  // not a multiple of 4
                break;
        }
        iface.sendTo(address, port, bad);
    }
}

void Simulator::announce(const SimDevice& device) {
    kalometnd::Packet inform =
        kalometnd::buildDiscoverInform(options_.deviceType, device.serialNumber(), payloadOf(device));
    inform.version = options_.replyVersion;
    const kalometnd::RawPacket bytes = kalometnd::encode(inform);
    for (const SimInterface& iface : interfaces_) {
        if (const int error = iface.announce(bytes); error != 0) {
            say("inform of " + device.serialNumber() + " on " + kmio::formatIpv4(iface.address()) +
                " not sent: " + kmio::systemErrorText(error));
        }
    }
    say("inform " + device.serialNumber() + " available " + (device.available() ? "1" : "0"));
}

void Simulator::acceptClient(SimDevice& device, const kmio::Socket& listener) {
    std::string peer;
    switch (device.accept(listener, peer)) {
        case SimDevice::AcceptResult::Connected:
            say("client " + peer + " connected to " + device.serialNumber());
            announce(device);
            break;
        case SimDevice::AcceptResult::Refused:
            say("client " + peer + " refused by " + device.serialNumber() + ": busy");
            break;
        case SimDevice::AcceptResult::Nothing:
            break;
    }
}

kalometnd::DiscoverPayload Simulator::payloadOf(const SimDevice& device) const {
    return kalometnd::DiscoverPayload{options_.protocolId, device.available(), device.port(), options_.info};
}

int Simulator::pollTimeoutMs() const {
    if (pending_.empty()) {
        return -1;
    }
    const std::int64_t left = pending_.front().dueNs - kmio::steadyNowNs();
    return left <= 0 ? 0 : static_cast<int>((left + kNsPerMs - 1) / kNsPerMs);
}

}  // namespace kmiosim
