// Soak: for a fixed number of rounds, opens and closes devices on every link
// at random with data flowing (network devices of kmio-sim on 127.0.0.1, by
// address and by serial number; serial devices on pseudo-terminals that
// echo; USB devices on echoing chips of the simulated FTDI driver, by serial
// number and by chip id), while other threads list devices (which probes the
// USB chips nobody has open) and change the global discovery options, events
// arrive, and a hostile peer floods the discovery ports with oversized and
// garbage datagrams. Then checks that every byte came back once and in
// order, and that the process's descriptors (/proc/self/fd) and threads
// (/proc/self/task) are back where they started.
//
//   kmio-soak [--short] [--rounds N] [--seed N] [--first-port PORT]
//
// --short runs a few seconds (the test suite runs it under the sanitizers);
// the default is the long run. Prints rounds per second, peak threads and
// peak descriptors. Exits 1 when a check fails.
//
// The simulated driver (libftd2xx.so of tools/ftdi-sim) is loaded by the
// driver's own name from the loader's search path; the soak puts its folder
// there itself.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <unistd.h>

#include "kmio/kmio.h"
#include "support/child_process.h"
#include "support/datagram_flood.h"
#include "support/echoing_pty.h"
#include "support/ftdi_sim_control.h"
#include "support/process_counts.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kNetworkDevices = 3;
constexpr int kSerialDevices = 3;
constexpr int kUsbDevices = 3;

struct Settings {
    int rounds = 20000;
    unsigned seed = 20261123;
    int firstPort = 56800;
};

Settings parseArguments(int argc, char** argv) {
    Settings settings;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const bool hasValue = i + 1 < argc;
        if (name == "--short") {
            settings.rounds = 300;
        } else if (name == "--rounds" && hasValue) {
            settings.rounds = std::atoi(argv[++i]);
        } else if (name == "--seed" && hasValue) {
            settings.seed = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        } else if (name == "--first-port" && hasValue) {
            settings.firstPort = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: kmio-soak [--short] [--rounds N] [--seed N] [--first-port PORT]\n");
            std::exit(2);
        }
    }
    return settings;
}

// The bytes of one open, from its first send to its close. The byte at
// position i depends on i and a seed, so a lost, repeated or reordered block
// shows in the first byte that follows it. Streams live until the end:
// a receiving thread left running by a close without wait may still write.
struct Stream {
    explicit Stream(std::uint8_t seedByte) : seed(seedByte) {}

    std::uint8_t at(std::uint64_t i) const { return static_cast<std::uint8_t>(seed + i + (i >> 8) * 7); }

    const std::uint8_t seed;
    std::uint64_t sent = 0;  // the soak's main thread only
    std::atomic<std::uint64_t> received{0};
    std::atomic<bool> disordered{false};
    std::atomic<unsigned> linkErrors{0};
};

void onReceive(void* context, const std::uint8_t* data, std::size_t length) {
    auto* stream = static_cast<Stream*>(context);
    // One receiving thread per open: nobody else writes this stream's count.
    const std::uint64_t from = stream->received.load(std::memory_order_relaxed);
    for (std::size_t k = 0; k < length; ++k) {
        if (data[k] != stream->at(from + k)) {
            stream->disordered = true;
        }
    }
    stream->received.store(from + length, std::memory_order_release);
}

void onLinkError(void* context, std::uint32_t) {
    ++static_cast<Stream*>(context)->linkErrors;
}

std::atomic<std::uint64_t> eventsSeen{0};

void onEvent(void*, std::uint32_t, const KM_IO_Event* event) {
    char text[1024];
    std::size_t size = sizeof text;
    if (KM_IO_GetDiscoveryEventData(event, "include-all", text, &size) == KM_IO_OK) {
        ++eventsSeen;
    }
}

enum Link { kSerial, kNetwork, kUsb, kLinks };

constexpr const char* kLinkNames[kLinks] = {"serial", "network", "usb"};

// One device the soak opens and closes: a simulated network device, an
// echoing pseudo-terminal or an echoing simulated USB chip.
struct Device {
    Link link = kSerial;
    std::string serialNumber;           // network and USB devices: the simulator's name for it
    std::vector<std::string> locators;  // the forms it may be opened by
    std::string options;
    bool open = false;
    std::uint32_t handle = 0;
    Stream* stream = nullptr;
    std::size_t connections = 0;  // network devices: opens that succeeded
};

