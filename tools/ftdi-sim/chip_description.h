#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ftdisim {

// How a chip answers the protocol-id probe request.
enum class ProbeMode { answer, garbage, silent, bad128 };

// Everything one line of the chip file says about a chip (see ftdi_sim.h for
// the fields and their defaults).
struct ChipDescription {
    std::string serial;
    std::string description = "FT232R USB UART";
    std::uint32_t type = 5;
    bool highSpeed = false;
    std::uint16_t vid = 0x0403;
    std::uint16_t pid = 0x6001;
    std::optional<std::uint32_t> location;
    std::vector<std::uint8_t> userArea;
    std::optional<std::uint16_t> ee43;
    std::optional<std::uint16_t> ee44;
    std::optional<std::uint32_t> chipId;
    std::vector<std::uint16_t> protocols;
    std::optional<std::uint16_t> reply240;
    ProbeMode probe = ProbeMode::answer;
    bool echo = true;

    // The chip a line describes, or nothing with `error` saying what is wrong.
    static std::optional<ChipDescription> parse(std::string_view line, std::string& error);
};

// True for a line of the chip file that describes no chip: blank or comment.
bool isBlankOrComment(std::string_view line);

}  // namespace ftdisim
