// SPDX-License-Identifier: Apache-2.0
//
// The subjects that this process works on, by its threads.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "varda/host/engine_host.h"
#include "varda/support/progress.h"

namespace varda {

// Whether the process of this host owns a subject (from 0).
inline bool owns(const engine_host& host, int subject) {
  return host.peers().owns(subject);
}

// Those of its subjects that have observations, in their order.
std::vector<int> own_subjects(const engine_host& host);
std::vector<int> own_subjects(const population_model& model, const job& peers);

// Calls work(subject, worker) for each of these, in no order: see thread_team. Where all that is
// too little to be shared by the threads of the process, one does it: `evaluations` says how many
// of the model a subject takes, or what is worth as much. `work` leaves the host alone. After a
// stop request the subjects that are left are left out.
void for_each_own_subject(const engine_host& host, int evaluations,
                          const std::function<void(int subject, int worker)>& work);
// The same with those of its subjects that `some` lists.
void for_each_subject(const engine_host& host, const std::vector<int>& some, int evaluations,
                      const std::function<void(int subject, int worker)>& work);

// What a worker computes models with. Those of a pass are made once, before it.
struct worker_scratch {
  explicit worker_scratch(const population_model& model) : densities(model) {}
  density_workspace densities;
  std::int64_t evaluations = 0;
};
class scratch_of_workers {
 public:
  explicit scratch_of_workers(const engine_host& host);
  worker_scratch& operator[](int worker) { return each_[static_cast<std::size_t>(worker)]; }
  // Of the model, by all workers.
  std::int64_t evaluations() const;

 private:
  std::vector<worker_scratch> each_;
};

// Tells a listener of the subjects that threads finish, in ascending numbers. The other processes
// are taken to be as fast.
class subject_progress {
 public:
  // `listener` outlives this.
  subject_progress(const progress_listener& listener, run_stage stage, int subjects,
                   const job& peers)
      : listener_(listener), stage_(stage), subjects_(subjects), processes_(peers.size()) {}
  // From any thread.
  void done_one();

 private:
  const progress_listener& listener_;
  run_stage stage_;
  int subjects_;
  int processes_;
  std::mutex one_at_a_time_;
  int done_ = 0;
};

}  // namespace varda
