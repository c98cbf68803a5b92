// kmio watch: background discovery and its events until Ctrl-C.
#include "arg_parser.h"
#include "command.h"
#include "console_wait.h"
#include "option_text.h"
#include "result_text.h"
#include "text_buffer.h"

#include <kmio/kmio.h>

#include <cstdio>
#include <string>
#include <vector>

namespace kmiotool {

namespace {

// Runs on a discovery thread with the library's table lock held, so it only
// reads the record (the accessors take no lock) and prints it; it must not
// call anything that opens, closes or changes settings.
void printEvent(void* /*userData*/, std::uint32_t eventType, const KM_IO_Event* event) {
    try {
        const char* kind = eventType == KM_IO_EVENT_DEVICE_AVAILABLE     ? "available"
                           : eventType == KM_IO_EVENT_DEVICE_UNAVAILABLE ? "unavailable"
                                                                         : nullptr;
        if (kind == nullptr) {
            std::printf("event %u\n", eventType);
        } else {
            std::string text;
            std::uint32_t code = readLibraryText(
                [&](char* buffer, std::size_t* size) {
                    return KM_IO_GetDiscoveryEventData(event, "include-all", buffer, size);
                },
                text);
            if (code == KM_IO_OK) {
                std::printf("%-11s %s\n", kind, text.c_str());
            } else {
                std::printf("%-11s (record unreadable: %s)\n", kind, describeResult(code).c_str());
            }
        }
        std::fflush(stdout);
    } catch (...) {
        // Nothing may unwind into the library's discovery thread.
    }
}

// How often watch runs a discovery pass to notice devices that went away.
constexpr int kPassIntervalMs = 3000;

int runWatch(const std::vector<std::string>& args) {
    ParsedArgs parsed = ArgParser({{"iface", 'i', true}, {"format", 'f', true}}).parse(args, 0, 0);
    std::string format = parsed.last("format", "sn");
    requireOneOf("format", format, {"sn", "host"});
    std::vector<std::string> interfaces = parsed.all("iface");
    if (interfaces.empty()) {
        interfaces.push_back("all");
    }
    OptionText options;
    options.add("locator-format-network", format);
    options.addInterfaces("discovery-iface", interfaces);

    ConsoleWait wait;
    KM_IO_SetEventCallback(&printEvent, nullptr);
    if (std::uint32_t code = KM_IO_SetGlobalOptions(options.text().c_str()); code != KM_IO_OK) {
        KM_IO_SetEventCallback(nullptr, nullptr);
        reportFailure("cannot start discovery", code);
        return kExitFailure;
    }
    std::fprintf(stderr, "kmio: watching for network devices; Ctrl-C ends\n");
    // A device that is switched off or unplugged says nothing: only a
    // discovery pass that it does not answer reports it gone. Ask for one
    // every few seconds; the listing itself is not needed.
    OptionText pass;
    pass.add("iface-type", "network");
    pass.addInterfaces("iface", interfaces);
    pass.add("force-rescan");
    pass.add("only-locator");
    const std::string passText = pass.text();
    std::vector<char> listing(64 * 1024);
    for (;;) {
        const ConsoleWait::Woken woken = wait.wait(false, kPassIntervalMs);
        if (woken == ConsoleWait::Woken::Stop) {
            break;
        }
        if (woken == ConsoleWait::Woken::TimedOut) {
            std::size_t size = listing.size();
            (void)KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, passText.c_str(), listing.data(), &size);
        }
    }
    KM_IO_SetGlobalOptions("discovery-iface network:none");
    KM_IO_SetEventCallback(nullptr, nullptr);
    return kExitOk;
}

}  // namespace

const Command& watchCommand() {
    static const Command command{
        "watch", "print network devices as they appear and vanish",
        "Usage: kmio watch [--iface ADDR]... [--format sn|host]\n"
        "\n"
        "Runs background discovery and prints one line per event, \"available\" or\n"
        "\"unavailable\" followed by the device's record, until Ctrl-C. A discovery\n"
        "pass every 3 seconds notices devices that went away without a word.\n"
        "\n"
        "  -i, --iface ADDR   discover on this interface (an IPv4 address of this host);\n"
        "                     repeatable; default every interface\n"
        "  -f, --format FORM  locators in the records: sn (network:sn:SERIAL, the\n"
        "                     default) or host (network:HOST:PORT)\n",
        runWatch};
    return command;
}

}  // namespace kmiotool