// The chip id the older USB listing shows for a serial number ("usb:id:ID:sn:SERIAL" lines), "" when none.
std::string chipIdOf(const std::string& listing, const std::string& serial) {
    const std::string tail = ":sn:" + serial;
    std::size_t start = 0;
    while (start < listing.size()) {
        const std::size_t end = std::min(listing.find('\n', start), listing.size());
        const std::string_view line(listing.data() + start, end - start);
        start = end + 1;
        if (line.starts_with("usb:id:") && line.ends_with(tail)) {
            return std::string(line.substr(7, line.size() - 7 - tail.size()));
        }
    }
    return "";
}

struct Figures {
    std::uint64_t opens[kLinks] = {};  // by Link
    std::uint64_t refusedOpens[kLinks] = {};
    std::uint64_t usbNotFound = 0;  // USB refusals with KM_IO_ERR_NOT_FOUND
    std::uint64_t closes = 0;
    std::uint64_t bytes = 0;
    std::size_t peakThreads = 0;
    std::size_t peakDescriptors = 0;
    std::atomic<std::uint64_t> listings{0};
    std::atomic<std::uint64_t> optionChanges{0};
};

class Soak {
public:
    Soak(const Settings& settings) : settings_(settings), random_(settings.seed) {}

    int run() {
        kmiotest::ChildProcess simulator({KMIO_SIM_PATH, "--iface", "127.0.0.1", "--serial-prefix", "SOAK",
                                          "--count", std::to_string(kNetworkDevices), "--first-port",
                                          std::to_string(settings_.firstPort)});
        if (!simulator.waitForLine("ready")) {
            return fail("kmio-sim did not start: " + simulator.err());
        }
        std::vector<std::unique_ptr<kmiotest::EchoingPty>> terminals;
        for (int i = 0; i < kSerialDevices; ++i) {
            terminals.push_back(std::make_unique<kmiotest::EchoingPty>());
        }
        const kmiotest::DatagramFlood flood({1500, 2, true});
        // The same driver instance the library loads, found by the same name.
        const kmiotest::FtdiSimControl usb;
        if (!addUsbChips(usb)) {
            return 1;
        }

        for (int i = 0; i < kNetworkDevices; ++i) {
            const std::string port = std::to_string(settings_.firstPort + i);
            char serial[16];
            std::snprintf(serial, sizeof serial, "SOAK%04d", i + 1);
            devices_.push_back({kNetwork,
                                serial,
                                {"network:127.0.0.1:" + port, std::string("network:sn:") + serial},
                                "iface network:127.0.0.1\ndiscovery-timeout 300"});
        }
        for (const auto& terminal : terminals) {
            devices_.push_back({kSerial, "", {terminal->locator()}, "baudrate 115200"});
        }

        simulator_ = &simulator;
        const std::size_t threadsBefore = kmiotest::threadCount();
        const std::size_t descriptorsBefore = kmiotest::descriptorCount();
        const std::map<int, std::string> targetsBefore = kmiotest::descriptorTargets();
        const auto started = Clock::now();
        KM_IO_SetEventCallback(&onEvent, nullptr);
        std::atomic<bool> stop{false};
        std::thread lister([&] { listDevices(stop); });
        std::thread optionSetter([&] { changeOptions(stop); });

        for (; rounds_ < settings_.rounds && !failed_; ++rounds_) {
            step(devices_[random_() % devices_.size()]);
            samplePeaks();
        }
        stop = true;
        lister.join();
        optionSetter.join();
        for (Device& device : devices_) {
            if (device.open) {
                close(device, true);
            }
        }
        if (KM_IO_SetGlobalOptions("discovery-iface network:none") != KM_IO_OK) {
            fail("discovery-iface network:none was refused");
        }
        KM_IO_SetEventCallback(nullptr, nullptr);
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();

        // Receiving threads of closes without wait end on their own, soon.
        const auto deadline = Clock::now() + 10s;
        while (
            (kmiotest::threadCount() != threadsBefore || kmiotest::descriptorCount() != descriptorsBefore) &&
            Clock::now() < deadline) {
            std::this_thread::sleep_for(10ms);
        }
        const std::size_t threadsAfter = kmiotest::threadCount();
        const std::size_t descriptorsAfter = kmiotest::descriptorCount();
        report(seconds, flood.sent(), threadsBefore, threadsAfter, descriptorsBefore, descriptorsAfter);
        if (threadsAfter != threadsBefore) {
            fail("threads: " + std::to_string(threadsBefore) + " before, " + std::to_string(threadsAfter) +
                 " after");
        }
        if (descriptorsAfter != descriptorsBefore) {
            std::string extra;
            for (const auto& [fd, target] : kmiotest::descriptorTargets()) {
                if (targetsBefore.find(fd) == targetsBefore.end() || targetsBefore.at(fd) != target) {
                    extra += " " + std::to_string(fd) + "=" + target;
                }
            }
            fail("descriptors: " + std::to_string(descriptorsBefore) + " before, " +
                 std::to_string(descriptorsAfter) + " after; new:" + extra);
        }
        for (const auto& stream : streams_) {
            if (stream->disordered) {
                fail("a stream received bytes out of order");
                break;
            }
            if (stream->linkErrors != 0) {
                fail("a link reported an error");
                break;
            }
        }
        for (int link = 0; link < kLinks; ++link) {
            if (figures_.opens[link] == 0) {
                fail(std::string("no ") + kLinkNames[link] + " device was ever opened");
            }
        }
        for (const std::string& failure : failures_) {
            std::fprintf(stderr, "soak: %s\n", failure.c_str());
        }
        return failures_.empty() ? 0 : 1;
    }

private:
    // Echoing chips whose EEPROM names a link profile, each also opened by
    // the chip id the older listing shows for it.
    bool addUsbChips(const kmiotest::FtdiSimControl& usb) {
        for (int i = 1; i <= kUsbDevices; ++i) {
            char line[160];
            std::snprintf(
                line, sizeof line,
                "serial=SOAKUSB%d description=\"Soak chip %d\" ua=KMIO\\x01 ee43=0x%04X ee44=0x%04X echo=1",
                i, i, 0x1200 + i, 0x3400 + i);
            if (!usb.addChip(line)) {
                fail(std::string("the simulator refused ") + line);
                return false;
            }
        }
        std::vector<char> listing(1 << 16);
        std::size_t size = listing.size();
        if (const std::uint32_t rc =
                KM_IO_EnumerateDevices(KM_IO_IFACE_USB, "include-id\ninclude-sn", listing.data(), &size);
            rc != KM_IO_OK) {
            fail("the USB listing gave " + std::to_string(rc));
            return false;
        }
        const std::string text(listing.data(), std::strlen(listing.data()));
        for (int i = 1; i <= kUsbDevices; ++i) {
            const std::string serial = "SOAKUSB" + std::to_string(i);
            const std::string chipId = chipIdOf(text, serial);
            if (chipId.empty()) {
                fail("the USB listing has no chip id for " + serial + ": " + text);
                return false;
            }
            devices_.push_back({kUsb, serial, {"usb:sn:" + serial, "usb:id:" + chipId}, ""});
        }
        return true;
    }

