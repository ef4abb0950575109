// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/uniforms.h"

#include <algorithm>
#include <array>
#include <bit>
#include <random>

namespace varda {

namespace {

constexpr std::size_t shift = 156;
constexpr std::uint64_t lower_bits = 0x7fffffffU;

std::uint64_t twisted(std::uint64_t one, std::uint64_t next, std::uint64_t distant) {
  const std::uint64_t both = (one & ~lower_bits) | (next & lower_bits);
  return distant ^ (both >> 1) ^ (-(both & 1U) & 0xb5026f5aa96619e9U);
}

std::uint64_t tempered(std::uint64_t x) {
  x ^= (x >> 29) & 0x5555555555555555U;
  x ^= (x << 17) & 0x71d67fffeda60000U;
  x ^= (x << 37) & 0xfff7eee000000000U;
  return x ^ (x >> 43);
}

// Both sums are exact.
double number_of(std::uint64_t bits) {
  constexpr std::uint64_t of_one = 0x3ff0000000000000U;
  return (std::bit_cast<double>(of_one | (bits >> 12)) - 1.0) + 0x1p-53;
}

}  // namespace

// As a standard engine takes its state from a seed sequence: two words each, the lower one first.
uniform_numbers::uniform_numbers(std::initializer_list<int> address) {
  std::array<std::uint32_t, 2 * size> words{};
  std::seed_seq(address).generate(words.begin(), words.end());
  for (std::size_t k = 0; k < size; ++k)
    state_[k] = words[2 * k] | std::uint64_t{words[2 * k + 1]} << 32;
  const bool is_zero = (state_[0] & ~lower_bits) == 0 &&
                       std::all_of(state_.begin() + 1, state_.end(), [](auto x) { return x == 0; });
  if (is_zero) state_[0] = std::uint64_t{1} << 63;
}

// Loops whose lengths are constants, which compilers make vector instructions of.
void uniform_numbers::refill() {
  std::uint64_t* const x = state_.data();
  for (std::size_t k = 0; k < shift; ++k) x[k] = twisted(x[k], x[k + 1], x[k + shift]);
  for (std::size_t k = shift; k < size - 2; ++k) x[k] = twisted(x[k], x[k + 1], x[k - shift]);
  x[size - 2] = twisted(x[size - 2], x[size - 1], x[size - 2 - shift]);
  x[size - 1] = twisted(x[size - 1], x[0], x[shift - 1]);
  for (std::size_t k = 0; k < size; ++k) numbers_[k] = number_of(tempered(x[k]));
  taken_ = 0;
}

void uniform_numbers::take(double* to, std::size_t count) {
  while (count > 0) {
    if (taken_ == size) refill();
    const std::size_t now = std::min(count, size - taken_);
    to = std::copy_n(numbers_.data() + taken_, now, to);
    taken_ += now;
    count -= now;
  }
}

}  // namespace varda
