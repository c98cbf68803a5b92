// The commands that only ask the library: version, list and interfaces.
#include "arg_parser.h"
#include "command.h"
#include "option_text.h"
#include "record_table.h"
#include "result_text.h"
#include "text_buffer.h"

#include <kmio/kmio.h>

#include <cstdio>

namespace kmiotool {

namespace {

int runVersion(const std::vector<std::string>& args) {
    ArgParser({}).parse(args, 0, 0);
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t update = 0;
    KM_IO_GetVersion(&major, &minor, &update);
    std::printf("kmio %d.%d.%d (library %u.%u.%u)\n", KM_IO_VERSION_MAJOR, KM_IO_VERSION_MINOR,
                KM_IO_VERSION_UPDATE, major, minor, update);
    return kExitOk;
}

// Prints an enumeration's text: as it came with --raw, otherwise as a table
// (one column named after the key for the "only-" forms).
void printRecords(const std::string& text, const OptionText& options, bool raw, const char* noneText) {
    if (raw) {
        std::fputs(text.c_str(), stdout);
        if (!text.empty()) {
            std::fputc('\n', stdout);
        }
        return;
    }
    std::string only = options.onlyKey();
    RecordTable table(text, only.empty() ? "value" : only);
    if (table.empty()) {
        std::printf("%s\n", noneText);
        return;
    }
    std::fputs(table.render().c_str(), stdout);
}

// The option lines both listing commands share: the link choice, the user's
// lines, and every key unless the user chose keys.
OptionText listingOptions(const ParsedArgs& parsed) {
    OptionText options;
    options.add("iface-type", parsed.last("type", "all"));
    options.addAll(parsed.all("option"));
    if (!options.selectsKeys()) {
        options.add("include-all");
    }
    return options;
}

int runList(const std::vector<std::string>& args) {
    ArgParser parser({{"type", 't', true}, {"iface", 'i', true}, {"option", 'o', true}, {"raw", 'r', false}});
    ParsedArgs parsed = parser.parse(args, 0, 0);
    requireOneOf("type", parsed.last("type", "all"), {"usb", "network", "serial", "all"});
    OptionText options = listingOptions(parsed);
    options.addInterfaces("iface", parsed.all("iface"));
    std::string optionText = options.text();
    std::string text;
    std::uint32_t code = readLibraryText(
        [&](char* buffer, std::size_t* size) {
            return KM_IO_EnumerateDevices(KM_IO_IFACE_ALL, optionText.c_str(), buffer, size);
        },
        text);
    if (code != KM_IO_OK) {
        reportFailure("cannot list devices", code);
        return kExitFailure;
    }
    printRecords(text, options, parsed.has("raw"), "(no devices found)");
    return kExitOk;
}

int runInterfaces(const std::vector<std::string>& args) {
    ArgParser parser({{"type", 't', true}, {"option", 'o', true}, {"raw", 'r', false}});
    ParsedArgs parsed = parser.parse(args, 0, 0);
    requireOneOf("type", parsed.last("type", "all"), {"network", "serial", "all"});
    OptionText options = listingOptions(parsed);
    std::string optionText = options.text();
    std::string text;
    std::uint32_t code = readLibraryText(
        [&](char* buffer, std::size_t* size) {
            return KM_IO_EnumerateInterfaces(optionText.c_str(), buffer, size);
        },
        text);
    if (code != KM_IO_OK) {
        reportFailure("cannot list interfaces", code);
        return kExitFailure;
    }
    printRecords(text, options, parsed.has("raw"), "(no interfaces found)");
    return kExitOk;
}

}  // namespace

const Command& versionCommand() {
    static const Command command{"version", "print the tool's and the library's version",
                                 "Usage: kmio version\n"
                                 "\n"
                                 "Prints the version the tool was built against and the version the loaded\n"
                                 "library reports.\n",
                                 runVersion};
    return command;
}

const Command& listCommand() {
    static const Command command{
        "list", "list the devices that can be opened",
        "Usage: kmio list [--type usb|network|serial|all] [--iface ADDR]... [-o \"key value\"]... [--raw]\n"
        "\n"
        "Lists devices on every link, or on the one named by --type, as a table with\n"
        "one column per property. Network devices are searched only on the interfaces\n"
        "given with --iface (an IPv4 address of this host, or \"all\").\n"
        "\n"
        "  -t, --type TYPE    usb, network, serial or all (default all)\n"
        "  -i, --iface ADDR   search for network devices on this interface; repeatable\n"
        "  -o, --option LINE  pass one option line to the library, e.g.\n"
        "                     -o \"find-device-sn SIM0001\" or -o force-rescan; repeatable\n"
        "  -r, --raw          print the library's record text as it comes\n"
        "\n"
        "Every property is shown unless an -o line selects some with include-KEY or\n"
        "only-locator.\n",
        runList};
    return command;
}

const Command& interfacesCommand() {
    static const Command command{
        "interfaces", "list this host's network interfaces and serial ports",
        "Usage: kmio interfaces [--type network|serial|all] [-o \"key value\"]... [--raw]\n"
        "\n"
        "  -t, --type TYPE    network, serial or all (default all)\n"
        "  -o, --option LINE  pass one option line to the library, e.g. -o only-name\n"
        "  -r, --raw          print the library's record text as it comes\n",
        runInterfaces};
    return command;
}

}  // namespace kmiotool
