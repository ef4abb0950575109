// SPDX-License-Identifier: Apache-2.0
//
// The data of a run as the models see it: per subject the doses, the observations, the stretches of
// time with constant covariates, and the order in which all of it happens. Times and amounts are in
// the units of the file. docs/data.md says how the records of a file become this.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "varda/data/observation.h"
#include "varda/model/specification.h"
#include "varda/support/files.h"
#include "varda/support/finding.h"

namespace varda {

// How an amount enters. The rate (or the duration) of the last two is a parameter of the model.
enum class dose_input { bolus, infusion, modelled_rate, modelled_duration };

// One administration; the additional doses of a record (ADDL) are administrations of their own.
struct dose {
  double time = 0.0;
  double amount = 0.0;  // 0 for an infusion that has run for ever
  int compartment = 1;
  dose_input input = dose_input::bolus;
  double rate = 0.0;  // of an infusion, amount per time; its duration is amount / rate
  // A dose at steady state has been given every `interval` for ever. An infusion with interval 0 at
  // steady state has run for ever and ends at `time`.
  bool steady_state = false;
  double interval = 0.0;
  int row = 0;
  // Of an additional dose: the segment and the time of its record, whose values of the model (lag
  // time, bioavailability, rate, duration) hold for it too. -1 for any other dose.
  int record_segment = -1;
  double record_time = 0.0;
};

// A stretch of a subject's records over which the covariates and the occasion are constant.
struct segment {
  double begin = 0.0;
  int occasion = 0;                // the subject's occasions count from 0 in the order of the file
  std::vector<double> covariates;  // in the order of the data set's covariate_names
};

// What happens to a subject, one after the other. At equal times the order of the file decides, and
// a record's additional doses stand before the records that follow it. A dose that replaces what
// was before by its steady state has a reset before it. Times ascend: where the TIME of a file goes
// back at a reset, the subject's clock runs on from the record before.
// An instant is a time that is none of a record and at which a model needs its states.
enum class event_kind { dose, observation, reset, segment, instant };

struct event {
  event_kind kind = event_kind::observation;
  int index = 0;  // of the dose, observation, segment or instant
  double time = 0.0;
};

struct subject {
  std::string id;
  int first_row = 0;
  std::vector<dose> doses;  // in the order of the timeline, like the next two
  std::vector<observation> observations;
  std::vector<segment> segments;  // at least one; the first is in force from the start
  std::vector<event> timeline;    // without the first segment
  int occasions = 1;
  int instants = 0;
};

// Appends to the records and to the timeline of a subject.
void append(subject& to, const dose& given);
void append(subject& to, const observation& made);

struct dataset {
  std::string file;
  std::vector<std::string> covariate_names;  // those that the model asked for
  std::vector<bool> covariate_varies;        // within some subject
  std::map<double, std::string> levels;      // those that are texts, by their numbers
  std::vector<subject> subjects;             // in the order of first appearance
  int records = 0;   // of the file, but for those left out by data_source::keep and drop
  int left_out = 0;  // by them
  int dose_records = 0;
  int excluded = 0;  // observation records left out because of MDV

  int observations() const;
  int observations_of(int endpoint) const;
  int censored_of(int endpoint) const;
  int doses() const;      // administrations: additional doses count where they come to pass
  int occasions() const;  // the most of any subject
  // A value of a covariate as the file writes it.
  std::string covariate_text(double value) const;
  // Whether some level is a text, of this covariate.
  bool is_text_covariate(std::size_t k) const;
};

// The names of the columns that have a meaning of their own.
const std::vector<std::string>& data_roles();

// Reads a data set, or throws bad_input. What is odd but legal is added to `warnings`.
dataset read_dataset(const data_source& source, findings& warnings,
                     const file_access& text_of = read_from_disk);

inline constexpr std::size_t most_data_errors = 50;

// The same for a look at the whole file: adds every cause of refusals to `errors`, `most` of them
// at most. The data set can only be used where none was added.
dataset inspect_dataset(const data_source& source, findings& warnings, findings& errors,
                        std::size_t most = most_data_errors,
                        const file_access& text_of = read_from_disk);

}  // namespace varda
