#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "network/discover_channel.h"

namespace kmio {

// Stops discovery channels on a thread of its own. Removing a channel happens
// under the discovery lock, and for the global settings under the table mutex
// too, while the channel's host thread may be waiting for either inside an
// event; joining that thread there would never return. The reaper joins it
// once those locks are free. Its thread ends whenever the queue runs empty.
class ChannelReaper {
public:
    ChannelReaper() = default;
    ChannelReaper(const ChannelReaper&) = delete;
    ChannelReaper& operator=(const ChannelReaper&) = delete;
    // Stops whatever is still queued, then ends the thread.
    ~ChannelReaper();

    // Queues the channel to be stopped and released. Never blocks on a channel.
    void retire(std::shared_ptr<DiscoverChannel> channel);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::shared_ptr<DiscoverChannel>> queue_;
    bool ending_ = false;
    bool running_ = false;  // a thread is working on the queue
    std::thread thread_;
};

}  // namespace kmio
