// The two event accessors with any record, any options and any buffer size:
// each keeps the out-buffer convention and its type rule, and a bad
// "only-locator" literal is the one failure that leaves as an exception.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "interface/event_data.h"
#include "interface/event_record.h"
#include "kmio/kmio.h"
#include "options/property_record.h"

namespace {

// A buffer with a guard byte after the capacity the accessor is told about.
struct OutBuffer {
    explicit OutBuffer(std::size_t capacity) : bytes(capacity + 1, '\x7F'), size(capacity) {}
    std::vector<char> bytes;
    std::size_t size;

    void checkConvention(std::uint32_t result, std::size_t capacity) const {
        FUZZ_CHECK(bytes[capacity] == '\x7F');
        if (result == KM_IO_OK) {
            FUZZ_CHECK(size < capacity && bytes[size] == '\0');
            FUZZ_CHECK(std::strlen(bytes.data()) <= size);
        } else if (result == KM_IO_ERR_BUFFER_TOO_SMALL) {
            FUZZ_CHECK(size > capacity);
            for (std::size_t i = 0; i < capacity; ++i) {
                FUZZ_CHECK(bytes[i] == '\x7F');  // nothing copied
            }
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    KM_IO_Event event;
    event.type = input.ConsumeIntegralInRange<std::uint32_t>(0, 3);
    event.code = input.ConsumeIntegral<std::uint32_t>();
    event.message = input.ConsumeRandomLengthString(128);
    event.interfaceType = KM_IO_IFACE_NETWORK;
    const std::vector<std::string>& keys = kmio::record_keys::networkDevice();
    for (std::size_t n = input.ConsumeIntegralInRange<std::size_t>(0, 12); n > 0; --n) {
        event.properties.set(keys[input.ConsumeIntegralInRange<std::size_t>(1, keys.size() - 1)],
                             input.ConsumeRandomLengthString(64));
    }
    const std::size_t capacity = input.ConsumeIntegralInRange<std::size_t>(0, 600);
    const std::string options = input.ConsumeRemainingBytesAsString();

    OutBuffer error(capacity);
    std::uint32_t code = 0xDEADBEEF;
    const std::uint32_t errorResult = kmio::readErrorEventData(event, &code, error.bytes.data(), &error.size);
    if (event.type != KM_IO_EVENT_ERROR) {
        FUZZ_CHECK(errorResult == KM_IO_ERR_WRONG_EVENT_TYPE);
    } else {
        FUZZ_CHECK(errorResult == KM_IO_OK || errorResult == KM_IO_ERR_BUFFER_TOO_SMALL);
        error.checkConvention(errorResult, capacity);
        FUZZ_CHECK(errorResult == KM_IO_OK ? code == event.code && error.size == event.message.size()
                                           : code == 0xDEADBEEF && error.size == event.message.size() + 1);
    }

    OutBuffer discovery(capacity);
    try {
        const std::uint32_t result =
            kmio::readDiscoveryEventData(event, options, discovery.bytes.data(), &discovery.size);
        const bool isDiscovery =
            event.type == KM_IO_EVENT_DEVICE_AVAILABLE || event.type == KM_IO_EVENT_DEVICE_UNAVAILABLE;
        if (!isDiscovery) {
            FUZZ_CHECK(result == KM_IO_ERR_WRONG_EVENT_TYPE);
        } else {
            FUZZ_CHECK(result == KM_IO_OK || result == KM_IO_ERR_BUFFER_TOO_SMALL);
            discovery.checkConvention(result, capacity);
        }
    } catch (const std::invalid_argument& e) {
        FUZZ_CHECK(std::string(e.what()) == "Invalid boolean literal");
    }
    return 0;
}
