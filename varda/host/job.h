// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "varda/support/threads.h"

namespace varda {

// This process with its threads, and its peers. MPI is started only under a launcher: starting it
// costs a third of a second, which a run on its own need not pay. The build without MPI is always
// alone.
//
// Functions that are collective have to be called by every process of the job, in the same order.
// Who waits in them leaves the processor to others.
class job {
 public:
  // Throws bad_input where a launcher has started several processes that cannot meet: each would do
  // the whole run and write the same files.
  job(int* argc, char*** argv);
  ~job();
  job(const job&) = delete;
  job& operator=(const job&) = delete;

  int rank() const { return rank_; }
  int size() const { return size_; }
  bool is_root() const { return rank_ == 0; }

  // Processes share subjects (from 0), which are dealt out in turn.
  bool owns(int subject) const { return owner_of(subject) == rank_; }

  // `values` holds a column of reals for each subject, one after the other, each good on the
  // process that owns the subject; afterwards all of them are good everywhere. The columns are
  // those of the first `subjects` subjects, or of the ones that `subjects` lists; they have `rows`
  // reals, or as many as `sizes` says of every subject. Returns whether any process has set `flag`.
  // Collective.
  bool gather(double* values, std::ptrdiff_t rows, std::ptrdiff_t subjects,
              bool flag = false) const;
  bool gather(double* values, std::ptrdiff_t rows, const std::vector<int>& subjects,
              bool flag = false) const;
  bool gather(double* values, const std::vector<std::ptrdiff_t>& sizes, bool flag = false) const;

  // Of `count` reals, of which each process has its own, the sums over all of them. These have the
  // same bits with any number of processes only where adding does not round. Collective.
  void add_up(double* values, std::ptrdiff_t count) const;

  // Whether any process has set it. Collective.
  bool any(bool flag) const;

  // What the root has becomes what all have. Collective.
  void take_from_root(std::optional<std::string>& text) const;

  // Waits for all processes to come here, some seconds at most; false when one has not. For
  // processes that are about to end in the belief that all of them are.
  bool all_are_leaving() const;

  // Ends every process of the job with `status`, whatever they are doing.
  [[noreturn]] void abort(int status) const;

  // The threads of this process, one until more are asked for. `wanted` 0: the cores that are its
  // own share of the node's. Asking is collective.
  const thread_team& threads() const { return *threads_; }
  void use_threads(int wanted);
  // Why there is a single thread; empty where there are more.
  const std::string& why_one_thread() const { return why_one_thread_; }

 private:
  int owner_of(int subject) const { return (subject + 1) % size_; }

  // What `gather` does, for these subjects with columns of these sizes.
  bool exchange(double* values, const std::vector<int>& subjects,
                const std::vector<std::ptrdiff_t>& sizes, bool flag) const;

  // The cores that the process may use, divided by how many processes of the job may use each.
  int own_cores() const;

  int rank_ = 0;
  int size_ = 1;
  bool started_ = false;
  std::unique_ptr<thread_team> threads_ = std::make_unique<thread_team>();
  std::string why_one_thread_ = "no more were asked for";
};

}  // namespace varda
