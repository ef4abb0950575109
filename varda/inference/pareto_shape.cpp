// SPDX-License-Identifier: Apache-2.0
#include "varda/inference/pareto_shape.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <limits>
#include <vector>

namespace varda {

namespace {

constexpr std::size_t least_tail = 5;
// Observations that the prior of k weighs as much as, and its mean.
constexpr double prior_weight = 10.0;
constexpr double prior_shape = 0.5;

// The mean of log(1 - theta x), one logarithm for several values: their product, unless it leaves
// the range of numbers.
double mean_logarithm(const std::vector<double>& x, double theta) {
  constexpr std::size_t together = 8;
  double sum = 0.0;
  for (std::size_t i = 0; i < x.size(); i += together) {
    const std::size_t end = std::min(x.size(), i + together);
    double product = 1.0;
    for (std::size_t j = i; j < end; ++j) product *= 1.0 - theta * x[j];
    if (std::isnormal(product))
      sum += std::log(product);
    else
      for (std::size_t j = i; j < end; ++j) sum += std::log1p(-theta * x[j]);
  }
  return sum / static_cast<double>(x.size());
}

// Of exceedances in ascending order, the largest above 0.
double fitted_shape(const std::vector<double>& x) {
  const auto n = static_cast<double>(x.size());
  const int grid = 30 + static_cast<int>(std::sqrt(n));
  const double quartile = x[static_cast<std::size_t>(n / 4.0 + 0.5) - 1];
  std::vector<double> theta, profile, shape;
  for (int j = 1; j <= grid; ++j) {
    const double t = 1.0 / x.back() + (1.0 - std::sqrt(grid / (j - 0.5))) / (3.0 * quartile);
    const double k = mean_logarithm(x, t);
    theta.push_back(t);
    shape.push_back(k);
    profile.push_back(n * (std::log(-t / k) - k - 1.0));
  }
  const double best = *std::max_element(profile.begin(), profile.end());
  double sum = 0.0;
  double mean = 0.0;
  for (std::size_t j = 0; j < theta.size(); ++j) {
    const double weight = std::exp(profile[j] - best);
    sum += weight;
    mean += weight * theta[j];
  }
  return mean_logarithm(x, mean / sum);
}

// At least the `count` largest values and not many more: those from a threshold on that the values
// of a small sample suggest.
std::vector<double> largest(const Eigen::VectorXd& values, std::size_t count) {
  constexpr Eigen::Index apart = 16;
  constexpr std::size_t least_worth_it = 512;
  const double* const end = values.data() + values.size();
  std::vector<double> result;
  if (static_cast<std::size_t>(values.size()) >= least_worth_it) {
    std::vector<double> some;
    for (Eigen::Index j = 0; j < values.size(); j += apart) some.push_back(values(j));
    const auto place = static_cast<std::ptrdiff_t>(
        1.5 * static_cast<double>(count) / static_cast<double>(apart) + 2.0);
    std::nth_element(some.begin(), some.begin() + place, some.end(), std::greater<>());
    const double threshold = some[static_cast<std::size_t>(place)];
    std::copy_if(values.data(), end, std::back_inserter(result),
                 [&](double x) { return x >= threshold; });
  }
  if (result.size() < count) result.assign(values.data(), end);
  return result;
}

}  // namespace

double pareto_shape(const Eigen::VectorXd& weights) {
  constexpr double unknown = -std::numeric_limits<double>::infinity();
  const auto n = static_cast<double>(weights.size());
  const auto tail = static_cast<std::size_t>(std::ceil(std::min(0.2 * n, 3.0 * std::sqrt(n))));
  if (tail < least_tail || n <= static_cast<double>(tail)) return unknown;
  std::vector<double> sorted = largest(weights, tail + 1);
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(tail), sorted.end(),
                   std::greater<>());
  const double threshold = sorted[tail];
  std::vector<double> exceedances;
  for (std::size_t j = 0; j < tail; ++j) exceedances.push_back(sorted[j] - threshold);
  std::sort(exceedances.begin(), exceedances.end());
  const double quartile =
      exceedances[static_cast<std::size_t>(static_cast<double>(tail) / 4.0 + 0.5) - 1];
  if (!(quartile > 0.0)) return unknown;
  const auto m = static_cast<double>(tail);
  return (m * fitted_shape(exceedances) + prior_weight * prior_shape) / (m + prior_weight);
}

}  // namespace varda
