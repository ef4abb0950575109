// SPDX-License-Identifier: Apache-2.0
//
// The request that a run ends early. Whatever takes long asks for it now and then and may leave
// what it computes unfinished: nothing is kept that was made after a request, because a run agrees
// on it (engine_host::agree_on_stop) before it takes over what a step has made.
#pragma once

#include <atomic>

namespace varda {

namespace stop_detail {
inline std::atomic<bool> requested = false;
static_assert(std::atomic<bool>::is_always_lock_free);
}  // namespace stop_detail

// May be called from a signal handler.
inline void request_stop() noexcept {
  stop_detail::requested.store(true, std::memory_order_relaxed);
}
inline void withdraw_stop() noexcept {
  stop_detail::requested.store(false, std::memory_order_relaxed);
}
// From any thread.
inline bool stop_requested() noexcept {
  return stop_detail::requested.load(std::memory_order_relaxed);
}

}  // namespace varda
