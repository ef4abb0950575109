// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/dinvr.h"

#include <algorithm>
#include <cmath>

#include "statsubs/distributions/zero_finder.h"
#include "statsubs/support/parallel.h"

namespace statsubs {

namespace {

enum : int { no_root = -1, done = 0, wants_value = 1 };

struct search_parameters {
  double small = 0.0;
  double big = 0.0;
  double absstp = 0.0;
  double relstp = 0.0;
  double stpmul = 0.0;
  double abstol = 0.0;
  double reltol = 0.0;
};

// The conversation of dinvr, whose arguments are those of advance().
class inverse_search {
 public:
  void set(const search_parameters& parameters) { set_ = parameters; }
  void advance(int& status, double& x, double fval, bool& atlow, bool& fhigh);

 private:
  enum class awaited { at_small, at_big, at_start, at_upper, at_lower, in_bracket };

  void start(int& status, double& x);
  void judge_ends(int& status, double& x, double f_big, bool& atlow, bool& fhigh);
  void leave_start(int& status, double& x, double fval);
  void step_up(int& status, double& x, double fval, bool& atlow, bool& fhigh);
  void step_down(int& status, double& x, double fval, bool& atlow, bool& fhigh);
  void enter_bracket(int& status, double& x);
  void narrow(int& status, double& x, double fval);
  void ask(awaited point, double at, double& x) {
    awaited_ = point;
    x = at;
  }

  search_parameters set_;
  zero_finder finder_;

  awaited awaited_ = awaited::at_small;
  double start_ = 0.0;
  double f_small_ = 0.0;
  bool increasing_ = false;
  double step_ = 0.0;
  double lower_ = 0.0;  // current bracket
  double upper_ = 0.0;
  double best_ = 0.0;  // ends of the zero finder's bracket
  double other_ = 0.0;
};

void inverse_search::advance(int& status, double& x, double fval, bool& atlow, bool& fhigh) {
  if (status != wants_value) return start(status, x);
  switch (awaited_) {
    case awaited::at_small:
      f_small_ = fval;
      return ask(awaited::at_big, set_.big, x);
    case awaited::at_big:
      return judge_ends(status, x, fval, atlow, fhigh);
    case awaited::at_start:
      return leave_start(status, x, fval);
    case awaited::at_upper:
      return step_up(status, x, fval, atlow, fhigh);
    case awaited::at_lower:
      return step_down(status, x, fval, atlow, fhigh);
    case awaited::in_bracket:
      return narrow(status, x, fval);
  }
}

void inverse_search::start(int& status, double& x) {
  if (!(set_.small <= x && x <= set_.big))
    support::stop_process(" SMALL, X, BIG not monotone in INVR");
  start_ = x;
  status = wants_value;
  ask(awaited::at_small, set_.small, x);
}

void inverse_search::judge_ends(int& status, double& x, double f_big, bool& atlow, bool& fhigh) {
  increasing_ = f_big > f_small_;
  const bool below = increasing_ ? f_small_ > 0.0 : f_small_ < 0.0;
  const bool above = increasing_ ? f_big < 0.0 : f_big > 0.0;
  if (below || above) {
    status = no_root;
    atlow = below;
    fhigh = below == increasing_;
    return;
  }
  step_ = std::max(set_.absstp, set_.relstp * std::fabs(start_));
  ask(awaited::at_start, start_, x);
}

void inverse_search::leave_start(int& status, double& x, double fval) {
  if (fval == 0.0) {
    status = done;
    return;
  }
  if (increasing_ ? fval < 0.0 : fval > 0.0) {
    lower_ = start_;
    upper_ = std::min(start_ + step_, set_.big);
    ask(awaited::at_upper, upper_, x);
  } else {
    upper_ = start_;
    lower_ = std::max(start_ - step_, set_.small);
    ask(awaited::at_lower, lower_, x);
  }
}

void inverse_search::step_up(int& status, double& x, double fval, bool& atlow, bool& fhigh) {
  if (increasing_ ? fval >= 0.0 : fval <= 0.0) return enter_bracket(status, x);
  if (upper_ >= set_.big) {
    status = no_root;
    atlow = false;
    fhigh = !increasing_;
    x = set_.big;
    return;
  }
  step_ *= set_.stpmul;
  lower_ = upper_;
  upper_ = std::min(upper_ + step_, set_.big);
  ask(awaited::at_upper, upper_, x);
}

void inverse_search::step_down(int& status, double& x, double fval, bool& atlow, bool& fhigh) {
  if (increasing_ ? fval <= 0.0 : fval >= 0.0) return enter_bracket(status, x);
  if (lower_ <= set_.small) {
    status = no_root;
    atlow = true;
    fhigh = increasing_;
    x = set_.small;
    return;
  }
  step_ *= set_.stpmul;
  upper_ = lower_;
  lower_ = std::max(lower_ - step_, set_.small);
  ask(awaited::at_lower, lower_, x);
}

void inverse_search::enter_bracket(int& status, double& x) {
  finder_.set_bracket(lower_, upper_, set_.abstol, set_.reltol);
  awaited_ = awaited::in_bracket;
  status = done;
  narrow(status, x, 0.0);
}

// A bracket without a change of sign comes from a function that is not monotone; its low end is as
// good an answer as there is.
void inverse_search::narrow(int& status, double& x, double fval) {
  bool atlow = false;
  bool fhigh = false;
  finder_.advance(status, x, fval, best_, other_, atlow, fhigh);
  if (status == wants_value) return;
  status = done;
  x = best_;
}

inverse_search search;

}  // namespace

void dstinv(const double& small, const double& big, const double& absstp, const double& relstp,
            const double& stpmul, const double& abstol, const double& reltol) {
  search.set({small, big, absstp, relstp, stpmul, abstol, reltol});
}

void dinvr(int& status, double& x, const double& fval, bool& atlow, bool& fhigh) {
  search.advance(status, x, fval, atlow, fhigh);
}

}  // namespace statsubs
