#include <dlfcn.h>


#include "platform/dynamic_library.h"

namespace kmio {

DynamicLibrary::DynamicLibrary(const std::string& name)
    : handle_(::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) {
        const char* text = ::dlerror();
        error_ = text != nullptr ? text : "cannot load " + name;
    }
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
