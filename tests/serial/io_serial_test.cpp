#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "pty_pair.h"

namespace kmio::test {
namespace {

std::vector<std::uint8_t> randomBytes(std::size_t count) {
    std::mt19937 generator(42);
    std::vector<std::uint8_t> data(count);
    for (auto& b : data) {
        b = static_cast<std::uint8_t>(generator());
    }
    return data;
}

// Writes everything to a non-blocking-agnostic descriptor, waiting for room.
void writeAll(int fd, const std::vector<std::uint8_t>& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else {
            pollfd p{fd, POLLOUT, 0};
            ::poll(&p, 1, 1000);
        }
    }
}

std::vector<std::uint8_t> readExactly(int fd, std::size_t count) {
    std::vector<std::uint8_t> data;
    std::uint8_t block[4096];
    while (data.size() < count) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 20000) <= 0) {
            break;  // the comparison that follows reports the shortfall
        }
        const ssize_t n = ::read(fd, block, sizeof block);
        if (n <= 0) {
            break;
        }
        data.insert(data.end(), block, block + n);
    }
    return data;
}

// A pty pair with a sink, and the device opened on its slave.
class IoSerialPort : public ::testing::Test {
protected:
    std::shared_ptr<IoDevice> open(const std::string& options) {
        std::uint32_t result = 0;
        auto device = openSerial(pty.locator(), options, sink, result);
        EXPECT_EQ(result, KM_IO_OK) << options;
        return device;
    }
    PtyPair pty;
    Sink sink;
};

TEST(IoSerial, OpenFailuresGiveTheirCodes) {
    PtyPair pty;
    const struct {
        std::string locator;
        std::string options;
        std::uint32_t expected;
    } cases[] = {
        {"serial:", "baudrate 9600", KM_IO_ERR_BAD_LOCATOR},
        {pty.locator() + ":9600", "baudrate 9600", KM_IO_ERR_BAD_LOCATOR},
        {pty.locator(), "", KM_IO_ERR_BAD_OPTIONS},
        {pty.locator(), "baudrate 0", KM_IO_ERR_BAD_OPTIONS},
        {pty.locator(), "baudrate fast", KM_IO_ERR_BAD_OPTIONS},
        {pty.locator(), "baudrate 9600\nstrict\nparity even", KM_IO_ERR_BAD_OPTIONS},
        {"serial:/dev/kmio-no-such-port", "baudrate 9600", KM_IO_ERR_OPEN_FAILED},
        {"serial:kmio-no-such-port", "baudrate 9600", KM_IO_ERR_OPEN_FAILED},
    };
    for (const auto& c : cases) {
        Sink sink;
        std::uint32_t result = 0;
        openSerial(c.locator, c.options, sink, result);
        EXPECT_EQ(result, c.expected) << c.locator << " / " << c.options;
    }
}

TEST_F(IoSerialPort, PortHeldElsewhereIsRefusedAndFreedByClose) {
    std::uint32_t result = 0;
    {
        UniqueFd holder(::open(pty.slavePath.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        ASSERT_EQ(::flock(holder.get(), LOCK_EX | LOCK_NB), 0);
        openSerial(pty.locator(), "baudrate 9600", sink, result);
        EXPECT_EQ(result, KM_IO_ERR_OPEN_FAILED);
    }
    auto first = open("baudrate 9600");
    ASSERT_TRUE(first);
    openSerial(pty.locator(), "baudrate 9600", sink, result);
    EXPECT_EQ(result, KM_IO_ERR_OPEN_FAILED) << "a second open of an open port";
    first->close(true);
    auto again = open("baudrate 9600");
    ASSERT_TRUE(again) << "close with wait releases the port at once";
    again->close(true);
}

TEST_F(IoSerialPort, OneMebibyteEachWayArrivesIntactInBlocksOfAtMost1024) {
    auto device = open("baudrate 115200");
    ASSERT_TRUE(device);
    const auto inbound = randomBytes(1 << 20);
    std::thread writer([&] { writeAll(pty.master.get(), inbound); });
    EXPECT_TRUE(sink.waitUntil([&] { return sink.bytes.size() >= inbound.size(); }));
    writer.join();
    EXPECT_TRUE(sink.bytes == inbound);
    EXPECT_LE(sink.largestBlock, 1024u);
    EXPECT_GT(sink.largestBlock, 0u);

    auto outbound = randomBytes(1 << 20);
    std::reverse(outbound.begin(), outbound.end());
    std::vector<std::uint8_t> received;
    std::thread reader([&] { received = readExactly(pty.master.get(), outbound.size()); });
    EXPECT_EQ(device->send(outbound.data(), outbound.size()), KM_IO_OK);
    reader.join();
    EXPECT_TRUE(received == outbound) << received.size() << " bytes arrived";
    EXPECT_EQ(device->send(nullptr, 0), KM_IO_OK);
    device->close(true);
    EXPECT_TRUE(sink.errors.empty());
}

TEST_F(IoSerialPort, HangUpIsReportedOnceAsLinkFailure) {
    auto device = open("baudrate 9600");
    ASSERT_TRUE(device);
    pty.master.reset();
    ASSERT_TRUE(sink.waitUntil([&] { return !sink.errors.empty(); }));
    const std::uint8_t byte = 1;
    EXPECT_EQ(device->send(&byte, 1), KM_IO_ERR_SEND_FAILED);
    device->close(true);
    EXPECT_EQ(sink.errors, std::vector<std::uint32_t>{KM_IO_ERR_LINK_FAILED});
}

TEST_F(IoSerialPort, NoCallbackAfterCloseWithWait) {
    auto device = open("baudrate 115200");
    ASSERT_TRUE(device);
    std::atomic<bool> stop{false};
    ::fcntl(pty.master.get(), F_SETFL, O_NONBLOCK);  // the port's input fills up once it is closed
    std::thread writer([&] {
        const std::uint8_t block[64] = {};
        while (!stop) {
            [[maybe_unused]] auto n = ::write(pty.master.get(), block, sizeof block);
            std::this_thread::yield();
        }
    });
    ASSERT_TRUE(sink.waitUntil([&] { return !sink.bytes.empty(); }));
    device->close(true);
    sink.markClosed();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    stop = true;
    writer.join();
    EXPECT_EQ(sink.callsAfterClose, 0);
}

TEST_F(IoSerialPort, CloseWithoutWaitReturnsAndTheDeviceEndsOnItsOwn) {
    auto device = open("baudrate 9600");
    ASSERT_TRUE(device);
    std::weak_ptr<IoDevice> watch = device;
    device->close(false);
    device.reset();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!watch.expired() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(watch.expired()) << "the receiving thread let go of the device";
    auto again = open("baudrate 9600");
    if (again) {
        again->close(true);
    }
}

TEST_F(IoSerialPort, EveryPropertyIsTheEmptyText) {
    auto device = open("baudrate 9600");
    ASSERT_TRUE(device);
    char value[8] = "xyz";
    std::size_t size = 0;
    EXPECT_EQ(device->getProperty("anything", value, &size), KM_IO_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(value[0], 'x');
    size = sizeof value;
    EXPECT_EQ(device->getProperty("anything", value, &size), KM_IO_OK);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(value[0], '\0');
    device->close(true);
}

}  // namespace
}  // namespace kmio::test
