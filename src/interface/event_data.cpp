#include "interface/event_data.h"

#include <algorithm>
#include <string>
#include <vector>

#include "kmio/kmio.h"
#include "options/option_list.h"
#include "options/property_record.h"
#include "options/text_output.h"

namespace kmio {

std::uint32_t readErrorEventData(const KM_IO_Event& event, std::uint32_t* code, char* buffer,
                                 std::size_t* ioSize) {
    if (event.type != KM_IO_EVENT_ERROR) {
        return KM_IO_ERR_WRONG_EVENT_TYPE;
    }
    const std::uint32_t result = copyTextOut(event.message, buffer, ioSize);
    if (result == KM_IO_OK) {
        *code = event.code;
    }
    return result;
}

std::uint32_t readDiscoveryEventData(const KM_IO_Event& event, std::string_view options, char* buffer,
                                     std::size_t* ioSize) {
    if (event.type != KM_IO_EVENT_DEVICE_AVAILABLE && event.type != KM_IO_EVENT_DEVICE_UNAVAILABLE) {
        return KM_IO_ERR_WRONG_EVENT_TYPE;
    }
    // No option set here: the list is read as it stands, so unknown keys and
    // "strict" have no effect.
    const OptionList list = splitOptions(options);

    const auto onlyLocator =
        std::find_if(list.begin(), list.end(), [](const OptionPair& p) { return p.first == "only-locator"; });
    if (onlyLocator != list.end() && toBoolean(onlyLocator->second)) {
        const std::string* locator = event.properties.find("locator");
        return copyTextOut(locator != nullptr ? *locator : std::string_view(), buffer, ioSize);
    }

    // Every "include-" key names a property, whatever its value says.
    return copyTextOut(renderRecords(RecordList{event.properties}, includedKeys(list)), buffer, ioSize);
}

}  // namespace kmio
