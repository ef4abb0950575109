// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/minimise.h"

#include <nlopt.h>

#include <cmath>
#include <condition_variable>
#include <exception>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>

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

// Where searches, a thread each, wait until all that go on have asked for a point.
class rounds {
 public:
  explicit rounds(std::size_t searches) : points_(searches), values_(searches), going_(searches) {}

  // By a search: the value at its next point; at the end that there is none.
  double ask(std::size_t search, const Eigen::VectorXd& x) {
    std::unique_lock lock(mutex_);
    points_[search] = x;
    ++asked_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return points_[search].size() == 0; });
    return values_[search];
  }
  void leave() {
    const std::lock_guard lock(mutex_);
    --going_;
    changed_.notify_all();
  }

  // By the thread that began them, until all have left. What `f` throws is thrown in the end, and
  // then nothing is asked of it any more.
  void answer(const objective_of_searches& f) {
    std::exception_ptr failure;
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [&] { return asked_ == going_; });
      if (going_ == 0) break;
      std::vector<asked_point> round;
      for (std::size_t s = 0; s < points_.size(); ++s)
        if (points_[s].size() > 0) round.push_back({s, points_[s]});
      std::vector<double> found(round.size(), very_large);
      try {
        if (!failure) found = f(round);
      } catch (...) {
        failure = std::current_exception();
      }
      for (std::size_t k = 0; k < round.size(); ++k) {
        values_[round[k].search] = found[k];
        points_[round[k].search].resize(0);
      }
      asked_ = 0;
      changed_.notify_all();
    }
    if (failure) std::rethrow_exception(failure);
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Eigen::VectorXd> points_;  // asked for; without entries where none is
  std::vector<double> values_;
  std::size_t going_;
  std::size_t asked_ = 0;
};

}  // namespace

std::vector<minimum> minimise_together(const objective_of_searches& f,
                                       const std::vector<Eigen::VectorXd>& starts,
                                       const Eigen::VectorXd& step, double precision) {
  std::vector<minimum> result(starts.size());
  rounds shared(starts.size());
  std::vector<std::thread> searches;
  for (std::size_t s = 0; s < starts.size(); ++s)
    searches.emplace_back([&, s] {
      result[s] = minimise([&](const Eigen::VectorXd& x) { return shared.ask(s, x); }, starts[s],
                           step, precision);
      shared.leave();
    });
  std::exception_ptr failure;
  try {
    shared.answer(f);
  } catch (...) {
    failure = std::current_exception();
  }
  for (std::thread& search : searches) search.join();
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
