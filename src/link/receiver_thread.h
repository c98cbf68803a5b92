#pragma once

#include <functional>
#include <memory>
#include <thread>

namespace kmio {

class IoDevice;

// The receiving thread of one device, with the lifetime rules every link
// shares: the thread owns a shared reference to its device for as long as it
// runs, and stopping either detaches first (the caller does not wait) or
// requests the stop first and then joins.
class ReceiverThread {
public:
    ReceiverThread() = default;
    ReceiverThread(const ReceiverThread&) = delete;
    ReceiverThread& operator=(const ReceiverThread&) = delete;
    // A thread still joinable here means close() never ran: std::thread then
    // terminates the program, which is the intended verdict on such a bug.
    ~ReceiverThread() = default;

    // Starts body on a new thread. The thread holds self until body returns,
    // so the device outlives the table's reference if it has to.
    // Throws std::system_error when the thread cannot be started.
    void start(std::shared_ptr<IoDevice> self, std::function<void()> body);

    // Stops the thread. wait == false: detach, then requestStop(); the caller
    // does not wait. wait == true: requestStop(), then join; called on the
    // thread itself (one of the device's callbacks closing it), it detaches
    // instead and the thread ends on its own after the callback returns, as
    // with wait == false. A close without wait on a thread that is not
    // joinable throws std::system_error as std::thread::detach does.
    void stop(bool wait, const std::function<void()>& requestStop);

private:
    std::thread thread_;
};

}  // namespace kmio
