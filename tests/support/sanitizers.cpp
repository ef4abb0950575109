// SPDX-License-Identifier: Apache-2.0
//
// Settings of the sanitizers, read by their run-time libraries where a build has them.

// An allocation that is too large returns null, as it does without the sanitizer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
