// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/threads.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace varda {

void for_each_subject(int count, int threads, const std::function<void(int)>& work) {
  std::atomic<int> next = 0;
  std::exception_ptr failure;
  std::mutex guard;
  const auto run = [&] {
    for (int i = next++; i < count; i = next++) {
      try {
        work(i);
      } catch (...) {
        const std::lock_guard<std::mutex> lock(guard);
        if (!failure) failure = std::current_exception();
        next = count;
      }
    }
  };
  std::vector<std::thread> helpers;
  for (int k = 1; k < std::min(threads, count); ++k) helpers.emplace_back(run);
  run();
  for (std::thread& helper : helpers) helper.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace varda
