// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/minimise.h"

#include <nlopt.h>
#include <ucontext.h>

#include <cmath>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

namespace varda {

namespace {

struct problem {
  const objective_function& f;
  Eigen::VectorXd x;
};

// The quadratic models of BOBYQA must not see infinities.
constexpr double very_large = 1e30;

double evaluate(unsigned n, const double* x, double* /*gradient*/, void* data) {
  problem& p = *static_cast<problem*>(data);
  p.x = Eigen::Map<const Eigen::VectorXd>(x, static_cast<Eigen::Index>(n));
  const double value = p.f(p.x);
  return std::isfinite(value) ? value : very_large;
}

}  // namespace

minimum minimise(const objective_function& f, const Eigen::VectorXd& start,
                 const Eigen::VectorXd& step, const Eigen::VectorXd& lower,
                 const Eigen::VectorXd& upper, double precision) {
  const auto n = static_cast<unsigned>(start.size());
  // BOBYQA needs two dimensions at least; Subplex is the derivative-free search for one.
  const nlopt_algorithm algorithm = n == 1 ? NLOPT_LN_SBPLX : NLOPT_LN_BOBYQA;
  const std::unique_ptr<nlopt_opt_s, void (*)(nlopt_opt)> search(nlopt_create(algorithm, n),
                                                                 nlopt_destroy);
  problem p{f, start};
  nlopt_set_min_objective(search.get(), evaluate, &p);
  nlopt_set_lower_bounds(search.get(), lower.data());
  nlopt_set_upper_bounds(search.get(), upper.data());
  nlopt_set_initial_step(search.get(), step.data());
  nlopt_set_xtol_abs1(search.get(), precision);
  nlopt_set_maxeval(search.get(), 2000 * static_cast<int>(n));

  minimum result;
  result.x = start.cwiseMax(lower).cwiseMin(upper);
  const nlopt_result status = nlopt_optimize(search.get(), result.x.data(), &result.value);
  // Rounding stops a search at the bottom of a flat valley: the best point is an answer there too.
  result.found = status > 0 || status == NLOPT_ROUNDOFF_LIMITED;
  return result;
}

minimum minimise(const objective_function& f, const Eigen::VectorXd& start,
                 const Eigen::VectorXd& step, double precision) {
  const Eigen::VectorXd infinite =
      Eigen::VectorXd::Constant(start.size(), std::numeric_limits<double>::infinity());
  return minimise(f, start, step, -infinite, infinite, precision);
}

namespace {

// Runs a function on a stack of its own, which it may leave and come back to.
class fiber {
 public:
  explicit fiber(std::function<void()> body)
      : body_(std::move(body)), stack_(new char[stack_size]) {
    ::getcontext(&own_);
    own_.uc_stack.ss_sp = stack_.get();
    own_.uc_stack.ss_size = stack_size;
    own_.uc_link = &caller_;
    // Pointers are handed on in halves.
    const auto address = reinterpret_cast<std::uintptr_t>(this);
    ::makecontext(&own_, reinterpret_cast<void (*)()>(&fiber::enter), 2,
                  static_cast<unsigned>(address >> 32U), static_cast<unsigned>(address));
  }
  fiber(const fiber&) = delete;
  fiber& operator=(const fiber&) = delete;

  // Until the body leaves or ends.
  void resume() { ::swapcontext(&caller_, &own_); }
  // By the body.
  void leave() { ::swapcontext(&own_, &caller_); }

 private:
  static constexpr std::size_t stack_size = 256UL << 10;

  static void enter(unsigned high, unsigned low) {
    reinterpret_cast<fiber*>(std::uintptr_t{high} << 32U | low)->body_();
  }

