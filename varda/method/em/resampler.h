// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Eigen/Core>
#include <vector>

#include "varda/host/job.h"

namespace varda {

// A few of an E-step's samples with weights of their own, for updates without a closed form.
struct resampled_points {
  Eigen::MatrixXd phi;      // regression-scale individual parameters C beta + eta, one a column
  Eigen::VectorXd weights;  // sum to one
};

// Draws samples in proportion to their weights (the library's isir) at fixed stratified uniforms.
//
// Which samples are drawn changes by leaps as the weights change, and an EM map that leaps never
// comes to rest. While sample j stands for the same point of the sequence in every iteration, the
// choice made for a subject is therefore kept, each sample weighted by how its weight has changed
// since, until that weighting has become uneven. Each process chooses for its own subjects.
class resampler {
 public:
  resampler() = default;
  // `points` a subject; `keep`: sample j is the same point in every iteration.
  resampler(int subjects, int points, bool keep);

  // `mu`: C beta of the subject (from 0) at which the etas (random effects x samples) were drawn.
  resampled_points draw(int subject, const Eigen::VectorXd& mu, const Eigen::MatrixXd& etas,
                        const Eigen::VectorXd& weights);

  // Makes the choices that each process has made known to all. Collective.
  void share(const job& peers);

  template <class A>
  void visit(A& archive) {
    archive(points_, keep_, choices_);
  }

 private:
  struct choice {
    std::vector<Eigen::Index> samples;
    Eigen::VectorXd drawn_at;  // their weights when they were drawn
    template <class A>
    void visit(A& archive) {
      archive(samples, drawn_at);
    }
  };
  void choose(choice& chosen, const Eigen::VectorXd& weights) const;

  int points_ = 0;
  bool keep_ = false;
  std::vector<choice> choices_;
};

}  // namespace varda
