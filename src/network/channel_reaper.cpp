#include "network/channel_reaper.h"

#include <utility>

namespace kmio {

ChannelReaper::~ChannelReaper() {
    std::unique_lock lock(mutex_);
    ending_ = true;
    if (thread_.joinable()) {
        lock.unlock();
        wake_.notify_one();
        thread_.join();
        return;
    }
    // No thread was ever needed; stop what might have been queued anyway.
    std::deque<std::shared_ptr<DiscoverChannel>> left = std::move(queue_);
    lock.unlock();
    for (const auto& channel : left) {
        channel->stop();
    }
}

void ChannelReaper::retire(std::shared_ptr<DiscoverChannel> channel) {
    std::unique_lock lock(mutex_);
    queue_.push_back(std::move(channel));
    if (!thread_.joinable() && !ending_) {
        // Started on first need: most processes never remove a channel.
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
            return;  // ending, and nothing left to stop
        }
        std::shared_ptr<DiscoverChannel> channel = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        channel->stop();
        channel.reset();
        lock.lock();
    }
}

}  // namespace kmio
