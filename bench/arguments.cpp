// SPDX-License-Identifier: Apache-2.0
#include "bench/arguments.h"

#include <random>

namespace bench {

namespace {

template <class Distribution>
std::vector<double> drawn(int count, Distribution distribution) {
  std::mt19937_64 generator(20240229);
  std::vector<double> values(static_cast<std::size_t>(count));
  for (double& value : values) value = distribution(generator);
  return values;
}

}  // namespace

std::vector<double> uniform(int count, double low, double high) {
  return drawn(count, std::uniform_real_distribution<double>(low, high));
}

std::vector<double> normal(int count) {
  return drawn(count, std::normal_distribution<double>());
}

std::vector<double> chi_square(int count, double df) {
  return drawn(count, std::chi_squared_distribution<double>(df));
}

}  // namespace bench
