#pragma once

#include <exception>
#include <string>

namespace kmio {

// Every failure of option handling: a failed conversion, an unknown key under
// "strict", two "only-" options, an unknown locator format. The exported
// functions turn it into KM_IO_ERR_BAD_OPTIONS.
class OptionsError : public std::exception {
public:
    explicit OptionsError(std::string message) : message_(std::move(message)) {}
    const char* what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

}  // namespace kmio
