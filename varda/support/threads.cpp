// SPDX-License-Identifier: Apache-2.0
#include "varda/support/threads.h"

#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>

namespace varda {

namespace {
constexpr int parts_a_thread = 32;
}

// More threads than cores are started where they are asked for.
struct thread_team::arena {
  explicit arena(int threads)
      : allowed(tbb::global_control::max_allowed_parallelism, static_cast<std::size_t>(threads)),
        members(threads) {}
  tbb::global_control allowed;
  tbb::task_arena members;
};

thread_team::thread_team(int threads) : size_(std::max(threads, 1)) {
  if (size_ > 1) arena_ = std::make_unique<arena>(size_);
}

thread_team::~thread_team() = default;

void thread_team::for_each(int count, const std::function<void(int item, int worker)>& work) const {
  if (arena_ == nullptr || count <= 1) {
    for (int item = 0; item < count; ++item) work(item, 0);
    return;
  }
  arena_->members.execute([&] {
    // Enough parts for the threads to end together.
    const int grain = std::max(count / (parts_a_thread * size_), 1);
    tbb::parallel_for(
        tbb::blocked_range<int>(0, count, static_cast<std::size_t>(grain)),
        [&](const tbb::blocked_range<int>& items) {
          const int worker = tbb::this_task_arena::current_thread_index();
          for (int item = items.begin(); item < items.end(); ++item) work(item, worker);
        },
        tbb::simple_partitioner());
  });
}

}  // namespace varda