    // Any thread may fail the soak.
    int fail(const std::string& what) {
        const std::lock_guard lock(failuresMutex_);
        failures_.push_back(what);
        failed_ = true;
        return 1;
    }

    void step(Device& device) {
        if (!device.open) {
            open(device);
            return;
        }
        switch (random_() % 4) {
            case 0:
                close(device, random_() % 4 != 0);
                return;
            default:
                send(device);
                return;
        }
    }

    void open(Device& device) {
        if (device.link == kNetwork && !simulatorLetGo(device)) {
            fail(device.serialNumber + ": kmio-sim never saw the last client leave");
            return;
        }
        const std::string& locator = device.locators[random_() % device.locators.size()];
        streams_.push_back(std::make_unique<Stream>(static_cast<std::uint8_t>(random_())));
        Stream* stream = streams_.back().get();
        const std::uint32_t rc = KM_IO_Open(&device.handle, locator.c_str(), device.options.c_str(), stream,
                                            &onReceive, &onLinkError);
        const Link link = device.link;
        if (rc != KM_IO_OK) {
            if (!expectedRefusal(link, rc)) {
                fail("opening " + locator + " gave " + std::to_string(rc));
            }
            ++figures_.refusedOpens[link];
            figures_.usbNotFound += link == kUsb && rc == KM_IO_ERR_NOT_FOUND ? 1 : 0;
            return;
        }
        ++figures_.opens[link];
        device.connections += link == kNetwork ? 1 : 0;
        device.open = true;
        device.stream = stream;
        send(device);
    }

