// SPDX-License-Identifier: Apache-2.0
//
// What a model file says, as plain data that knows no file format. docs/model-file.md is its
// reference for users.
#pragma once

#include <limits>
#include <map>
#include <string>
#include <vector>

namespace varda {

struct formula_line {
  std::string name;
  std::string text;
};

// How the values of an endpoint come about: a prediction with a residual error (normal), or one of
// the laws of docs/endpoints.md.
enum class endpoint_kind {
  normal,
  poisson,
  negative_binomial,
  zero_inflated_poisson,
  zero_inflated_negative_binomial,
  binary,
  ordinal,
  event,
  log_likelihood
};
inline bool is_count(endpoint_kind kind) {
  return kind == endpoint_kind::poisson || kind == endpoint_kind::negative_binomial ||
         kind == endpoint_kind::zero_inflated_poisson ||
         kind == endpoint_kind::zero_inflated_negative_binomial;
}

// What turns a linear predictor into a probability.
enum class link_kind { logit, probit };

// An endpoint that is not normal: the formulas of its law, by their keys in the model file
// (thresholds one after the other).
struct outcome_text {
  endpoint_kind kind = endpoint_kind::normal;
  std::string name{};
  link_kind link = link_kind::logit;
  std::vector<formula_line> formulas{};
  std::vector<double> levels{};  // of an ordinal one, in their order: one more than thresholds
  bool repeated = false;         // events may come again
  // Until when simulations watch for events; NaN: as long as the data do.
  double follow_up = std::numeric_limits<double>::quiet_NaN();

  const formula_line* formula(const std::string& key) const {
    for (const formula_line& line : formulas)
      if (line.name == key) return &line;
    return nullptr;
  }
};

// What a model does with a covariate. Where it compares it (levels of a categorical effect, texts
// in a formula) and does not compute with it, the column may hold texts.
struct covariate_use {
  bool compared = false;
  bool computed = false;
  std::vector<std::string> levels;  // that formulas name

  bool may_be_text() const { return compared && !computed; }
};

// What the model takes, and which column of the file plays which role. Names are matched without
// regard to case.
struct data_source {
  std::string file;                            // as opened
  std::map<std::string, std::string> columns;  // role ("ID", "TIME", ...) -> column name
  std::vector<std::string> covariates;         // columns that the model names
  std::map<std::string, covariate_use> uses;   // of covariates that are not just numbers
  // DVID of each endpoint, a whole number or a text; 0 also means the first. Where a model file
  // gives no DVID, the endpoint's name is one as well.
  std::vector<std::string> endpoints = {"1"};
  std::vector<std::string> endpoint_names = {""};
  std::vector<outcome_text> outcomes;  // of the endpoints; none where all of them are normal
  bool occasions = false;              // the model has random effects per occasion (OCC)
  bool doses_needed = true;            // a subject without a dose cannot be predicted
  bool time_needed = true;             // else the file may have no times: all are 0
  std::vector<formula_line> define;    // columns computed from those of the file
  std::string keep;                    // the rows to read and those to leave out, formulas
  std::string drop;                    // of columns; empty for all and none
  int compartments = std::numeric_limits<int>::max();  // doses go into 1 to this one
  // Compartments whose RATE -1 (or -2) finds a parameter for the rate (or the duration).
  std::vector<int> modelled_rate;
  std::vector<int> modelled_duration;
  // What a data set is read for that is no data of a fit: observation records need no value
  // (observation::value is NaN where there is none), those with MDV 1 count as well, and additional
  // doses are given until this time.
  bool values_needed = true;
  bool missing_counts = false;
  double doses_until = -std::numeric_limits<double>::infinity();
};

// Automatic: exact where the system is linear, else explicit, and for stiff systems when that
// turns out.
enum class solver_method { automatic, non_stiff, stiff };

struct solver_settings {
  solver_method method = solver_method::automatic;
  double relative = 1e-6;   // error allowed in a step, as a share of the state
  double absolute = 1e-10;  // and near 0, as a share of the subject's largest dose
  int max_steps = 100000;   // between two events
};

// The sections of [model], each in the order of the file. A model without derivatives has no
// states, and its outputs are formulas of parameters, covariates, time and dose.
struct equation_text {
  std::vector<std::string> parameters;  // names that formulas may use for parameters
  std::vector<formula_line> definitions;
  std::vector<formula_line> derivatives;  // of the states
  std::vector<formula_line> initial;      // by state, like the next four
  std::vector<formula_line> lag;
  std::vector<formula_line> bioavailability;
  std::vector<formula_line> rate;
  std::vector<formula_line> duration;
  std::vector<formula_line> outputs;
  // Each a sum over the doses into the first state since the last reset, with `dose` and `tad`
  // those of each, and how many there can be at most: the data tell (data/summed_doses.h).
  std::vector<formula_line> sums;
  int summed_doses = 1;
  std::vector<outcome_text> outcomes;  // of the endpoints; none where all of them are normal
  solver_settings solver;
};

enum class parametrisation { clearance, rate_constant };

// What a model file chooses: a model of the library by its name, or its own equations.
// compartment_model.h says what the choices between the two mean.
struct structure_choice {
  std::string name;
  parametrisation by = parametrisation::clearance;
  bool lag_time = false;
  bool bioavailability = false;
  bool modelled_rate = false;
  bool modelled_duration = false;
  equation_text equations{};
};

// How an individual parameter p follows from phi = C beta + eta: exp(phi), phi itself, or
// lower + (upper - lower) / (1 + exp(-phi)). `none`: no random effect, p is the fixed effect.
enum class distribution { log_normal, normal, logit_normal, none };

// Whether covariate effects multiply the parameter. Those on others are added to phi.
inline bool acts_on_logarithm(distribution law) {
  return law == distribution::log_normal || law == distribution::none;
}

// What a covariate x does with coefficient beta, to a parameter or (linear and categorical, on
// normal and logit-normal parameters) to phi:
//   power        times (x / center)^beta
//   exponential  times exp(beta (x - center))
//   linear       times 1 + beta (x - center); plus beta (x - center)
//   categorical  times exp(beta) for each level but the reference; plus beta
enum class effect_form { power, exponential, linear, categorical };

struct covariate_effect {
  // Of the coefficient, by default "<parameter>_<covariate>"; those of levels add "_<level>".
  std::string name;
  std::string covariate;
  effect_form form = effect_form::power;
  double center = 1.0;
  // The level of a categorical covariate that has no coefficient, as a number (data/levels.h) and
  // as it is written.
  double reference = 0.0;
  std::string reference_text{};
  double start = 0.0;
  std::map<std::string, double> level_starts{};  // of levels that have one of their own, as written
  bool fixed = false;
  double lower = -std::numeric_limits<double>::infinity();
  double upper = std::numeric_limits<double>::infinity();
};

struct parameter {
  std::string name;
  distribution law = distribution::log_normal;
  double start = 0.0;  // natural scale, like the bounds
  bool fixed = false;
  // Bounds of the typical value. For a logit-normal parameter `range_lower`/`range_upper` are the
  // ends of the logit's interval instead.
  double lower = -std::numeric_limits<double>::infinity();
  double upper = std::numeric_limits<double>::infinity();
  double range_lower = 0.0;
  double range_upper = 1.0;
  std::vector<covariate_effect> effects;
};

// A diagonal block of omega over the parameters named; a single variance is a block of order 1.
struct omega_block {
  std::vector<std::string> names;
  std::vector<double> matrix;  // symmetric, order names.size(), column-major
  bool fixed = false;
};

enum class error_kind { additive, proportional, combined, combined_sd, power, log_normal, box_cox };
enum class residual_distribution { normal, student_t };

// Residual deviations with their start values; see residual_model.h.
struct residual_error {
  error_kind kind = error_kind::additive;
  double additive = 0.0;  // of what is transformed for the log-normal and Box-Cox kinds
  double proportional = 0.0;
  bool additive_fixed = false;
  bool proportional_fixed = false;
  double exponent = 0.0;
  bool exponent_fixed = false;
  double degrees_of_freedom = 0.0;  // of Student's t, above 2; 0 for normal residuals
  double lambda = 0.0;              // of the Box-Cox transformation
};

// What is observed: an output of the structural model with its residual error, or, where the
// outcome is not normal, what that says. `name` is empty
// where there is one endpoint only.
struct endpoint {
  std::string name;
  residual_error residual;
  outcome_text outcome{};

