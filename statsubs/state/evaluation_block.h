// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <limits>

#include "statsubs/state/host.h"
#include "statsubs/support/array.h"

namespace statsubs {

// What the outputs of an evaluation hold when the host is called: one that it does not write has
// failed.
inline constexpr double not_evaluated = std::numeric_limits<double>::quiet_NaN();

// Random-effect vectors of the current subject that the host evaluates together: up to 256 with
// one call of its fcnxetas, or one with fcnxeta where it has none.
//
// 256 is four times what a host needs that evaluates 64 vectors side by side and moves a new one
// into the place of each that is ready. Longer blocks gain nothing and cost twice: a stop is seen
// later, and what a call hands over no longer fits in a core's first cache.
class evaluation_block {
 public:
  // For vectors of `leneta` entries; `engine` outlives the block.
  evaluation_block(const host_table& engine, int leneta);

  // Takes a copy of eta(leneta), with a number by which the caller knows it. Not when full.
  void add(int number, const double* eta);
  void clear() { size_ = 0; }
  bool full() const { return size_ == capacity_; }
  int capacity() const { return capacity_; }
  int size() const { return size_; }
  int number(int i) const { return numbers_(i); }
  const double* eta(int i) const { return etas_.column(i).data(); }

  // Has the host evaluate all vectors.
  void evaluate();
  double objective(int i) const { return objectives_(i); }
  double score(int i) const { return scores_(i); }  // from fcnxetas alone

 private:
  const host_table& engine_;
  int capacity_;
  int size_ = 0;
  vector<int> numbers_;
  matrix<double> etas_;
  vector<double> objectives_, scores_;
};

}  // namespace statsubs
