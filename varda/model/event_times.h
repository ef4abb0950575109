// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "varda/data/dataset.h"
#include "varda/model/specification.h"

namespace varda {

// Tells every row of an endpoint of events since when its subject has been at risk: since the row
// before it of the same endpoint, the first since time 0 (or since the subject's first record where
// that is earlier). Adds the instants at which a hazard that is integrated is asked for. Done a
// second time it changes nothing. Throws bad_input where rows and model do not go together.
void prepare_events(const model_specification& file, dataset& data);

}  // namespace varda
