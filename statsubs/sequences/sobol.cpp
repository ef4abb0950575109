// SPDX-License-Identifier: Apache-2.0
//
// The scrambling products are those of Hong and Hickernell (2003) over the field of two elements,
// on whole integers instead of arrays of single bits: a scalar product of bit vectors is the parity
// of the bits in common, and a linear combination of columns the exclusive-or of their integers.
// Every bit comes out as in the bit-by-bit form.
#include "statsubs/sequences/sobol.h"

#include <bit>
#include <cassert>
#include <iterator>
#include <limits>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/sequences/sobol_tables.h"
#include "statsubs/sequences/uni.h"
#include "statsubs/support/parallel.h"

namespace statsubs {

namespace bd = statsubs::bdsobl;

namespace {

constexpr int max_points = (1 << 30) - 1;

enum scrambling { none = 0, lower = 1, upper = 2, lower_then_upper = 3 };

bool uses_lower(int scramble) {
  return scramble == lower || scramble == lower_then_upper;
}

bool uses_upper(int scramble) {
  return scramble == upper || scramble == lower_then_upper;
}

// The parity of the third decimal of a uniform number and those before it.
int random_bit() {
  return static_cast<int>(uni() * 1000.0) % 2;
}

int parity(int bits) {
  return std::popcount(static_cast<unsigned>(bits)) & 1;
}

// Row `dimension` of `directions` by the recurrence of the primitive polynomial; entry j has j
// binary digits, and as many entries as the polynomial's degree are given (Bratley and Fox 1988).
void fill_directions(int dimension, int polynomial, matrix_view<const int> initial,
                     matrix_view<int> directions) {
  assert(polynomial > 1);  // otherwise poly_vinit_define has not been called
  const int degree = std::bit_width(static_cast<unsigned>(polynomial)) - 1;
  for (int j = 1; j <= directions.columns(); ++j) {
    if (j <= degree) {
      directions(dimension, j) = initial(dimension, j);
      continue;
    }
    int number = directions(dimension, j - degree);
    for (int k = 1; k <= degree; ++k)
      if ((polynomial >> (degree - k) & 1) != 0) number ^= directions(dimension, j - k) << k;
    directions(dimension, j) = number;
  }
}

// Gives every direction number as many binary digits as there are columns.
void scale_directions(matrix_view<int> directions) {
  const int columns = directions.columns();
  for (int j = 1; j <= columns; ++j)
    for (int& number : directions.column(j)) number <<= columns - j;
}

// Replaces every direction number by its product with the dimension's matrix, whose rows are
// lsm(i, 1..ndigits) with the highest binary digit first.
void scramble_lower(int ndigits, matrix_view<const int> lsm, matrix_view<int> directions) {
  for (int i = 1; i <= directions.rows(); ++i)
    for (int j = 1; j <= directions.columns(); ++j) {
      int product = 0;
      for (int p = 1; p <= ndigits; ++p)
        product |= parity(lsm(i, p) & directions(i, j)) << (ndigits - p);
      directions(i, j) = product;
    }
}

void add_column(vector_view<const int> column, vector_view<int> sum) {
  for (int i = 1; i <= sum.size(); ++i) sum(i) ^= column(i);
}

// Adds to the shifts the columns that ushift chooses, then replaces column q by the sum of the
// columns p with usm(p, q) = 1. The matrix is upper triangular with a unit diagonal, so that from
// the last column down the product needs no second array.
void scramble_upper(matrix_view<const int> usm, vector_view<const int> ushift,
                    matrix_view<int> directions, vector_view<int> shift) {
  const int columns = directions.columns();
  for (int p = 1; p <= columns; ++p)
    if (ushift(p) != 0) add_column(directions.column(p), shift);
  for (int q = columns; q >= 1; --q)
    for (int p = 1; p < q; ++p)
      if (usm(p, q) != 0) add_column(directions.column(p), directions.column(q));
}

// The next values of `length` neighbouring coordinates.
template <int length>
inline void advance(const int* direction, double scale, int* coordinate, double* point) {
  for (int k = 0; k < length; ++k) coordinate[k] ^= direction[k];
  for (int k = 0; k < length; ++k) point[k] = coordinate[k] * scale;
}

// The inverse of 2^digits, the power being a single-precision real for the lower scrambling alone
// and a signed 32-bit integer otherwise, where 2^31 wraps to its negative.
double reciprocal_of_power(int digits, int scramble) {
  if (scramble < none || scramble > lower_then_upper)
    return std::numeric_limits<double>::infinity();
  const unsigned power = 1U << digits;
  return scramble == lower ? 1.0 / static_cast<float>(power) : 1.0 / static_cast<int>(power);
}

}  // namespace

void poly_vinit_define() {
  int dimension = sobol_tables::first_dimension;
  for (const auto& row : sobol_tables::dimensions) {
    bd::poly(dimension) = row.polynomial;
    for (int j = 1; j <= bd::max_degree; ++j) bd::vinit(dimension, j) = row.directions[j - 1];
    ++dimension;
  }
}

void insobl(bool* ok, const int& ndim, const int& maxpoints, int& tquality, double* point,
            const int& ndigits, const int& scramble) {
  bd::s = ndim;
  ok[0] = 1 <= ndim && ndim <= bd::max_dimensions;
  ok[1] = 1 <= maxpoints && maxpoints <= max_points;
  if (!ok[0] || !ok[1]) return;
  tquality = ndim <= std::ssize(sobol_tables::tau) ? sobol_tables::tau[ndim - 1] : -1;
  const int columns = std::bit_width(static_cast<unsigned>(maxpoints));
  bd::maxcol = columns;

  const matrix_view<int> directions(bd::sv.data(), ndim, columns, bd::sv.leading());
  const matrix_view<const int> initial(bd::vinit.data(), bd::vinit.leading(), bd::max_degree);
  for (int j = 1; j <= columns; ++j) directions(1, j) = 1;
  for (int i = 2; i <= ndim; ++i) fill_directions(i, bd::poly(i), initial, directions);
  scale_directions(directions);

  int digits = columns;
  bd::dimension_vector shift;
  if (uses_lower(scramble)) {
    assert(1 <= ndigits && ndigits <= bd::max_digits);
    digits = ndigits;
    bd::direction_matrix lsm;
    gncrml(ndigits, lsm.data(), shift.data());
    scramble_lower(ndigits, {lsm.data(), ndim, ndigits, lsm.leading()}, directions);
  }
  if (uses_upper(scramble)) {
    fixed_matrix<int, bd::max_digits, bd::max_digits> usm;
    fixed_vector<int, bd::max_digits> ushift;
    gncrmu(usm.data(), ushift.data());
    scramble_upper({usm.data(), columns, columns, usm.leading()}, {ushift.data(), columns},
                   directions, {shift.data(), ndim});
  }

  bd::recipd = reciprocal_of_power(digits, scramble);
  bd::count = 0;
  for (int i = 1; i <= ndim; ++i) {
    bd::lastq(i) = shift(i);
    point[i - 1] = bd::lastq(i) * bd::recipd;
  }
}

void gosobl(double* point) {
  // Neighbours in Gray-code order differ in one column: that of the lowest zero bit of count. Bit
  // 31 counts as zero, which asks for a column that never is and spares the question for none.
  const unsigned zero_bits = ~static_cast<unsigned>(bd::count) | 1U << bd::max_digits;
  const int column = std::countr_zero(zero_bits) + 1;
  if (column > bd::maxcol) support::stop_process(" TOO MANY CALLS ON GOSOBL");
  const int dimensions = bd::s;
  const double scale = bd::recipd;
  const int* direction = &bd::sv(1, column);
  int* coordinate = bd::lastq.data();
  // In pairs of a constant length, which compilers make one vector instruction of.
  const int paired = dimensions & ~1;
  for (int i = 0; i < paired; i += 2) advance<2>(direction + i, scale, coordinate + i, point + i);
  if (paired < dimensions)
    advance<1>(direction + paired, scale, coordinate + paired, point + paired);
  ++bd::count;
}

void getsobolcount(int& count) {
  count = bd::count;
}

// The order of the draws is fixed, here and in gncrmu: every scrambled point depends on it.
void gncrml(const int& ndigits, int* lsm, int* shift) {
  const int columns = bd::maxcol;
  const matrix_view<int> rows(lsm, bd::max_dimensions, bd::max_digits);
  const vector_view<int> shifts(shift, bd::max_dimensions);
  for (int p = 1; p <= bd::s; ++p) {
    shifts(p) = 0;
    for (int i = ndigits; i >= 1; --i) {
      shifts(p) |= random_bit() << (ndigits - i);
      rows(p, i) = 0;
      for (int j = columns; j >= 1; --j) {
        if (j > i) continue;
        const int bit = j == i ? 1 : random_bit();
        rows(p, i) |= bit << (columns - j);
      }
    }
  }
}

void gncrmu(int* usm, int* ushift) {
  const int columns = bd::maxcol;
  const matrix_view<int> matrix(usm, bd::max_digits, bd::max_digits);
  const vector_view<int> shift(ushift, bd::max_digits);
  for (int i = 1; i <= columns; ++i) {
    shift(i) = random_bit();
    for (int j = 1; j <= columns; ++j) {
      if (j < i) matrix(i, j) = 0;
      if (j == i) matrix(i, j) = 1;
      if (j > i) matrix(i, j) = random_bit();
    }
  }
}

}  // namespace statsubs
