// SPDX-License-Identifier: Apache-2.0
#include "varda/host/subjects.h"

#include <algorithm>

namespace varda {

std::vector<int> own_subjects(const population_model& model, const job& peers) {
  std::vector<int> own;
  for (int i = 0; i < model.subjects(); ++i)
    if (peers.owns(i) && model.observations(i) > 0) own.push_back(i);
  return own;
}

std::vector<int> own_subjects(const engine_host& host) {
  return own_subjects(host.model(), host.peers());
}

namespace {

// Handing work to threads takes some 10 microseconds, half as much again where they sleep. An
// evaluation of a closed form takes 0.1 microseconds or more, one of equations 10 or more.
constexpr double least_shared_evaluations = 1000.0;
constexpr double evaluations_worth_equations = 50.0;

}  // namespace

void for_each_own_subject(const engine_host& host, int evaluations,
                          const std::function<void(int subject, int worker)>& work) {
  for_each_subject(host, own_subjects(host), evaluations, work);
}

void for_each_subject(const engine_host& host, const std::vector<int>& some, int evaluations,
                      const std::function<void(int subject, int worker)>& work) {
  const auto count = static_cast<int>(some.size());
  const double all = static_cast<double>(count) * evaluations *
                     (host.model_is_costly() ? evaluations_worth_equations : 1.0);
  const auto one = [&](int k, int worker) {
    if (!engine_host::stop_requested()) work(some[static_cast<std::size_t>(k)], worker);
  };
  if (all >= least_shared_evaluations) return host.peers().threads().for_each(count, one);
  for (int k = 0; k < count; ++k) one(k, 0);
}

scratch_of_workers::scratch_of_workers(const engine_host& host) {
  for (int w = 0; w < host.peers().threads().size(); ++w) each_.emplace_back(host.model());
}

std::int64_t scratch_of_workers::evaluations() const {
  std::int64_t sum = 0;
  for (const worker_scratch& worker : each_) sum += worker.evaluations;
  return sum;
}

void subject_progress::done_one() {
  const std::lock_guard<std::mutex> alone(one_at_a_time_);
  done_ = std::min(done_ + processes_, subjects_);
  listener_({.stage = stage_, .step = done_, .of = subjects_});
}

}  // namespace varda
