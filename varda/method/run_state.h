// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "varda/inference/proposals.h"
#include "varda/method/em/em_state.h"
#include "varda/method/newton/newton_state.h"

namespace varda {

struct iteration_record {
  int iteration = 0;
  double minus2ll = 0.0;  // at the parameters before the update, every constant included
  Eigen::VectorXd theta;  // after the update
  Eigen::MatrixXd omega;

  template <class A>
  void visit(A& archive) {
    archive(iteration, minus2ll, theta, omega);
  }
};

// All that a step of an estimation needs from the step before, as plain values: a run that writes
// it (varda/support/archive.h) and one that reads it go on alike, to the last bit.
struct run_state {
  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
  proposals adaptive;
  std::vector<iteration_record> records;
  bool ended = false;
  em_state em;
  newton_state newton;

  template <class A>
  void visit(A& archive) {
    archive(theta, omega, adaptive, records, ended, em, newton);
  }
};

// How an estimation ended.
struct method_conclusion {
  bool converged = false;
  std::string reason;                   // empty: what fresh points see is all there is to say
  std::vector<std::string> singular;    // what makes omega singular
  std::vector<std::string> indistinct;  // variances that cannot be told from 0
  std::vector<int> held_by_bounds;      // positions in theta
};

// An estimation method: takes steps on a state until it has ended.
class estimation_method {
 public:
  virtual ~estimation_method() = default;

  // The state before the first step; the proposals stand already. The parameters are those in
  // force.
  virtual void begin(run_state& state) const = 0;
  // One step, after which the parameters in the state are in force. Sets state.ended after the last
  // one. Collective. False when a stop was asked for: the state is then that of the last complete
  // step.
  virtual bool step(run_state& state) const = 0;
  virtual method_conclusion conclude(const run_state& state) const = 0;
  // What still moves, in a few words; empty where nothing is known.
  virtual std::string moving(const run_state& state) const = 0;
};

}  // namespace varda
