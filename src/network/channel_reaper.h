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
// once those locks are free. Its own thread runs only while the queue holds
// channels.
class ChannelReaper {
public:
    ChannelReaper() = default;
    ChannelReaper(const ChannelReaper&) = delete;
    ChannelReaper& operator=(const ChannelReaper&) = delete;
    // Waits until everything queued has been stopped.
    ~ChannelReaper();

    // Queues the channel to be stopped and released. Never blocks on a channel.
    void retire(std::shared_ptr<DiscoverChannel> channel);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable idle_;  // signalled when the worker ends
    std::deque<std::shared_ptr<DiscoverChannel>> queue_;
    bool running_ = false;  // a worker thread is emptying the queue
};

}  // namespace kmio