  std::function<void()> body_;     // throws nothing
  std::unique_ptr<char[]> stack_;  // not cleared
  ucontext_t own_{};
  ucontext_t caller_{};
};

// A search that stands where it wants to know a value.
struct search_in_work {
  std::optional<fiber> runs;
  Eigen::VectorXd asks;
  double told = 0.0;
  bool ended = false;
};

}  // namespace

// The optimiser calls for values from its depths: so each search has a stack, and they go on in
// turn. With threads instead, each would reserve memory of its own.
std::vector<minimum> minimise_together(const objective_of_searches& f,
                                       const std::vector<Eigen::VectorXd>& starts,
                                       const Eigen::VectorXd& step, double precision) {
  std::vector<minimum> result(starts.size());
  std::vector<search_in_work> searches(starts.size());
  std::exception_ptr failure;
  for (std::size_t s = 0; s < starts.size(); ++s) {
    search_in_work& own = searches[s];
    own.runs.emplace([&result, &starts, &step, &own, &failure, s, precision] {
      try {
        result[s] = minimise(
            [&own](const Eigen::VectorXd& x) {
              own.asks = x;
              own.runs->leave();
              return own.told;
            },
            starts[s], step, precision);
      } catch (...) {
        failure = std::current_exception();
      }
      own.ended = true;
    });
    own.runs->resume();
  }
  for (;;) {
    std::vector<asked_point> round;
    for (std::size_t s = 0; s < searches.size(); ++s)
      if (!searches[s].ended) round.push_back({s, searches[s].asks});
    if (round.empty()) break;
    // After a failure the searches come to their ends without it.
    std::vector<double> values(round.size(), very_large);
    try {
      if (!failure) values = f(round);
    } catch (...) {
      failure = std::current_exception();
    }
    for (std::size_t k = 0; k < round.size(); ++k) {
      search_in_work& own = searches[round[k].search];
      own.told = values[k];
      own.runs->resume();
    }
  }
  if (failure) std::rethrow_exception(failure);
  return result;
}

difference_stencil::difference_stencil(const Eigen::VectorXd& centre, const Eigen::VectorXd& step)
    : step_(step) {
  const Eigen::Index n = centre.size();
  points_ = centre.replicate(1, 1 + 2 * n * n);
  Eigen::Index at = 1;
  for (Eigen::Index i = 0; i < n; ++i)
    for (const double side : {1.0, -1.0}) points_(i, at++) += side * step(i);
  for (Eigen::Index i = 0; i < n; ++i)
    for (Eigen::Index j = 0; j < i; ++j)
      for (const double side_i : {1.0, -1.0})
        for (const double side_j : {1.0, -1.0}) {
          points_(i, at) += side_i * step(i);
          points_(j, at++) += side_j * step(j);
        }
}

Eigen::VectorXd difference_stencil::gradient(const Eigen::VectorXd& values) const {
  Eigen::VectorXd slopes(step_.size());
  for (Eigen::Index i = 0; i < step_.size(); ++i)
    slopes(i) = (values(1 + 2 * i) - values(2 + 2 * i)) / (2.0 * step_(i));
  return slopes;
}

Eigen::VectorXd difference_stencil::curvatures(const Eigen::VectorXd& values) const {
  Eigen::VectorXd diagonal(step_.size());
  for (Eigen::Index i = 0; i < step_.size(); ++i)
    diagonal(i) = (values(1 + 2 * i) - 2.0 * values(0) + values(2 + 2 * i)) / (step_(i) * step_(i));
  return diagonal;
}

Eigen::MatrixXd difference_stencil::hessian(const Eigen::VectorXd& values) const {
  Eigen::MatrixXd h = curvatures(values).asDiagonal();
  Eigen::Index at = 1 + 2 * step_.size();
  for (Eigen::Index i = 0; i < step_.size(); ++i)
    for (Eigen::Index j = 0; j < i; ++j, at += 4) {
      h(i, j) = (values(at) - values(at + 1) - values(at + 2) + values(at + 3)) /
                (4.0 * step_(i) * step_(j));
      h(j, i) = h(i, j);
    }
  return h;
}

Eigen::MatrixXd hessian(const objective_function& f, const Eigen::VectorXd& x,
                        const Eigen::VectorXd& step) {
  const difference_stencil stencil(x, step);
  Eigen::VectorXd values(stencil.points().cols());
  for (Eigen::Index k = 0; k < values.size(); ++k) values(k) = f(stencil.points().col(k));
  return stencil.hessian(values);
}

}  // namespace varda
