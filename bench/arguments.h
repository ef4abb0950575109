// SPDX-License-Identifier: Apache-2.0
//
// The arguments that every routine and its peers are timed at, the same for all of them.
#pragma once

#include <vector>

namespace bench {

// `count` numbers spread evenly at random over (low, high).
std::vector<double> uniform(int count, double low, double high);

// `count` numbers of the standard normal distribution.
std::vector<double> normal(int count);

// `count` numbers of the chi-square distribution with df degrees of freedom.
std::vector<double> chi_square(int count, double df);

// So many arguments that branch predictors do not learn them: a few thousand they do.
inline constexpr int argument_count = 65536;

// The degrees of freedom that chi-square functions are timed at: whole shapes as they come up
// in practice, one half-integer shape, and one that is neither.
inline constexpr double freedoms[] = {4.0, 30.0, 5.0, 7.3};

// The lengths of the vectors that are sorted, and the dimensions of the sequences.
inline constexpr int lengths[] = {1000, 1000000};
inline constexpr int dimensions[] = {3, 6, 10};

}  // namespace bench
