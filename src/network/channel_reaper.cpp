#include "network/channel_reaper.h"

#include <utility>

namespace kmio {

ChannelReaper::~ChannelReaper() {
    // The worker stops everything queued before it ends.
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [this] { return !running_; });
}

void ChannelReaper::retire(std::shared_ptr<DiscoverChannel> channel) {
    const std::lock_guard lock(mutex_);
    queue_.push_back(std::move(channel));
    if (!running_) {
        // Started when needed and ended when the queue is empty, so that a
        // thread lives only while there is a channel to stop. Detached: it
        // ends on its own, and nobody has to be there to join it.
        std::thread([this] { run(); }).detach();
        running_ = true;
    }
}

void ChannelReaper::run() {
    std::unique_lock lock(mutex_);
    while (!queue_.empty()) {
        std::shared_ptr<DiscoverChannel> channel = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        channel->stop();
        channel.reset();
        lock.lock();
    }
    running_ = false;
    idle_.notify_all();
}

}  // namespace kmio
