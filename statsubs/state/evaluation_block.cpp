// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/evaluation_block.h"

#include <algorithm>
#include <cassert>

namespace statsubs {

namespace {

constexpr int vectors_a_call = 256;

}  // namespace

evaluation_block::evaluation_block(const host_table& engine, int leneta)
    : engine_(engine),
      capacity_(engine.fcnxetas != nullptr ? vectors_a_call : 1),
      numbers_("numbers of a block's vectors", capacity_),
      etas_("a block of random effects", leneta, capacity_),
      objectives_("their objectives", capacity_),
      scores_("their scores", capacity_) {}

void evaluation_block::add(int number, const double* eta) {
  assert(!full());
  ++size_;
  numbers_(size_) = number;
  std::copy_n(eta, etas_.rows(), etas_.column(size_).begin());
}

void evaluation_block::evaluate() {
  std::fill_n(objectives_.begin(), size_, not_evaluated);
  std::fill_n(scores_.begin(), size_, not_evaluated);
  const int leneta = etas_.rows();
  if (engine_.fcnxetas != nullptr)
    engine_.fcnxetas(leneta, size_, etas_.data(), objectives_.data(), scores_.data());
  else
    for (int i = 1; i <= size_; ++i) engine_.fcnxeta(leneta, eta(i), objectives_(i));
}

}  // namespace statsubs
