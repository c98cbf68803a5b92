#include "network/channel_reaper.h"

#include <utility>

namespace kmio {

ChannelReaper::~ChannelReaper() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wake_.notify_one();
    // A working thread empties the queue before it ends.
    if (thread_.joinable()) {
        thread_.join();
    }
    std::deque<std::shared_ptr<DiscoverChannel>> left;
    {
        const std::lock_guard lock(mutex_);
        left = std::move(queue_);
    }
    for (const auto& channel : left) {
        channel->stop();
    }
}

void ChannelReaper::retire(std::shared_ptr<DiscoverChannel> channel) {
    std::unique_lock lock(mutex_);
    queue_.push_back(std::move(channel));
    if (!running_ && !ending_) {
        // Started when needed and ended when idle: a thread lives only while
        // there is a channel to stop. One that has just ended has already
        // let go of the mutex and every channel, so joining it cannot block.
        if (thread_.joinable()) {
            thread_.join();
        }
        running_ = true;
        thread_ = std::thread([this] { run(); });
    }
    lock.unlock();
    wake_.notify_one();
}

void ChannelReaper::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return ending_ || !queue_.empty(); });
        if (queue_.empty()) {
            running_ = false;
            return;  // ending, and nothing left to stop
        }
        std::shared_ptr<DiscoverChannel> channel = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        channel->stop();
        channel.reset();
        lock.lock();
        if (queue_.empty()) {
            running_ = false;
            return;
        }
    }
}

}  // namespace kmio
