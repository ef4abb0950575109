// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "varda/data/dataset.h"
#include "varda/model/equations/formula_error.h"
#include "varda/model/specification.h"

namespace varda {

// Parameters of several individuals of a subject, the lanes: parameter k of set s of individual j
// stands at values[(s * parameters + k) * stride + j].
struct parameter_block {
  const double* values = nullptr;
  std::size_t parameters = 0;
  std::size_t sets = 1;
  std::size_t lanes = 1;
  std::size_t stride = 1;
};

// Their predictions: of observation i at values[i * stride + j].
struct prediction_block {
  double* values = nullptr;
  std::size_t observations = 0;
  std::size_t lanes = 1;
  std::size_t stride = 1;
};

// An individual's parameters on the natural scale, in the order of parameter_names: one set for
// each of the subject's segments, or a single one where none of them changes.
class parameter_path {
 public:
  // `values`: parameters x sets, column-major; it must outlive the path.
  parameter_path(const double* values, std::size_t parameters, std::size_t sets)
      : values_(values), parameters_(parameters), sets_(sets) {}
  parameter_block block() const { return {values_, parameters_, sets_, 1, 1}; }

  bool constant() const { return sets_ == 1; }
  std::span<const double> in_segment(int segment) const {
    const std::size_t set = constant() ? 0 : static_cast<std::size_t>(segment);
    return {values_ + set * parameters_, parameters_};
  }

 private:
  const double* values_;
  std::size_t parameters_;
  std::size_t sets_;
};

// A structural model: what is predicted for a subject's observations given its parameters.
class structural_model {
 public:
  virtual ~structural_model() = default;

  // The parameters in the order of predict's argument.
  virtual const std::vector<std::string>& parameter_names() const = 0;

  // Doses go into compartments 1 to this one.
  virtual int dose_compartments() const = 0;
  // Whether the model has a parameter for the rate (the duration) of doses into a compartment.
  virtual bool models_rate(int /*compartment*/) const { return false; }
  virtual bool models_duration(int /*compartment*/) const { return false; }

  // What can be observed, at least one. Endpoint k is output k; a model with a single output
  // gives it for every endpoint.
  virtual int outputs() const { return 1; }

  // Covariates that predictions use beyond the parameters, by the names of their columns, and
  // where they stand in a segment's covariates: told once, before any prediction.
  virtual std::vector<std::string> covariates() const { return {}; }
  virtual void locate_covariates(const std::vector<int>& /*positions*/) {}

  // Working storage of one caller; each thread has its own.
  struct workspace {
    workspace() = default;
    workspace(const workspace&) = delete;
    workspace& operator=(const workspace&) = delete;
    virtual ~workspace() = default;
  };
  virtual std::unique_ptr<workspace> make_workspace() const;

  // The predictions of all individuals of a block; parameters outside the model's domain give
  // NaN to the individual that has them. An individual's predictions depend on nothing but its
  // own parameters. Several threads may call it.
  virtual void predict(const subject& who, const parameter_block& p, const prediction_block& f,
                       workspace& scratch) const;
  // Why the first individual that failed in the last predict with this storage did, as a sentence
  // without its capital; empty where nothing is known.
  virtual std::string last_failure(const workspace& scratch) const;

  // The same for one individual, with storage of the model's own: one thread at a time.
  //
  // Writes the prediction of observation k of `who` into f[k]. Parameters outside the model's
  // domain give NaN, which the engine treats as a failed evaluation. f has
  // who.observations.size() entries.
  virtual void predict(const subject& who, const parameter_path& p, std::span<double> f) const;
  // Why the last of these gave NaN.
  std::string last_failure() const;

 private:
  mutable std::unique_ptr<workspace> own_;
};

// The names of the library, and those under which a file brings its own equations.
std::vector<std::string> structural_model_names();
inline constexpr const char* formula_structure = "formula";
inline constexpr const char* equation_structure = "equations";

// The model chosen, or null where no model has the name. Only models whose name ends in
// "intravenous" or "bolus" take notice of modelled_rate and modelled_duration. Throws
// formula_error.
std::unique_ptr<structural_model> make_structural_model(const structure_choice& choice);

}  // namespace varda
