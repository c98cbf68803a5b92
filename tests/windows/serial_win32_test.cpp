// The serial link's Windows parts that run without a port pair: the
// registry listing and the refusals of open.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "serial/io_serial.h"
#include "serial/serial_port_scanner.h"
#include "support/callback_sink.h"
#include "support/wine.h"

namespace {

// Writes test values into the SerialComm key and removes them again. Only a
// private Wine prefix, or an administrator, may write there.
class SerialCommValues {
public:
    SerialCommValues() {
        ok_ = ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, "Hardware\\Devicemap\\SerialComm", 0, nullptr,
                                REG_OPTION_VOLATILE, KEY_SET_VALUE | KEY_QUERY_VALUE, nullptr, &key_,
                                nullptr) == ERROR_SUCCESS;
    }
    ~SerialCommValues() {
        for (const std::string& name : names_) {
            ::RegDeleteValueA(key_, name.c_str());
        }
        if (ok_) {
            ::RegCloseKey(key_);
        }
    }
    bool ok() const { return ok_; }

    void addText(const std::string& name, const std::string& data) {
        names_.push_back(name);
        ::RegSetValueExA(key_, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(data.c_str()),
                         static_cast<DWORD>(data.size() + 1));
    }
    void addNumber(const std::string& name, DWORD value) {
        names_.push_back(name);
        ::RegSetValueExA(key_, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                         sizeof value);
    }

private:
    HKEY key_ = nullptr;
    bool ok_ = false;
    std::vector<std::string> names_;
};

TEST(SerialPortScannerWin32, ListsTheComStringValuesOfSerialComm) {
    SerialCommValues values;
    if (!values.ok()) {
        GTEST_SKIP()
            << "the SerialComm key cannot be written here (needs a private Wine prefix or an administrator)";
    }
    values.addText("\\Device\\KmioTest0", "COM201");
    values.addText("\\Device\\KmioTest1", "com202");  // lower case: not a COM name
    values.addText("\\Device\\KmioTest2", "LPT9");
    values.addNumber("\\Device\\KmioTest3", 203);
    values.addText("\\Device\\KmioTest4", "COM204");

    const std::vector<kmio::SerialPortEntry> ports = kmio::SerialPortScanner().scan();
    std::vector<std::string> names;
    for (const kmio::SerialPortEntry& port : ports) {
        EXPECT_EQ(port.name.rfind("COM", 0), 0u) << port.name;
        names.push_back(port.name);
    }
    const auto first = std::find(names.begin(), names.end(), "COM201");
    const auto second = std::find(names.begin(), names.end(), "COM204");
    ASSERT_NE(first, names.end());
    ASSERT_NE(second, names.end());
    EXPECT_LT(first, second) << "registry order";
    EXPECT_EQ(std::count(names.begin(), names.end(), "com202"), 0);
    for (const kmio::SerialPortEntry& port : ports) {
        if (port.name == "COM201" || port.name == "COM204") {
            EXPECT_FALSE(port.available) << "no such device behind " << port.name;
        }
    }
}

TEST(IoSerialWin32, MissingPortAndMissingRateAreRefused) {
    kmiotest::Sink sink;
    const auto missing = std::make_shared<kmio::IoSerial>("serial:COM250", "baudrate 115200", &sink,
                                                          kmiotest::Sink::onReceive, kmiotest::Sink::onError);
    EXPECT_EQ(missing->open(missing), KM_IO_ERR_OPEN_FAILED);
    const auto noRate = std::make_shared<kmio::IoSerial>("serial:COM250", "", &sink,
                                                         kmiotest::Sink::onReceive, kmiotest::Sink::onError);
    EXPECT_EQ(noRate->open(noRate), KM_IO_ERR_BAD_OPTIONS);
}

TEST(IoSerialWin32, BytesArriveThroughCommunicationEvents) {
    if (kmiotest::runningUnderWine()) {
        GTEST_SKIP() << "Wine maps COM ports onto Unix terminals and does not raise communication events "
                        "(WaitCommEvent) for a pseudo-terminal, so the receive path has no port to run on";
    }
    const char* pair = std::getenv("KMIO_TEST_COM_PAIR");  // e.g. "COM10,COM11", a null-modem pair
    if (pair == nullptr) {
        GTEST_SKIP() << "set KMIO_TEST_COM_PAIR to two connected ports (a null-modem emulator) to run this";
    }
    const std::string both = pair;
    const std::string ours = both.substr(0, both.find(','));
    const std::string theirs = both.substr(both.find(',') + 1);
    kmiotest::Sink sink;
    const auto device = std::make_shared<kmio::IoSerial>("serial:" + ours, "baudrate 115200", &sink,
                                                         kmiotest::Sink::onReceive, kmiotest::Sink::onError);
    ASSERT_EQ(device->open(device), KM_IO_OK);
    const auto other = std::make_shared<kmio::IoSerial>("serial:" + theirs, "baudrate 115200", &sink,
                                                        kmiotest::Sink::onReceive, kmiotest::Sink::onError);
    ASSERT_EQ(other->open(other), KM_IO_OK);
    const std::string text = "across the pair";
    ASSERT_EQ(other->send(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), KM_IO_OK);
    EXPECT_TRUE(sink.waitUntil([&] { return sink.bytes.size() == text.size(); }));
    EXPECT_EQ(std::string(sink.bytes.begin(), sink.bytes.end()), text);
    other->close(true);
    device->close(true);
}

}  // namespace
