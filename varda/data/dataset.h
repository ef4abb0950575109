// SPDX-License-Identifier: Apache-2.0
//
// The data of a run as the models see it: per subject the doses, the observations and the
// covariates, each with the row it came from. Times and amounts are in the units of the file.
#pragma once

#include <limits>
#include <map>
#include <string>
#include <vector>

#include "varda/support/finding.h"

namespace varda {

// One administration. A bolus has duration 0; rate and duration are kept apart from the amount so
// that infusions fit in without another type.
struct dose {
  double time = 0.0;
  double amount = 0.0;
  int compartment = 1;
  double duration = 0.0;
  int row = 0;
};

struct observation {
  double time = 0.0;
  double value = 0.0;
  // Doses of the subject that stand before this record: at equal times the order of the file
  // decides what has been given already.
  int preceding_doses = 0;
  int row = 0;
};

struct subject {
  std::string id;
  int first_row = 0;
  std::vector<dose> doses;                // in the order of the file, times ascending
  std::vector<observation> observations;  // the same
  std::vector<double> covariates;         // constant in the subject; order of covariate_names
};

struct dataset {
  std::string file;
  std::vector<std::string> covariate_names;  // those that the model asked for
  std::vector<subject> subjects;             // in the order of first appearance
  int records = 0;
  int excluded = 0;  // observation records left out because of MDV

  int observations() const;
  int doses() const;
};

// Which column of the file plays which role. Names are matched without regard to case.
struct data_source {
  std::string file;                            // as opened
  std::map<std::string, std::string> columns;  // role ("ID", "TIME", ...) -> column name
  std::vector<std::string> covariates;         // columns that the model's covariate effects name
  int compartments = std::numeric_limits<int>::max();  // of the model, as far as it takes doses
};

// Reads a data set, or throws bad_input. What is odd but legal is added to `warnings`.
dataset read_dataset(const data_source& source, findings& warnings);

}  // namespace varda
