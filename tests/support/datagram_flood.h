#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"

namespace kmiotest {

// A hostile peer on loopback: sends datagrams longer than the discovery
// receive buffer (1024 bytes), and with garbage on, random short ones too, to
// both discovery ports of 127.0.0.1, at a steady rate until destroyed.
// kmio-sim binds the broadcast address and the group, not 127.0.0.1, so
// only the hosts of this machine hear the flood.
class DatagramFlood {
public:
    struct Settings {
        std::size_t oversizedBytes = 1500;
        int perPortPerTick = 2;  // one tick is 10 ms
        bool garbage = false;
    };

    explicit DatagramFlood(Settings settings) : settings_(settings), thread_([this] { run(); }) {}
    DatagramFlood() : DatagramFlood(Settings{}) {}
    DatagramFlood(const DatagramFlood&) = delete;
    DatagramFlood& operator=(const DatagramFlood&) = delete;
    ~DatagramFlood() {
        stop_ = true;
        thread_.join();
    }

    std::size_t sent() const { return sent_; }

private:
    void run() {
        std::mt19937 random(20261123);
        std::vector<std::uint8_t> oversized(settings_.oversizedBytes, 0xA5);
        std::vector<std::uint8_t> garbage(200);
        const std::uint16_t ports[] = {65111, 65110};
        while (!stop_) {
            for (int i = 0; i < settings_.perPortPerTick; ++i) {
                for (const std::uint16_t port : ports) {
                    send(port, oversized);
                    if (settings_.garbage) {
                        garbage.resize(random() % 200);
                        for (std::uint8_t& byte : garbage) {
                            byte = static_cast<std::uint8_t>(random());
                        }
                        send(port, garbage);
                    }
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }

    void send(std::uint16_t port, const std::vector<std::uint8_t>& bytes) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::sendto(socket_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                     sizeof to) >= 0) {
            ++sent_;
        }
    }

    const Settings settings_;
    // Made before the thread starts, so that it counts among the descriptors
    // open when the flood's constructor returns.
    const kmio::UniqueFd socket_{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::atomic<bool> stop_{false};
    std::atomic<std::size_t> sent_{0};
    std::thread thread_;
};

}  // namespace kmiotest
