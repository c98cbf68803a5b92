#include <windows.h>

#include "platform/process_exit.h"

namespace kmio {

// ntdll says so while the loader shuts the process down (ExitProcess has
// already ended every other thread by then).
bool processIsExiting() noexcept {
    using ShutdownInProgress = BOOLEAN(NTAPI*)();
    static const auto query = reinterpret_cast<ShutdownInProgress>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleA("ntdll.dll"), "RtlDllShutdownInProgress")));
    return query != nullptr && query() != 0;
}

}  // namespace kmio
