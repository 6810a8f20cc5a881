// SPDX-License-Identifier: MIT
// An end for what waits without a limit of its own.
#pragma once

#include <gio/gio.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "devkit/glib.h"

namespace programs {

// Cancels what takes longer than that.
class TimeLimit {
public:
    explicit TimeLimit(std::chrono::milliseconds limit)
        : m_cancellable(g_cancellable_new()), m_thread([this, limit, over = m_over.get_future()] {
              if (over.wait_for(limit) == std::future_status::timeout) {
                  g_cancellable_cancel(m_cancellable.get());
              }
          }) {}
    ~TimeLimit() {
        m_over.set_value();
        m_thread.join();
    }
    TimeLimit(const TimeLimit&) = delete;
    TimeLimit& operator=(const TimeLimit&) = delete;

    GCancellable* Get() const {
        return m_cancellable.get();
    }

private:
    const std::unique_ptr<GCancellable, tevrol::GObjectUnref> m_cancellable;
    std::promise<void> m_over;
    std::thread m_thread;
};

}  // namespace programs
