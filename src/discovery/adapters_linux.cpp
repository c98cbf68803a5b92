#include <fstream>

#include "discovery/adapters.h"

namespace kalometnd {

// An administrator-set description ("ip link set NAME alias TEXT") plays the
// part of a friendly name; interfaces without one go by their name.
std::string friendlyNameOf(const kmio::InterfaceAddress& entry) {
    std::ifstream file("/sys/class/net/" + entry.name + "/ifalias");
    std::string alias;
    if (file && std::getline(file, alias) && !alias.empty()) {
        return alias;
    }
    return entry.name;
}

}  // namespace kalometnd
