// SPDX-License-Identifier: Apache-2.0
//
// The likelihood of a model with more random effects than the data can tell apart has no maximum:
// it rises, or does not fall, all the way to an omega with a variance of zero or with correlations
// that make it singular. The EM algorithm creeps towards such an omega, ever more slowly, and none
// of its steps tells that nothing is to be reached. So an omega on its way there is tried out: the
// least eigenvalue of a block's correlation matrix, or a variance, is sent towards zero at once. If
// -2 log-likelihood never rises by more than its Monte Carlo error, omega is becoming singular.
#pragma once

#include <Eigen/Core>
#include <string>
#include <vector>

#include "varda/inference/e_step.h"

namespace varda {

// A way in which omega can become singular: a variance that vanishes, or a block whose correlation
// matrix loses its least eigenvalue. Effects per occasion go together, a copy for each occasion.
class vanishing_direction {
 public:
  vanishing_direction() = default;
  // `copies`: the random effects of a block, or a single one, for each occasion.
  explicit vanishing_direction(std::vector<std::vector<int>> copies) : copies_(std::move(copies)) {}

  // The variance, or the least eigenvalue of the block's correlation matrix.
  double size(const Eigen::MatrixXd& omega) const;
  // What is left of the population's variance in this direction when a subject's data are known,
  // the mean over the subjects: near 1 where the data say nothing of it.
  double unexplained(const population_model& model, const Eigen::MatrixXd& omega,
                     const e_step& found) const;
  // omega with the size times `factor`.
  Eigen::MatrixXd shrunk(Eigen::MatrixXd omega, double factor) const;

  // "omega(V)", "corr(CL,V)"; and what it tends to, in words.
  std::string name(const population_model& model, const Eigen::MatrixXd& omega) const;
  std::string tendency(const population_model& model, const Eigen::MatrixXd& omega) const;

  template <class A>
  void visit(A& archive) {
    archive(copies_);
  }

 private:
  bool is_variance() const { return copies_.front().size() == 1; }
  // The two effects of the first copy that the vanishing combination has most of.
  std::pair<int, int> closest(const Eigen::MatrixXd& omega) const;

  std::vector<std::vector<int>> copies_;
};

// All directions in which omega is estimated.
std::vector<vanishing_direction> vanishing_directions(const population_model& model);

// Watches the iterations of a fit for an omega that becomes singular. Plain values.
class singularity_watch {
 public:
  singularity_watch() = default;
  explicit singularity_watch(const engine_host& host);

  // Passes over the subjects that one trial makes, for the room that the points need.
  static constexpr int trial_passes = 4;
  // Points a subject in each of them: small differences decide.
  static int trial_samples(int samples);

  // After an iteration's update: `found` was its E-step, at the parameters before. Where omega is
  // becoming singular it then stands, as good as singular, in the host, with proposals to match.
  // Otherwise nothing has changed. Collective.
  void examine(engine_host& host, const e_step& found, proposals& adaptive);
  // The same once more where the iterations have come to rest, of all directions that the data say
  // little of: a few points may have a maximum close to an omega that is becoming singular.
  void examine_at_rest(engine_host& host, const e_step& found, proposals& adaptive);

  // The quantities that tend to a limit, by their names on the iteration scale, none unless omega
  // is becoming singular; and in words.
  const std::vector<std::string>& names() const { return names_; }
  std::string reason() const;

  template <class A>
  void visit(A& archive) {
    archive(directions_, history_, next_trial_, names_, tendencies_);
  }

 private:
  struct record {
    double minus2ll = 0.0;
    std::vector<double> sizes;
    template <class A>
    void visit(A& archive) {
      archive(minus2ll, sizes);
    }
  };
  bool creeping() const;
  bool falling(std::size_t direction) const;
  bool try_direction(std::size_t k, engine_host& host, const e_step& found, proposals& adaptive);
  bool vanishes(engine_host& host, const vanishing_direction& direction, proposals& adaptive) const;

  std::vector<vanishing_direction> directions_;
  std::vector<record> history_;
  std::size_t next_trial_ = 0;
  std::vector<std::string> names_;
  std::vector<std::string> tendencies_;
};

}  // namespace varda
