// SPDX-License-Identifier: Apache-2.0
//
// Data as a model would make them: individual parameters from the population, predictions, residual
// errors.
#pragma once

#include <Eigen/Core>
#include <functional>
#include <vector>

#include "varda/model/density.h"
#include "varda/model/population.h"
#include "varda/simulation/deviates.h"
#include "varda/simulation/outcomes.h"

namespace varda {

// Parameters of a population: theta on its scale (varda/model/population.h), omega.
struct drawn_parameters {
  Eigen::VectorXd theta;
  Eigen::MatrixXd omega;
};

// A matrix F with F F' = omega: the lower Cholesky factor, or, where omega is singular, another
// one.
Eigen::MatrixXd factor_of(const Eigen::MatrixXd& omega);

// Values of observations whose order is that of the values in the data, on a scale of their own:
// that on which residuals add to predictions (endpoints::transformed), or ranks (rank_of).
struct ranked_values {
  // individuals x observations
  Eigen::MatrixXd values;
  Eigen::MatrixXd means;  // given the random effects
  // Of an observation given the random effects, the mean over the individuals. Given them,
  // observations are independent.
  Eigen::VectorXd variances;
};

// Individuals with the design and the covariates of one subject.
class subject_simulator {
 public:
  // `model` outlives it.
  subject_simulator(const population_model& model, int subject, const drawn_parameters& at);

  // `count` individuals more: what is expected of the observations `f` and their values `y`,
  // observations x individuals; not finite where the model cannot be evaluated. Individual k draws
  // from stream(k) a deviate for each random effect and then one for each observation, in the order
  // of k. Predictions are made of many at once. Rows of endpoints without values of their rows
  // (has_row_values) are NaN in `y`. Further draws, for the events of every individual, are taken
  // from a copy of its stream.
  void simulate(int count, const std::function<deviates&(int)>& stream, const event_design& events,
                Eigen::MatrixXd& f, Eigen::MatrixXd& y,
                std::vector<std::vector<event_row>>& happened);

  // `count` individuals, all drawn from one stream, less those that the model cannot be evaluated
  // for. `rows` are positions of observations, those with values of their rows.
  ranked_values simulate(int count, deviates& draw, const std::vector<Eigen::Index>& rows);

 private:
  // So many individuals more, with what follows from their draws.
  struct block {
    Eigen::MatrixXd phi;          // random effects x individuals
    Eigen::MatrixXd deviations;   // individuals x observations: standardised residuals
    Eigen::MatrixXd predictions;  // individuals x quantities
  };
  static constexpr int block_size = 256;
  // `next` gives the stream of each, `after` is called when it has drawn.
  template <class Next, class After>
  void draw_block(int size, const Next& next, const After& after, block& made);
  Eigen::Index place_of(std::size_t observation) const {
    return static_cast<Eigen::Index>(places_.empty() ? observation : places_[observation]);
  }
  void lay_out();

  const population_model& model_;
  int subject_;
  Eigen::VectorXd theta_;
  Eigen::VectorXd mu_;
  Eigen::MatrixXd factor_;
  density joint_;
  density_workspace scratch_;
  // The subject with an observation for each quantity that is wanted, and where those of each of
  // its own begin.
  subject asking_;
  std::vector<std::size_t> places_;
};

struct simulation_plan {
  int replicates = 1;
  int seed = 1;
  int threads = 1;
};

// The observations of one subject, simulated: observations x replicates. NaN where the model could
// not be evaluated.
struct simulated_subject {
  Eigen::MatrixXd individual;  // without residual error: what is expected
  Eigen::MatrixXd values;      // with it
  // By replicate; empty where the model has no events, whose rows are NaN above.
  std::vector<std::vector<event_row>> events;
};

// Replicates of the whole data set. `parameters`: one set for all replicates, or one for each. The
// draws follow from the seed, the subject's position and the replicate; the result is the same for
// any number of threads.
std::vector<simulated_subject> simulate(const population_model& model,
                                        const std::vector<drawn_parameters>& parameters,
                                        const simulation_plan& plan);

// What is expected of the observations at eta = 0.
Eigen::VectorXd population_predictions(const population_model& model, int subject,
                                       const Eigen::VectorXd& theta);

// Between which values an observation is quantified, infinite where there is no limit. An
// observation that is censored tells its own limit. One that is not has those of its endpoint: the
// largest value below which something is censored in the data, and the smallest above which.
struct quantified_range {
  double lower;
  double upper;
};

class quantification {
 public:
  explicit quantification(const population_model& model);
  quantified_range range_of(const observation& at) const;

 private:
  std::vector<quantified_range> by_endpoint_;
};

}  // namespace varda
