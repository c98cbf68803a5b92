// The commands that open a device: open (a terminal bridge) and send (one
// message and its reply).
#include "arg_parser.h"
#include "command.h"
#include "console_wait.h"
#include "device_session.h"
#include "hex_dump.h"
#include "option_text.h"
#include "result_text.h"

#include <kmio/kmio.h>

#include <chrono>
#include <stdexcept>

namespace kmiotool {

namespace {

const std::vector<OptionSpec> kOpenOptions = {
    {"option", 'o', true}, {"iface", 'i', true}, {"hex", 'x', false}};

std::string openOptions(const ParsedArgs& parsed) {
    OptionText options;
    options.addAll(parsed.all("option"));
    options.addInterfaces("iface", parsed.all("iface"));
    return options.text();
}

bool openSession(DeviceSession& session, const ParsedArgs& parsed) {
    std::uint32_t code = session.open(openOptions(parsed));
    if (code != KM_IO_OK) {
        reportFailure("cannot open " + session.locator(), code);
        return false;
    }
    return true;
}

// Forwards one chunk of stdin to the device. Returns false at end of input or
// when sending failed (then `status` says which).
bool forwardStdin(ConsoleWait& wait, DeviceSession& session, int& status) {
    std::uint8_t buffer[4096];
    const std::ptrdiff_t n = wait.readInput(buffer, sizeof buffer);
    if (n < 0) {
        return true;
    }
    if (n == 0) {
        return false;  // end of input (a read error ends it the same way)
    }
    std::uint32_t code = session.send(buffer, static_cast<std::size_t>(n));
    if (code != KM_IO_OK) {
        reportFailure("cannot send to " + session.locator(), code);
        status = kExitFailure;
        return false;
    }
    return true;
}

// Lets received bytes flow to stdout for `ms` milliseconds; Ctrl-C or a link
// error ends the wait early.
void waitForReplies(ConsoleWait& wait, unsigned long ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (true) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return;
        }
        const auto woken = wait.wait(false, static_cast<int>(std::min<long long>(left.count(), 60'000)));
        if (woken != ConsoleWait::Woken::TimedOut) {
            return;  // a link error that was already reported, or Ctrl-C
        }
    }
}

int runOpen(const std::vector<std::string>& args) {
    std::vector<OptionSpec> specs = kOpenOptions;
    specs.push_back({"linger", 'l', true});
    ParsedArgs parsed = ArgParser(specs).parse(args, 1, 1);
    auto lingerMs = parseCount("linger", parsed.last("linger", "0"));
    ConsoleWait wait;
    DeviceSession session(parsed.positional[0], parsed.has("hex"), wait);
    if (!openSession(session, parsed)) {
        return kExitFailure;
    }
    int status = kExitOk;
    while (true) {
        const ConsoleWait::Woken woken = wait.wait(true, -1);
        if (woken == ConsoleWait::Woken::Stop) {
            break;  // Ctrl-C or SIGTERM: a normal end
        }
        if (woken == ConsoleWait::Woken::End) {
            status = kExitFailure;  // the link error was already reported
            break;
        }
        if (woken == ConsoleWait::Woken::Input && !forwardStdin(wait, session, status)) {
            if (status == kExitOk) {
                // End of input: the last replies may still be on their way.
                waitForReplies(wait, lingerMs);
                status = session.failed() ? kExitFailure : kExitOk;
            }
            break;
        }
    }
    session.close();
    return status;
}

int runSend(const std::vector<std::string>& args) {
    std::vector<OptionSpec> specs = kOpenOptions;
    specs.push_back({"wait", 'w', true});
    ParsedArgs parsed = ArgParser(specs).parse(args, 2, 2);
    auto waitMs = parseCount("wait", parsed.last("wait", "500"));
    std::vector<std::uint8_t> data;
    if (parsed.has("hex")) {
        try {
            data = decodeHex(parsed.positional[1]);
        } catch (const std::invalid_argument& e) {
            throw UsageError(std::string("DATA is not hex text: ") + e.what());
        }
    } else {
        data.assign(parsed.positional[1].begin(), parsed.positional[1].end());
    }

    ConsoleWait wait;
    DeviceSession session(parsed.positional[0], parsed.has("hex"), wait);
    if (!openSession(session, parsed)) {
        return kExitFailure;
    }
    if (std::uint32_t code = session.send(data.data(), data.size()); code != KM_IO_OK) {
        reportFailure("cannot send to " + session.locator(), code);
        return kExitFailure;
    }
    waitForReplies(wait, waitMs);
    session.close();
    return session.failed() ? kExitFailure : kExitOk;
}

}  // namespace

const Command& openCommand() {
    static const Command command{
        "open", "open a device and bridge it to this terminal",
        "Usage: kmio open LOCATOR [-o \"key value\"]... [--iface ADDR]... [--hex] [--linger MS]\n"
        "\n"
        "Opens the device and sends everything read from stdin to it; what the device\n"
        "sends is written to stdout. A lost or failed link (a serial hang-up, a closed\n"
        "connection) is reported on stderr and ends the bridge at once with status 1,\n"
        "whether or not input is still open (in a shell pipeline such as\n"
        "`sleep 60 | kmio open ...` the shell itself still waits for `sleep`).\n"
        "Otherwise ends at the end of input or on Ctrl-C, and closes the device.\n"
        "\n"
        "  -o, --option LINE  one option line for the link, e.g. -o \"baudrate 115200\"\n"
        "                     for a serial port or -o \"port 55550\"; repeatable\n"
        "  -i, --iface ADDR   interface to search when opening network:sn:SERIAL;\n"
        "                     repeatable (\"all\" for every interface)\n"
        "  -x, --hex          show received bytes as a hex dump\n"
        "  -l, --linger MS    after the end of input, keep showing what arrives for MS\n"
        "                     milliseconds before closing (default 0)\n"
        "\n"
        "Examples:\n"
        "  kmio open serial:/dev/ttyUSB0 -o \"baudrate 115200\"\n"
        "  kmio open network:192.168.1.20:55550\n"
        "  kmio open network:sn:SIM0001 --iface 127.0.0.1\n",
        runOpen};
    return command;
}

const Command& sendCommand() {
    static const Command command{
        "send", "send one message to a device and print the reply",
        "Usage: kmio send LOCATOR DATA [-o \"key value\"]... [--iface ADDR]... [--hex] [--wait MS]\n"
        "\n"
        "Opens the device, sends DATA once, writes what arrives within MS milliseconds\n"
        "to stdout, and closes the device.\n"
        "\n"
        "  -o, --option LINE  one option line for the link; repeatable\n"
        "  -i, --iface ADDR   interface to search when opening network:sn:SERIAL\n"
        "  -x, --hex          DATA is hex text (\"48 65 6c 6c 6f\"); the reply is shown\n"
        "                     as a hex dump\n"
        "  -w, --wait MS      how long to wait for the reply (default 500)\n",
        runSend};
    return command;
}

}  // namespace kmiotool
