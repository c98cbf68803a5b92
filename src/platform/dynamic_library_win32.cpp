#include <windows.h>


#include "platform/dynamic_library.h"
#include "platform/error_text.h"

namespace kmio {

namespace {

HMODULE moduleOf(void* handle) {
    return static_cast<HMODULE>(handle);
}

}  // namespace

// LoadLibraryA searches the way Windows does for every program: the
// program's own folder, the system folders, the current folder, then PATH.
// A name with a folder is taken as it stands.
DynamicLibrary::DynamicLibrary(const std::string& name) : handle_(::LoadLibraryA(name.c_str())) {
    if (handle_ == nullptr) {
        error_ = name + ": " + lastSystemErrorText();
    }
}

void* DynamicLibrary::symbol(const char* name) const noexcept {
    if (handle_ == nullptr) {
        return nullptr;
    }
    // GetProcAddress hands out every export as the same generic function
    // pointer type; callers convert it back to the export's real type.
    return reinterpret_cast<void*>(::GetProcAddress(moduleOf(handle_), name));
}

void DynamicLibrary::reset() noexcept {
    if (handle_ != nullptr) {
        ::FreeLibrary(moduleOf(handle_));
        handle_ = nullptr;
    }
}

}  // namespace kmio
