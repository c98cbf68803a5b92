#include <dlfcn.h>

#include <utility>

#include "platform/dynamic_library.h"

namespace kmio {

DynamicLibrary::DynamicLibrary(const std::string& name)
    : handle_(::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) {
        const char* text = ::dlerror();
        error_ = text != nullptr ? text : "cannot load " + name;
    }
}

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

void* DynamicLibrary::symbol(const char* name) const noexcept {
    return handle_ != nullptr ? ::dlsym(handle_, name) : nullptr;
}

void DynamicLibrary::reset() noexcept {
    if (handle_ != nullptr) {
        ::dlclose(handle_);
        handle_ = nullptr;
    }
}

}  // namespace kmio
