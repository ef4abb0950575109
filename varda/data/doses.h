// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
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

// The event codes that some programs write into EVID: the last two digits are the kind of the
// event, 01 a dose, the two before them its compartment, and a 1 before those an infusion whose
// rate stands in AMT, with a record of the negative rate at its end. 101 is a dose into
// compartment 1.
struct event_digits {
  int compartment = 0;
  bool rate_in_amount = false;
};
// Those of an EVID of 100 or more; nothing where they are not as above.
std::optional<event_digits> event_digits_of(int evid);

// Reads a record with such a code as a dose; `duration`: of an infusion whose rate stands in AMT.
dose_order read_coded_dose(const record_view& from, const event_digits& code, double duration,
                           double time, oddities& odd);

// Whether a record without EVID is a dose.
bool looks_like_dose(const record_view& from);

// Counts the columns of doses that hold something on a record that is none; throws bad_input at an
// amount, which must not be passed over.
void refuse_amount(const record_view& from, oddities& odd);

// The additional doses of a subject that are still to come.
class additional_doses {
 public:
  // `segment`: of the subject, in force at the record.
  void add(const dose_order& order, int segment);
  void cancel() { waiting_.clear(); }
  // Takes out those due at `time` or before: in the order of time, and at equal times in the order
  // of their records.
  std::vector<dose> due(double time);

 private:
  struct series {
    dose_order order;
    int segment = 0;
    int given = 0;
    double next() const { return order.first.time + (given + 1) * order.spacing; }
  };
  std::vector<series> waiting_;
};

}  // namespace varda
