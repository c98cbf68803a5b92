#pragma once

#include <cstdint>
#include <string>

namespace kmiotool {

// The meaning of a library result code in words, e.g. "the link could not be
// opened". The library itself exports no such texts, so the tool keeps them.
const char* resultText(std::uint32_t code);

// "TEXT (CODE)", the tail of every error message the tool prints.
std::string describeResult(std::uint32_t code);

// Prints "kmio: WHAT: TEXT (CODE)" on stderr.
void reportFailure(const std::string& what, std::uint32_t code);

}  // namespace kmiotool
