// SPDX-License-Identifier: Apache-2.0
#include "varda/host/job.h"

#include <sched.h>

#include <algorithm>
#include <numeric>

#include "varda/host/launcher.h"

namespace varda {

void job::use_threads(int wanted) {
  const int cores = own_cores();
  const int count = wanted > 0 ? wanted : cores;
  why_one_thread_.clear();
  if (count == 1 && wanted == 1)
    why_one_thread_ = "no more were asked for";
  else if (count == 1 && size_ > 1)
    why_one_thread_ = "this process's share of the cores";
  else if (count == 1)
    why_one_thread_ = "this process may use a single core";
  threads_ = std::make_unique<thread_team>(count);
}

bool job::gather(double* values, std::ptrdiff_t rows, std::ptrdiff_t subjects, bool flag) const {
  if (size_ == 1) return flag;
  return gather(values, std::vector<std::ptrdiff_t>(static_cast<std::size_t>(subjects), rows),
                flag);
}

bool job::gather(double* values, std::ptrdiff_t rows, const std::vector<int>& subjects,
                 bool flag) const {
  return exchange(values, subjects, std::vector<std::ptrdiff_t>(subjects.size(), rows), flag);
}

bool job::gather(double* values, const std::vector<std::ptrdiff_t>& sizes, bool flag) const {
  std::vector<int> subjects(sizes.size());
  std::iota(subjects.begin(), subjects.end(), 0);
  return exchange(values, subjects, sizes, flag);
}

void job::add_up(double* values, std::ptrdiff_t count) const {
  if (size_ == 1) return;
  // A column for each process, that of a subject which it owns.
  std::vector<double> columns(static_cast<std::size_t>(count * size_));
  for (int subject = 0; subject < size_; ++subject)
    if (owns(subject)) std::copy_n(values, count, columns.begin() + subject * count);
  gather(columns.data(), count, size_);
  std::fill_n(values, count, 0.0);
  for (std::size_t k = 0; k < columns.size(); ++k)
    values[k % static_cast<std::size_t>(count)] += columns[k];
}

bool job::any(bool flag) const {
  return exchange(nullptr, {}, {}, flag);
}

std::vector<int> allowed_cores() {
  std::vector<int> cores;
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0)
    for (int core = 0; core < CPU_SETSIZE; ++core)
      if (CPU_ISSET(core, &allowed)) cores.push_back(core);
  return cores;
}

}  // namespace varda