    // A serial port still held by the thread of a close without wait; a
    // network device the flood-hit discovery has not seen again yet. A USB
    // chip is not found when the driver still lists it as open after a close
    // without wait, or when a "usb:id:" open reads the older listing from the
    // driver's device-list cache (fresh for 1500 ms) taken while the chip was
    // open; the open fails when the thread of a close without wait has not
    // let go of the chip yet.
    static bool expectedRefusal(Link link, std::uint32_t rc) {
        switch (link) {
            case kSerial:
                return rc == KM_IO_ERR_OPEN_FAILED;
            case kNetwork:
                return rc == KM_IO_ERR_NOT_FOUND;
            default:
                return rc == KM_IO_ERR_NOT_FOUND || rc == KM_IO_ERR_OPEN_FAILED;
        }
    }

    void send(Device& device) {
        std::vector<std::uint8_t> bytes(1 + random_() % 4096);
        Stream& stream = *device.stream;
        for (std::size_t k = 0; k < bytes.size(); ++k) {
            bytes[k] = stream.at(stream.sent + k);
        }
        const std::uint32_t rc = KM_IO_Send(device.handle, bytes.data(), bytes.size());
        if (rc != KM_IO_OK) {
            fail(device.locators[0] + ": send gave " + std::to_string(rc));
            return;
        }
        stream.sent += bytes.size();
        figures_.bytes += bytes.size();
    }

    // Waits for every byte sent to come back, then closes.
    void close(Device& device, bool wait) {
        Stream& stream = *device.stream;
        const auto deadline = Clock::now() + 20s;
        while (stream.received.load(std::memory_order_acquire) < stream.sent && Clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
        if (stream.received.load() != stream.sent) {
            fail(device.locators[0] + ": " + std::to_string(stream.sent) + " bytes sent, " +
                 std::to_string(stream.received.load()) + " came back");
        }
        if (KM_IO_Close(device.handle, wait ? 1 : 0) != KM_IO_OK) {
            fail(device.locators[0] + ": close failed");
        }
        device.open = false;
        ++figures_.closes;
    }

    // kmio-sim serves one client per device and turns away a second one. A
    // closed connection reaches it a moment later, so before a device is
    // opened again, wait until it has seen every earlier client leave.
    bool simulatorLetGo(const Device& device) {
        const std::string line = "client disconnected from " + device.serialNumber + "\n";
        const auto deadline = Clock::now() + 20s;
        for (;;) {
            std::size_t left = 0;
            for (std::size_t at = 0; (at = simulator_->out().find(line, at)) != std::string::npos;
                 at += line.size()) {
                ++left;
            }
            if (left >= device.connections) {
                return true;
            }
            if (Clock::now() > deadline) {
                return false;
            }
            (void)simulator_->waitForStdout(line + "\x01", 2ms);  // collects output meanwhile
        }
    }

    void samplePeaks() {
        figures_.peakThreads = std::max(figures_.peakThreads, kmiotest::threadCount());
        figures_.peakDescriptors = std::max(figures_.peakDescriptors, kmiotest::descriptorCount());
    }

    void listDevices(const std::atomic<bool>& stop) {
        std::minstd_rand random(settings_.seed + 1);
        std::vector<char> buffer(1 << 16);
        while (!stop) {
            // The combined listing probes the USB chips nobody has open.
            std::string options = "iface network:127.0.0.1\ndiscovery-timeout 50\nfind-only-available 0";
            if (random() % 3 == 0) {
                options += "\nforce-rescan";
            }
            std::size_t size = buffer.size();
            const std::uint32_t rc =
                KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, options.c_str(), buffer.data(), &size);
            if (rc != KM_IO_OK) {
                fail("listing gave " + std::to_string(rc));
            }
            size = buffer.size();
            const std::uint32_t usbRc = KM_IO_EnumerateDevices(
                KM_IO_IFACE_USB, random() % 2 == 0 ? "include-id\ninclude-sn" : "include-sn\nforce-rescan",
                buffer.data(), &size);
            if (usbRc != KM_IO_OK) {
                fail("the USB listing gave " + std::to_string(usbRc));
            }
            size = buffer.size();
            (void)KM_IO_EnumerateInterfaces("", buffer.data(), &size);
            ++figures_.listings;
        }
    }

