// SPDX-License-Identifier: Apache-2.0
//
// What can be seen in data without a model: the quantities from which start values are guessed.
#pragma once

#include <map>
#include <string>

#include "varda/data/dataset.h"

namespace varda {

// By name, NaN where the data do not tell:
//
//   dose      median amount of a dose
//   cmax      median over the subjects of the largest concentration, tmax of its time after the
//             dose before it, cmid median of all that are above 0
//   lambda    median slope of the logarithm over the last concentrations of a subject, downwards
//   CL        median of the amount given over the area under the concentrations, continued by
//             lambda (trapezoids, from the first dose on)
//   V         CL / lambda
//   ka        rate constant of absorption that fits tmax: 3 / tmax, at least 2 lambda
//   baseline  median of the first value of the response
//   extreme   median of the value of the response that is furthest from the first
//   growth    |log(extreme / baseline)| over the time between the two
//   duration  median time from the first record to the last observation
//
// `concentration` and `response` are endpoints (from 0), -1 for none. `absorbed`: doses take time
// to arrive.
std::map<std::string, double> features_of(const dataset& data, int concentration, int response,
                                          bool absorbed);

// Their names, in this order.
const std::vector<std::string>& feature_names();

}  // namespace varda
