// The ownership rules shared by every system; loading, look-up and closing
// are in the OS twins.
#include "platform/dynamic_library.h"

#include <utility>

namespace kmio {

DynamicLibrary::DynamicLibrary(DynamicLibrary&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)), error_(std::move(other.error_)) {}

DynamicLibrary& DynamicLibrary::operator=(DynamicLibrary&& other) noexcept {
    if (this != &other) {
        reset();
        handle_ = std::exchange(other.handle_, nullptr);
        error_ = std::move(other.error_);
    }
    return *this;
}

DynamicLibrary::~DynamicLibrary() {
    reset();
}

}  // namespace kmio
