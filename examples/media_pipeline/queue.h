/** @file
 *  A queue between two threads. It is bounded, so that a slow reader holds up the decoder instead of letting
 *  decoded frames pile up. */
#ifndef MEDIA_PIPELINE_QUEUE_H
#define MEDIA_PIPELINE_QUEUE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

template <class Item> class Queue {
  public:
    explicit Queue(std::size_t capacity) : capacity_(capacity) {}

    /** Waits for room. Not to be called after close. */
    void push(Item item) {
        std::unique_lock hold(lock_);
        room_.wait(hold, [&] { return items_.size() < capacity_; });
        items_.push_back(std::move(item));
        hold.unlock();
        filled_.notify_one();
    }

    /** Waits for an item. Nothing comes out once the queue is closed and empty. */
    std::optional<Item> pop() {
        std::unique_lock hold(lock_);
        filled_.wait(hold, [&] { return !items_.empty() || closed_; });
        if (items_.empty()) {
            return std::nullopt;
        }
        std::optional<Item> item(std::move(items_.front()));
        items_.pop_front();
        hold.unlock();
        room_.notify_one();
        return item;
    }

    /** The writer is done. */
    void close() {
        {
            const std::lock_guard hold(lock_);
            closed_ = true;
        }
        filled_.notify_all();
    }

  private:
    const std::size_t capacity_;
    std::mutex lock_;
    std::condition_variable room_;
    std::condition_variable filled_;
    std::deque<Item> items_;
    bool closed_ = false;
};

#endif
