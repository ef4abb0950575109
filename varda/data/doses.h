// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "varda/data/columns.h"
#include "varda/data/dataset.h"
#include "varda/data/oddities.h"

namespace varda {

// What a dose record asks for.
struct dose_order {
  dose first;          // at the record's time
  int additional = 0;  // ordinary doses that follow it, `spacing` apart
  double spacing = 0.0;
  bool replaces = false;  // by its steady state, what was there before (SS 1)
};

// Reads a record as a dose at `time`, or throws bad_input.
dose_order read_dose(const record_view& from, double time, oddities& odd);

// Whether a record without EVID is a dose.
bool looks_like_dose(const record_view& from);

// Counts the columns of doses that hold something on a record that is none; throws bad_input at an
// amount, which must not be passed over.
void refuse_amount(const record_view& from, oddities& odd);

// The additional doses of a subject that are still to come.
class additional_doses {
 public:
  void add(const dose_order& order);
  void cancel() { waiting_.clear(); }
  // Takes out those due at `time` or before: in the order of time, and at equal times in the order
  // of their records.
  std::vector<dose> due(double time);

 private:
  struct series {
    dose_order order;
    int given = 0;
    double next() const { return order.first.time + (given + 1) * order.spacing; }
  };
  std::vector<series> waiting_;
};

}  // namespace varda
