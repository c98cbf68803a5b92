// Any option string through every option set: each either parses or throws
// the option error (or, for a bad boolean or number literal, the conversion
// errors the entry points turn into the same result), nothing else.

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "options/option_list.h"
#include "options/option_sets.h"
#include "options/options_error.h"

namespace {

template <class Parse>
void parseOrRefuse(Parse&& parse) {
    try {
        parse();
    } catch (const kmio::OptionsError&) {
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kmio;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)splitOptions(text);
    parseOrRefuse([&] { (void)SerialOpenOptions::parse(text); });
    parseOrRefuse([&] { (void)NetworkOpenOptions::parse(text); });
    parseOrRefuse([&] { (void)UsbOpenOptions::parse(text); });
    parseOrRefuse([&] {
        const EnumerationOptions options = EnumerationOptions::parse(text);
        for (const char* link : {"usb", "network", "serial"}) {
            (void)options.selects(link);
        }
    });
    parseOrRefuse([&] { (void)InterfaceEnumerationOptions::parse(text); });
    parseOrRefuse([&] { (void)GlobalOptions::parse(text); });
    (void)rawOptionValue(text, "connect-timeout");
    return 0;
}
