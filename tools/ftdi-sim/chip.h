#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "byte_queue.h"
#include "chip_description.h"

namespace ftdisim {

// One simulated chip: its description, what it has sent towards the host,
// what the host wrote to it, and the log of calls made on its handles. Not
// synchronised itself: the simulator guards every chip with its one lock.
class Chip {
public:
    Chip(ChipDescription description, std::uint32_t location);

    const ChipDescription& description() const { return description_; }
    std::uint32_t location() const { return location_; }

    bool plugged() const { return plugged_; }
    void unplug() { plugged_ = false; }

    // The id of the handle that has the chip open, 0 when none.
    std::uint64_t openHandle() const { return openHandle_; }
    void setOpenHandle(std::uint64_t id) { openHandle_ = id; }

    // Bytes the chip has sent and the host has not read yet.
    std::size_t received() const { return received_.size(); }
    void receive(const std::uint8_t* data, std::size_t length) { received_.append(data, length); }
    std::size_t takeReceived(std::uint8_t* out, std::size_t capacity) {
        return received_.take(out, capacity);
    }
    void purgeReceived() { received_.clear(); }

    // Starts sending `bytes` stream bytes (byte i is i % 251) with a first step.
    void startStream(std::uint64_t bytes);
    // Queues the next step of the stream when the receive queue is empty;
    // true when it did.
    bool refillStream();

    // Bytes from the host: a probe request is answered, other bytes are echoed
    // or kept. True when the receive queue grew.
    bool hostWrote(const std::uint8_t* data, std::size_t length);
    std::size_t takeWritten(std::uint8_t* out, std::size_t capacity) { return written_.take(out, capacity); }
    void setEcho(bool on) { echo_ = on; }

    void log(const std::string& line) { callLog_ += line + "\n"; }
    const std::string& callLog() const { return callLog_; }
    void clearCallLog() { callLog_.clear(); }

    // EEPROM word at `offset`: the two chip-id words when given, else 0xFFFF.
    std::uint16_t eepromWord(std::uint32_t offset) const;
    std::vector<std::uint8_t>& userArea() { return userArea_; }

private:
    const ChipDescription description_;
    const std::uint32_t location_;
    std::vector<std::uint8_t> userArea_;
    bool plugged_ = true;
    bool echo_;
    std::uint64_t openHandle_ = 0;
    ByteQueue received_;
    ByteQueue written_;
    std::uint64_t streamSent_ = 0;
    std::uint64_t streamLength_ = 0;
    std::string callLog_;
};

}  // namespace ftdisim
