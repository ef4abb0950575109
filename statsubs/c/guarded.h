// SPDX-License-Identifier: Apache-2.0
//
// The border between C++ and its C callers: an exception ends here as a status.
#pragma once

#include <exception>

#include "statsubs/c/statsubs.h"
#include "statsubs/state/refusal.h"

namespace statsubs::c {

// Keeps `message` for statsubs_last_error, cut to its buffer, and returns `status`.
int failed(statsubs_status status, const char* message) noexcept;

template <class Body>
int guarded(Body body) noexcept {
  try {
    body();
    return STATSUBS_OK;
  } catch (const refusal& error) {
    return failed(STATSUBS_REFUSED, error.what());
  } catch (const std::exception& error) {
    return failed(STATSUBS_HOST_EXCEPTION, error.what());
  } catch (...) {
    return failed(STATSUBS_HOST_EXCEPTION, "an exception that is no std::exception");
  }
}

}  // namespace statsubs::c
