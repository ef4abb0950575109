// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace varda {

// This process and its peers. MPI is started only under a launcher: starting it costs a third of a
// second, which a run on its own need not pay. The build without MPI is always alone.
class job {
 public:
  job(int* argc, char*** argv);
  ~job();
  job(const job&) = delete;
  job& operator=(const job&) = delete;

  int rank() const { return rank_; }
  int size() const { return size_; }
  bool is_root() const { return rank_ == 0; }

  // values(count) becomes its sum over all processes, the same on every one. Collective.
  void sum(double* values, int count) const;

  // Ends every process of the job with `status`.
  [[noreturn]] void abort(int status) const;

 private:
  int rank_ = 0;
  int size_ = 1;
  bool started_ = false;
};

}  // namespace varda
