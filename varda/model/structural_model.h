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

// An individual's parameters on the natural scale, in the order of parameter_names: one set for
// each of the subject's segments, or a single one where none of them changes.
class parameter_path {
 public:
  // `values`: parameters x sets, column-major; it must outlive the path.
  parameter_path(const double* values, std::size_t parameters, std::size_t sets)
      : values_(values), parameters_(parameters), sets_(sets) {}

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

// Parameters of several individuals of one subject, the individuals contiguous: parameter k of set
// s of individual j stands at values[(s * parameters + k) * stride + j].
struct parameter_block {
  const double* values = nullptr;
  std::size_t parameters = 0;
  std::size_t sets = 0;
  std::size_t individuals = 0;
  std::size_t stride = 0;
};

// Their predictions: observation k of individual j at values[k * stride + j].
struct prediction_block {
  double* values = nullptr;
  std::size_t observations = 0;
  std::size_t stride = 0;
};

// A structural model: what is predicted for a subject's observations given its parameters. Once it
// is made and its covariates are located it does not change: any number of threads may predict with
// it, each with a workspace of its own.
class structural_model {
 public:
  // Working storage of one caller.
  struct workspace {
    virtual ~workspace() = default;
    std::vector<double> parameters, predictions;  // of one individual
  };

  virtual ~structural_model() = default;

  // The parameters in the order of predict's argument.
  virtual const std::vector<std::string>& parameter_names() const = 0;

  // Doses go into compartments 1 to this one.
  virtual int dose_compartments() const = 0;
  // Whether the model has a parameter for the rate (the duration) of doses into a compartment.
  virtual bool models_rate(int /*compartment*/) const { return false; }
  virtual bool models_duration(int /*compartment*/) const { return false; }

  // What can be observed with a residual error. Normal endpoint k is output k; a model with a
  // single output gives it for every one of them.
  virtual int outputs() const { return 1; }

  // Covariates that predictions use beyond the parameters, by the names of their columns, and
  // where they stand in a segment's covariates: told once, before any prediction.
  virtual std::vector<std::string> covariates() const { return {}; }
  virtual void locate_covariates(const std::vector<int>& /*positions*/) {}

  virtual std::unique_ptr<workspace> make_workspace() const {
    return std::make_unique<workspace>();
  }

  // Writes the predictions of the observations of `who`; of those of an endpoint that is not normal
  // the quantity that they ask for (observation::quantity). Parameters outside the model's domain
  // give NaN for their individual, which the engine treats as a failed evaluation. `scratch` comes
  // from make_workspace of this model. An individual's predictions do not depend on the others.
  virtual void predict(const subject& who, const parameter_block& p, const prediction_block& f,
                       workspace& scratch) const = 0;

  // Why the last predict with this workspace gave NaN, as a sentence without its capital; empty
  // where nothing is known.
  virtual std::string last_failure(const workspace& /*scratch*/) const { return {}; }
};

// A structural model that is written for one individual at a time.
class individual_model : public structural_model {
 public:
  void predict(const subject& who, const parameter_block& p, const prediction_block& f,
               workspace& scratch) const final;

 protected:
  // As predict, for one individual: f[k] of observation k of `who`.
  virtual void predict_individual(const subject& who, const parameter_path& p, std::span<double> f,
                                  workspace& scratch) const = 0;
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
