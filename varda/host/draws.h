// SPDX-License-Identifier: Apache-2.0
//
// Samples of one subject's individual parameters with all that an estimation needs of them: where
// they stand, the density they were drawn from, and the predictions there. While no parameter is
// moved on which predictions depend directly, nothing of the model has to be evaluated again,
// however the other parameters move.
#pragma once

#include <Eigen/Core>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "varda/host/points.h"
#include "varda/model/density.h"

namespace varda {

// A density that samples are drawn from: normal, or split normal in each of the independent
// coordinates factor^-1 (phi - centre): J. Geweke, Econometrica 57 (1989) 1317-1339.
struct draw_component {
  double share = 1.0;      // samples for one of the plan: shares may sum to more than one
  Eigen::VectorXd centre;  // its mean, in phi = C beta + eta
  Eigen::MatrixXd factor;  // lower Cholesky factor of its covariance
  // Third moments of the coordinates; empty where it is normal.
  Eigen::VectorXd skewness = {};

  template <class A>
  void visit(A& archive) {
    archive(share, centre, factor, skewness);
  }
};

// A density of mean 0 and variance 1 that is two halves of normal densities with one mode and
// different deviations.
struct split_normal {
  // With this third moment, or the nearest to it that is not above `most_skewness`.
  explicit split_normal(double skewness);
  static constexpr double most_skewness = 0.8;

  double mode, left, right;
};

// What a subject's samples are drawn from. Copies share it: the states of a fit of many subjects
// differ in little.
using draw_mixture = std::shared_ptr<const std::vector<draw_component>>;

inline draw_mixture mixture_of(std::vector<draw_component> components) {
  return std::make_shared<const std::vector<draw_component>>(std::move(components));
}

struct subject_draw {
  Eigen::MatrixXd phi;           // random effects x samples
  Eigen::VectorXd log_proposal;  // of the mixture of all components, at each sample
  Eigen::MatrixXd predictions;   // samples x observations
  // Samples come in `groups` of equal size, one after the other, each a randomisation of its own.
  int groups = 1;
};

// What a pass draws of every subject: `groups` of its randomisations, from `first_group` on, with
// `group_size` samples each (both numbers powers of two, at least 16 samples).
struct draw_plan {
  point_pass pass;
  int group_size = 0;
  int groups_of_pass = 1;
  int first_group = 0;
  int groups = 1;

  // Of a subject whose proposal is one component.
  int samples() const { return group_size * groups; }
  // Of one that is drawn from these components, in a group.
  int samples_of_group(const std::vector<draw_component>& from) const;
  // One of these groups (from 0) by itself.
  draw_plan alone(int group) const {
    return {pass, group_size, groups_of_pass, first_group + group, 1};
  }
};

// Draws individual parameters of subjects from 0 with observations, at fixed effects `theta`. What
// a subject's samples are follows from the plan, theta and the proposal alone, so that they can be
// drawn again instead of kept. One for each thread; nothing is shared but what the constructor
// takes, which outlives it.
class subject_drawer {
 public:
  subject_drawer(const density& joint, const point_source& points)
      : joint_(joint), points_(points), scratch_(joint.model()) {}

  // All samples of a subject. The samples of every component are weighed by the density of the
  // whole mixture: A. Owen and Y. Zhou, "Safe and effective importance sampling", J. Am. Stat.
  // Assoc. 95 (2000) 135-143.
  void draw(int subject, const Eigen::VectorXd& theta, const std::vector<draw_component>& from,
            const draw_plan& plan, subject_draw& drawn);

  // The same group by group, those of a subject in any order and by any drawer, once there is room
  // for all. `group` counts from 0 in the plan.
  static void make_room(const population_model& model, int subject,
                        const std::vector<draw_component>& from, const draw_plan& plan,
                        subject_draw& drawn);
  void draw_group(int subject, const Eigen::VectorXd& theta,
                  const std::vector<draw_component>& from, const draw_plan& plan, int group,
                  subject_draw& drawn);

  // Of the model, so far.
  std::int64_t evaluations() const { return evaluations_; }

 private:
  const density& joint_;
  const point_source& points_;
  density_workspace scratch_;
  Eigen::MatrixXd normals_;
  std::int64_t evaluations_ = 0;
};

// What make_room takes.
std::size_t bytes_of_draw(const population_model& model, int subject,
                          const std::vector<draw_component>& from, const draw_plan& plan);

}  // namespace varda
