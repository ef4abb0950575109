// SPDX-License-Identifier: Apache-2.0
//
// The marginal log-likelihood of a population model, to quadrature accuracy: integrals over the
// subjects' standardised random effects z (eta = L z, L the Cholesky factor of omega), which stay
// well conditioned however close omega is to being singular.
#pragma once

#include <Eigen/Dense>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "exact_models.h"

namespace exact {

// What is estimated, each on the scale on which Newton steps are taken.
struct quantity {
  enum class kind { typical, effect, diagonal, entry, residual };
  std::string name;
  kind what;
  int coordinate;           // the one of individual_density that it moves
  int row = 0, column = 0;  // element of L; column is also the covariate effect's number
};

// A population: a value for every quantity, those that are fixed included.
struct population {
  std::vector<double> typical;  // structural parameters, logarithms where they are logarithmic
  std::vector<double> effects;  // covariate coefficients
  std::vector<int> effect_parameter;   // the structural parameter each of them acts on
  std::vector<int> random;             // the structural parameter of each random effect
  Eigen::MatrixXd factor;              // L, lower triangular
  std::vector<double> log_deviations;  // residual
  std::vector<quantity> free;

  Eigen::VectorXd packed() const;
  void unpack(const Eigen::VectorXd& psi);
};

struct settings {
  int nodes = 0;               // per random effect; 0: by the number of random effects
  int check_points = 20000;    // a subject, for the comparison with importance sampling
  int sample_points = 400000;  // a subject that quadrature does not get right
  double rest = 1e-9;          // gain ahead at which a search for a maximum ends
};

// -2 log-likelihood with its derivatives in the free quantities.
struct surface {
  double minus2ll = 0;
  double error = 0;  // standard error, of the subjects that are sampled
  Eigen::VectorXd gradient;
  Eigen::MatrixXd hessian;
  std::vector<double> subjects;
  std::vector<int> modes;  // with a share of the mass of at least 1e-9
  bool finite = true;
};

// Quadrature against importance sampling.
struct comparison {
  double minus2ll = 0, error = 0;  // of importance sampling
  double worst = 0;                // subject's difference, in its standard errors
  std::string worst_subject;
};

class exact_likelihood {
 public:
  exact_likelihood(std::vector<subject> subjects, std::unique_ptr<individual_density> density,
                   settings chosen);

  // thorough: search every subject's modes from many points, else from the last ones and a few.
  surface evaluate(const population& p, bool thorough);
  // Compares, and has the subjects that differ by more than 4.5 standard errors sampled from now
  // on.
  comparison check(const population& p);
  const settings& chosen() const { return settings_; }
  const std::vector<subject>& subjects() const { return subjects_; }
  bool sampled(size_t subject) const { return sampled_[subject] != 0; }
  size_t sampled() const;  // how many

 private:
  struct mode {
    Eigen::VectorXd at;
    Eigen::MatrixXd spread;  // a root of the inverse curvature
    double log_joint, log_mass;
  };
  struct sums;

  std::vector<double> coordinates(const population& p, const subject& s) const;
  double log_density(const population& p, const subject& s, std::vector<double>& u,
                     const Eigen::VectorXd& z) const;
  bool climb(const population& p, const subject& s, mode& m) const;
  std::vector<mode> modes(const population& p, size_t i, bool thorough);
  void quadrature(const population& p, size_t i, const std::vector<mode>& modes, bool derivatives,
                  sums& total) const;
  void sampling(const population& p, size_t i, const std::vector<mode>& modes, int points,
                unsigned stream, bool derivatives, sums& total) const;

  std::vector<subject> subjects_;
  std::unique_ptr<individual_density> density_;
  settings settings_;
  std::vector<char> sampled_;
  std::vector<std::vector<Eigen::VectorXd>> last_modes_;
};

// Climbs to the nearest maximum by Newton's method on absolute eigenvalues. Returns the surface
// there.
surface maximise(exact_likelihood& likelihood, population& p, bool verbose);

// g' H^-1 g of -2 log-likelihood over 2: the gain that a Newton step promises, by absolute
// eigenvalues of the Hessian scaled to unit diagonal.
struct promise {
  double gain;
  Eigen::VectorXd step;
  double least_eigenvalue;  // of the scaled Hessian
};
promise newton_step(const surface& at);

}  // namespace exact
