// SPDX-License-Identifier: Apache-2.0
#include "varda/host/points.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <map>
#include <utility>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/sequences/sobol.h"

namespace varda {

namespace bd = statsubs::bdsobl;

namespace {

static_assert(most_random_effects <= bd::max_dimensions);
constexpr int sequence_length = 1073741823;  // 2^30 - 1
constexpr int sequence_digits = 30;
constexpr std::uint64_t golden = 0x9e3779b97f4a7c15U;

// The generator as insobl leaves it, with one binary digit more, which is always 1: a coordinate is
// then never 0, where a quantile is infinite.
struct generator {
  bd::direction_matrix directions;
  double digit = 0.0;
};

generator start_generator(int dimensions, int scramble) {
  statsubs::poly_vinit_define();
  std::array<bool, 2> ok{};
  std::array<double, bd::max_dimensions> point{};
  int quality = 0;
  statsubs::insobl(ok.data(), dimensions, sequence_length, quality, point.data(), sequence_digits,
                   scramble);
  [[maybe_unused]] const bool started = ok[0] && ok[1];
  assert(started);  // the model has been checked for its number of random effects
  for (int column = 1; column <= bd::maxcol; ++column)
    for (int i = 1; i <= dimensions; ++i) bd::sv(i, column) *= 2;
  return {bd::sv, 0.5 * bd::recipd};
}

}  // namespace

std::uint64_t mixed(std::uint64_t z) {
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
  return z ^ (z >> 31);
}

std::uint64_t address_of(int seed, const point_pass& pass, int subject) {
  std::uint64_t key = mixed((static_cast<std::uint64_t>(seed) + 1) * golden);
  key = mixed(key + (static_cast<std::uint64_t>(pass.why) + 1) * golden);
  key = mixed(key + (static_cast<std::uint64_t>(pass.index) + 1) * golden);
  return mixed(key + (static_cast<std::uint64_t>(subject) + 1) * golden);
}

double uniform_at(std::uint64_t address, std::uint32_t counter) {
  return (static_cast<double>(mixed(address + counter * golden) >> 12) + 0.5) * 0x1p-52;
}

point_source::point_source(int dimensions, int seed, int scramble, point_kind kind)
    : dimensions_(dimensions), seed_(seed), shifted_(scramble != 0), kind_(kind) {
  // A scrambling depends on those that were drawn before it: the first serves every run.
  static std::map<std::pair<int, int>, generator> known;
  const std::pair which(dimensions, scramble);
  auto at = known.find(which);
  if (at == known.end()) at = known.emplace(which, start_generator(dimensions, scramble)).first;
  bd::sv = at->second.directions;
  bd::recipd = at->second.digit;
  bd::s = dimensions;
  digit_ = bd::recipd;
  for (int column = 1; column <= bd::maxcol; ++column)
    for (int i = 1; i <= dimensions; ++i) directions_.push_back(bd::sv(i, column));
}

point_source::position point_source::position_of(const point_pass& pass, int subject,
                                                 int samples) const {
  position result{};
  // From a multiple of itself on, a power of two of points is a net; elsewhere in the sequence it
  // is nearly one. The generator's position is the serial number of its last point and that
  // point's digits, and where these are random the digits of the point at that number are as good
  // as any.
  const bool net = std::has_single_bit(static_cast<unsigned>(samples));
  result.count = net ? samples - 1 : 0;
  // Randomisations of one another would be the same without a shift.
  const bool shifted = shifted_ || (pass.why != point_pass::purpose::iteration &&
                                    pass.why != point_pass::purpose::presampling);
  const std::uint64_t address = address_of(seed_, pass, subject);
  for (int i = 1; i <= dimensions_; ++i) {
    const std::uint64_t digits =
        shifted ? mixed(address + static_cast<std::uint64_t>(i) * golden) : 0;
    result.last[static_cast<std::size_t>(i - 1)] =
        2 * static_cast<int>(digits >> (64 - sequence_digits)) + 1;
  }
  return result;
}

void point_source::place(const point_pass& pass, int subject, int samples) const {
  const position at = position_of(pass, subject, samples);
  bd::count = at.count;
  for (int i = 1; i <= dimensions_; ++i) bd::lastq(i) = at.last[static_cast<std::size_t>(i - 1)];
}

void point_source::fill(const point_pass& pass, int subject, int samples, double* points) const {
  const auto kept = [](double u) { return std::min(std::max(1e-6, u), 0.999999); };
  const auto d = static_cast<std::size_t>(dimensions_);
  if (kind_ == point_kind::random) {
    const std::uint64_t address = address_of(seed_, pass, subject);
    const std::size_t all = d * static_cast<std::size_t>(samples);
    // The library's streams begin at 1.
    for (std::size_t k = 0; k < all; ++k)
      points[k] = kept(uniform_at(address, static_cast<std::uint32_t>(k + 1)));
    return;
  }
  position at = position_of(pass, subject, samples);
  for (int j = 0; j < samples; ++j, ++at.count, points += d) {
    // Neighbours in Gray-code order differ by the direction of the lowest zero bit of the count.
    const auto digit = static_cast<std::size_t>(std::countr_one(static_cast<unsigned>(at.count)));
    const int* const direction = directions_.data() + d * digit;
    for (std::size_t i = 0; i < d; ++i) {
      at.last[i] ^= direction[i];
      points[i] = kept(at.last[i] * digit_);
    }
  }
}

}  // namespace varda
