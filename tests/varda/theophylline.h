// SPDX-License-Identifier: Apache-2.0
//
// The theophylline example as a starting point for tests, and its exact results.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "varda/model/density.h"
#include "varda/run/fit.h"

namespace test {

// The example's model file after `change` has had its say, with its data.
varda::population_model theophylline(
    const std::function<void(varda::model_specification&)>& change =
        [](varda::model_specification&) {});

// Predictions of one individual: `p` holds `sets` sets of individual parameters, one after the
// other; `why` receives the reason of a failure.
std::vector<double> predict(const varda::structural_model& model, const varda::subject& who,
                            const std::vector<double>& p, std::size_t sets = 1,
                            std::string* why = nullptr);
// The same at phi of a subject (from 0).
Eigen::VectorXd predict(const varda::population_model& model, int subject,
                        const Eigen::VectorXd& theta, const Eigen::VectorXd& phi);

// Sets start values (natural scale), variances and the additive deviation.
void set_parameters(varda::model_specification& file, const std::vector<double>& typical,
                    const std::vector<double>& variances, double additive);

// `copies` of every subject with observations as the start values make them; those below `limit`
// are censored there.
varda::population_model simulated(const varda::population_model& from, int copies, unsigned seed,
                                  double limit = -1e300);

// The library's records are swallowed unless `quiet` is false.
varda::fit_result fit(const varda::population_model& model, bool quiet = true);
varda::fit_result evaluate(const varda::population_model& model);

// -2 log-likelihood without N log(2 pi).
double minus2ll(const varda::fit_result& result);

// The same model file with a result's estimates as start values.
void start_at(varda::model_specification& file, const varda::population_model& model,
              const varda::fit_result& result);

// Columns of a table under tests/varda/reference, first column as key.
std::map<std::string, std::vector<double>> reference(const std::string& name);

}  // namespace test
