// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>

namespace varda {

// The threads of this process that share work which falls into independent items. They sleep while
// there is none.
class thread_team {
 public:
  explicit thread_team(int threads = 1);
  ~thread_team();
  thread_team(const thread_team&) = delete;
  thread_team& operator=(const thread_team&) = delete;

  int size() const { return size_; }

  // Calls work(item, worker) for every item from 0 to count - 1, in no order, and returns when all
  // are done. `worker`, below size(), tells scratch storage apart: no two calls with the same one
  // run at a time. `work` must not call this again. The first exception ends the rest and is thrown
  // on.
  void for_each(int count, const std::function<void(int item, int worker)>& work) const;

 private:
  struct arena;
  int size_;
  std::unique_ptr<arena> arena_;  // null with a single thread
};

}  // namespace varda
