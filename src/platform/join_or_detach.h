#pragma once

#include <thread>

namespace kmio {

// Ends the wait for a thread: joins it, or, when called on that thread itself
// (a callback of the thread stopping its owner), detaches it so that it ends
// on its own, since a thread cannot wait for itself and std::thread would throw
// resource_deadlock_would_occur. A thread that is not joinable is left alone.
inline void joinOrDetach(std::thread& thread) {
    if (!thread.joinable()) {
        return;
    }
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
    } else {
        thread.join();
    }
}

}  // namespace kmio
