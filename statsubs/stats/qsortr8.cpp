// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stats/qsortr8.h"

#include <utility>

#include "statsubs/support/array.h"
#include "statsubs/support/fixed_array.h"

namespace statsubs {

namespace {

using real_data = vector_view<const double>;
using permutation = vector_view<int>;

// Positions left..right of the index.
struct subfile {
  int left, right;
  int span() const { return right - left; }
};

// Subfiles of a larger span are partitioned, and so is a vector of more entries than this.
constexpr int largest_unsorted_span = 9;
// The smaller part of a subfile has at most half of it and one more entry, so the levels above the
// largest unsorted subfile are fewer than the bits of an int.
constexpr int stack_size = 31;

// Puts the ends and the middle of a subfile in order; the middle is the pivot, and the ends stop
// the scans of partition.
void order_ends_and_middle(real_data data, permutation index, subfile file) {
  int& first = index(file.left);
  int& middle = index(file.left + file.span() / 2);
  int& last = index(file.right);
  if (data(middle) < data(first)) std::swap(middle, first);
  if (!(data(last) < data(middle))) return;
  std::swap(middle, last);
  if (data(middle) < data(first)) std::swap(middle, first);
}

// Splits a subfile into parts of which no entry of the low one exceeds the pivot and none of the
// high one is below it. Entries equal to the pivot stop both scans, which balances the parts where
// values repeat. Scans that meet in one entry leave it to both parts.
std::pair<subfile, subfile> partition(real_data data, permutation index, subfile file) {
  order_ends_and_middle(data, index, file);
  const double pivot = data(index(file.left + file.span() / 2));
  int i = file.left, j = file.right;
  for (;;) {
    do ++i;
    while (data(index(i)) < pivot);
    do --j;
    while (data(index(j)) > pivot);
    if (i >= j) return {{file.left, j}, {i, file.right}};
    std::swap(index(i), index(j));
  }
}

// Sorts up to subfiles of the largest unsorted span.
void quicksort(real_data data, permutation index) {
  fixed_vector<int, stack_size> lstk, rstk;
  int depth = 0;
  subfile file{1, index.size()};
  for (;;) {
    auto [smaller, larger] = partition(data, index, file);
    if (smaller.span() > larger.span()) std::swap(smaller, larger);
    if (larger.span() <= largest_unsorted_span) {
      if (depth == 0) return;
      file = {lstk(depth), rstk(depth)};
      --depth;
    } else if (smaller.span() <= largest_unsorted_span) {
      file = larger;
    } else {
      ++depth;
      lstk(depth) = larger.left;
      rstk(depth) = larger.right;
      file = smaller;
    }
  }
}

void insertion_pass(real_data data, permutation index) {
  for (int i = 2; i <= index.size(); ++i) {
    const int moving = index(i);
    const double value = data(moving);
    int k = i - 1;
    for (; k >= 1 && data(index(k)) > value; --k) index(k + 1) = index(k);
    index(k + 1) = moving;
  }
}

}  // namespace

void qsortr8(const int& n, const double* data, int* index) {
  const real_data values(data, n);
  const permutation order(index, n);
  for (int i = 1; i <= n; ++i) order(i) = i;
  if (n > largest_unsorted_span) quicksort(values, order);
  insertion_pass(values, order);
}

}  // namespace statsubs
