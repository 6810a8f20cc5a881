// SPDX-License-Identifier: MIT
// Waiting while the main loop runs.
#pragma once

#include <glib.h>

#include <chrono>
#include <functional>

namespace tevrol {

// Iterates the default main context on the calling thread until `condition` holds. False when
// `limit` passed first.
inline bool IterateUntil(const std::function<bool()>& condition,
                         std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    constexpr guint kLookAgainMs = 2;  // for conditions that other threads make true
    const auto deadline = std::chrono::steady_clock::now() + limit;
    const guint tick = g_timeout_add(
        kLookAgainMs, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
    bool holds = condition();
    while (!holds && std::chrono::steady_clock::now() < deadline) {
        g_main_context_iteration(nullptr, TRUE);
        holds = condition();
    }
    g_source_remove(tick);
    return holds;
}

}  // namespace tevrol
