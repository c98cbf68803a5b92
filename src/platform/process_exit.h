#pragma once

namespace kmio {

// True while the process is shutting down after its other threads were ended
// without running on. Windows does that before it destroys a DLL's static
// objects at exit: a destructor that waits for a library thread to leave a
// call would then wait forever, so such waits are skipped. Never true on
// POSIX, where static objects are destroyed while the threads still run.
bool processIsExiting() noexcept;

}  // namespace kmio
