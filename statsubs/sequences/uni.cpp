// SPDX-License-Identifier: Apache-2.0
#include "statsubs/sequences/uni.h"

#include "statsubs/support/array.h"

namespace statsubs {
namespace {

constexpr int long_lag = 24;
constexpr int short_lag = 10;

// The last 24 numbers, the oldest at `i`, and the borrow of the last subtraction.
struct generator_state {
  double seeds[long_lag];
  int i;
  int j;
  double carry;
};

// Seven decimals each, not multiples of the borrow: numbers therefore carry bits below 2^-24, and
// the stream depends on every rounding.
constinit generator_state state = {
    {0.8804418, 0.2694365, 0.0367681, 0.4068699, 0.4554052, 0.2880635, 0.1463408, 0.2390333,
     0.6407298, 0.1755283, 0.7132940, 0.4913043, 0.2979918, 0.1396858, 0.3589528, 0.5254809,
     0.9857749, 0.4612127, 0.2196441, 0.7848351, 0.4096100, 0.9807353, 0.2689915, 0.5140357},
    long_lag,
    short_lag,
    0.0};

int one_down(int position) {
  return position > 1 ? position - 1 : long_lag;
}

}  // namespace

double uni() {
  const vector_view<double> seeds(state.seeds, long_lag);
  double x = seeds(state.i) - seeds(state.j) - state.carry;
  state.carry = 0.0;
  if (x < 0.0) {
    x += 1.0;
    state.carry = 0x1p-24;
  }
  seeds(state.i) = x;
  state.i = one_down(state.i);
  state.j = one_down(state.j);
  return x;
}

}  // namespace statsubs