  bool is_normal() const { return outcome.kind == endpoint_kind::normal; }
};

enum class proposal_family { normal, population, t, laplace, mixture2, mixture3 };
enum class point_kind { sobol, random };
// Where a fit's first proposals come from: the subjects' modes, or samples of the population.
enum class start_kind { map, presample };
// How the likelihood at the estimates is computed: by sampling, or by adaptive Gauss-Hermite
// quadrature besides.
enum class likelihood_kind { sampling, agq };
// How a fit maximises: by Newton steps on the sampled likelihood, or by the EM algorithm.
enum class method_kind { newton, em };
enum class standard_error_kind { information, score, sandwich, none };

inline constexpr int least_samples = 6;

// settings_table.h has their names, ranges and words.
struct estimation_settings {
  method_kind method = method_kind::newton;
  int samples = 300;  // per subject and iteration
  int max_iterations = 500;
  int seed = 1;  // hashed into the address of every subject's points
  point_kind points = point_kind::sobol;
  bool fresh_points = false;  // new points in every iteration instead of common ones
  int scramble = 1;           // 0 none, 1 Owen-type, 2 Faure-Tezuka, 3 both
  proposal_family proposal = proposal_family::normal;
  int t_df = 5;  // degrees of freedom of the t proposal, at least 3
  double acceptance_ratio = 0.5;
  int resamples = 100;        // points a subject for updates without closed form
  int burn_in = 0;            // iterations before convergence is looked for
  bool freeze_omega = false;  // during burn-in
  bool run_all = false;       // do all iterations, converged or not
  double tolerance = 5e-4;    // movement that still lies ahead, see docs/model-file.md
  int starts = 1;             // fits from so many start values
  int replicates = 8;         // randomisations behind the reported likelihood
  start_kind start = start_kind::map;
  int presamples = 300;  // points a subject for a start by presampling
  int map_np = 0;        // MAP-NP start-up iterations
  int map_assist = 0;    // proposals from mode and curvature again in every k-th iteration
  standard_error_kind standard_errors = standard_error_kind::information;
  int npde_samples = 1000;     // simulations behind the NPDE; 0 leaves them out
  int likelihood_samples = 0;  // points a subject for it; 0: varda chooses
  likelihood_kind likelihood = likelihood_kind::sampling;
  int agq_nodes = 11;   // per random effect
  int threads = 0;      // of each process; 0: its share of the cores
  int checkpoint = 10;  // seconds; 0: every step
};

// Those of all occasions counted: the Sobol sequence and the quadrature's grid have no more
// dimensions.
inline constexpr int most_random_effects = 40;

struct model_specification {
  std::string path;
  std::string title;
  data_source data;
  structure_choice structure;
  std::vector<parameter> parameters;        // in the order of the structural model
  std::vector<omega_block> omega;           // in the order of the parameters they cover
  std::vector<omega_block> occasion_omega;  // of random effects per occasion, same order
  std::vector<endpoint> endpoints;          // at least one
  estimation_settings estimation;
};

}  // namespace varda
