// SPDX-License-Identifier: Apache-2.0
//
// What a fit has done so far, as plain values: a fit that is given it goes on from there, and ends
// as the one that it is from would have, to the last bit, at any number of processes and threads.
// Samples are not in it: they follow from their addresses, the parameters and the proposals.
#pragma once

#include <vector>

#include "varda/method/newton/report.h"
#include "varda/run/fit_result.h"

namespace varda {

// What comes next.
enum class fit_stage {
  start,       // the start values of the next fit, and its first proposals
  iterations,  // another step of the method
  judging,     // proposals for the points of the verdict, where the method has others
  likelihood,  // another draw for the likelihood
  quadrature,
  diagnostics
};

struct fit_state {
  fit_stage next = fit_stage::start;
  int number = 0;          // of the fit in work, from 0: there may be several starts
  run_state method;        // of its iterations
  run_state verdict;       // proposals of the points that the likelihood is drawn from
  newton_report report;    // of the last of its draws
  int report_samples = 0;  // points a subject in each randomisation of it; 0 before the first
  timings spent;           // by all fits so far
  long long evaluations = 0;

  // The best of the fits that have ended, and all of them. From `quadrature` on it is the result.
  fit_result best;
  newton_report best_report;
  std::vector<start_record> starts;
  std::size_t kept = 0;  // of these the best

  template <class A>
  void visit(A& archive) {
    archive(next, number, method, verdict, report, report_samples, spent, evaluations, best,
            best_report, starts, kept);
  }
};

// Told of the states that a fit goes through, and keeps some of them.
class fit_listener {
 public:
  virtual ~fit_listener() = default;
  // A state from which the fit could be taken up has been reached. Whether it is wanted.
  // Collective.
  virtual bool reached() = 0;
  // One that was wanted; or, after a stop, the last that was reached. Collective.
  virtual void keep(fit_state& state, bool stopped) = 0;
};

}  // namespace varda
