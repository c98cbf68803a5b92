// Checks that the installed header and library work from C++: the version,
// locator classification and an interface listing through the out-buffer
// convention. Exits non-zero with a message on the first mismatch.
#include <kmio/kmio.h>

#include <cstdio>
#include <sstream>
#include <string>

namespace {

int fail(const std::string& what) {
    std::fprintf(stderr, "consumer: %s\n", what.c_str());
    return 1;
}

}  // namespace

int main() {
    uint32_t major = 0, minor = 0, update = 0;
    if (KM_IO_GetVersion(&major, &minor, &update) != KM_IO_OK || major != 2 || minor != 2 || update != 0) {
        return fail("unexpected version " + std::to_string(major) + "." + std::to_string(minor));
    }
    uint32_t type = KM_IO_IFACE_NONE;
    if (KM_IO_GetLocatorInterfaceType(&type, "network:sn:SIM0001") != KM_IO_OK ||
        type != KM_IO_IFACE_NETWORK) {
        return fail("network locator not classified as network");
    }
    if (KM_IO_GetLocatorInterfaceType(&type, "nolocator") != KM_IO_ERR_BAD_LOCATOR) {
        return fail("a locator without ':' was accepted");
    }
    // Asked with no room, the library reports length + 1; given that, it
    // fills the buffer and reports the length.
    size_t size = 0;
    if (KM_IO_EnumerateInterfaces("iface-type network", nullptr, &size) != KM_IO_ERR_BUFFER_TOO_SMALL ||
        size == 0) {
        return fail("an empty buffer did not give KM_IO_ERR_BUFFER_TOO_SMALL with the size needed");
    }
    const size_t needed = size;
    std::string text(needed, '\0');
    if (KM_IO_EnumerateInterfaces("iface-type network", text.data(), &size) != KM_IO_OK ||
        size != needed - 1) {
        return fail("listing interfaces with the size asked for failed");
    }
    text.resize(size);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("iface-type=network", 0) != 0) {
            return fail("not a network interface record: " + line);
        }
    }
    std::printf("find_package consumer: KalometIO %u.%u.%u\n", major, minor, update);
    return 0;
}