    void changeOptions(const std::atomic<bool>& stop) {
        static const char* const kSettings[] = {
            "discovery-iface network:127.0.0.1\nlocator-format-network host",
            "locator-format-network sn",
            "discovery-iface network:none",
            "discovery-iface network:127.0.0.1",
        };
        std::minstd_rand random(settings_.seed + 2);
        while (!stop) {
            if (KM_IO_SetGlobalOptions(kSettings[random() % 4]) != KM_IO_OK) {
                fail("a global option change was refused");
            }
            ++figures_.optionChanges;
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
        }
    }

    void report(double seconds, std::size_t floodDatagrams, std::size_t threadsBefore,
                std::size_t threadsAfter, std::size_t descriptorsBefore, std::size_t descriptorsAfter) {
        std::printf("soak: %d rounds in %.1f s: %.0f rounds/s\n", rounds_, seconds, rounds_ / seconds);
        std::printf("  opens: network %llu (%llu not found), serial %llu (%llu busy)\n",
                    static_cast<unsigned long long>(figures_.opens[kNetwork]),
                    static_cast<unsigned long long>(figures_.refusedOpens[kNetwork]),
                    static_cast<unsigned long long>(figures_.opens[kSerial]),
                    static_cast<unsigned long long>(figures_.refusedOpens[kSerial]));
        std::printf("  opens: usb %llu (%llu refused, %llu of them not found); closes %llu\n",
                    static_cast<unsigned long long>(figures_.opens[kUsb]),
                    static_cast<unsigned long long>(figures_.refusedOpens[kUsb]),
                    static_cast<unsigned long long>(figures_.usbNotFound),
                    static_cast<unsigned long long>(figures_.closes));
        std::printf("  bytes echoed and checked: %llu\n", static_cast<unsigned long long>(figures_.bytes));
        std::printf("  listings %llu, global option changes %llu, events %llu, hostile datagrams %zu\n",
                    static_cast<unsigned long long>(figures_.listings.load()),
                    static_cast<unsigned long long>(figures_.optionChanges.load()),
                    static_cast<unsigned long long>(eventsSeen.load()), floodDatagrams);
        std::printf("  threads: %zu before, peak %zu, %zu after\n", threadsBefore, figures_.peakThreads,
                    threadsAfter);
        std::printf("  descriptors: %zu before, peak %zu, %zu after\n", descriptorsBefore,
                    figures_.peakDescriptors, descriptorsAfter);
    }

    const Settings settings_;
    std::mt19937 random_;
    kmiotest::ChildProcess* simulator_ = nullptr;
    std::vector<Device> devices_;
    std::vector<std::unique_ptr<Stream>> streams_;
    Figures figures_;
    std::mutex failuresMutex_;
    std::vector<std::string> failures_;
    std::atomic<bool> failed_{false};
    int rounds_ = 0;
};

}  // namespace

// The loader reads its search path once, at start: when the simulated
// driver's folder is not on it yet, put it there and start again.
void putDriverOnSearchPath(char** argv) {
    const std::string folder = KMIO_FTDI_SIM_DIR;
    const char* current = std::getenv("LD_LIBRARY_PATH");
    const std::string path = current != nullptr ? current : "";
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find(':', start), path.size());
        if (path.compare(start, end - start, folder) == 0) {
            return;
        }
        start = end + 1;
    }
    ::setenv("LD_LIBRARY_PATH", (path.empty() ? folder : folder + ":" + path).c_str(), 1);
    ::execv("/proc/self/exe", argv);
    std::perror("kmio-soak: cannot start again with the simulated driver on the search path");
    std::exit(1);
}

int main(int argc, char** argv) {
    const Settings settings = parseArguments(argc, argv);
    putDriverOnSearchPath(argv);
    return Soak(settings).run();
}
