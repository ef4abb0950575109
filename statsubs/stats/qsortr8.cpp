// SPDX-License-Identifier: Apache-2.0
//
// The partition looks at entries in blocks and collects where its two scans would stop before it
// swaps anything, without a branch that depends on the data: S. Edelkamp and A. Weiss,
// "BlockQuicksort: avoiding branch mispredictions in quicksort", ESA 2016. The swaps, and so the
// permutation among equal values too, are those of the scan that stops and swaps entry by entry.
#include "statsubs/stats/qsortr8.h"

#include <algorithm>
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

// Entries that a scan looks at before any is swapped.
constexpr int block = 64;

// Positions at which a scan stops, in its order; taken from the front.
class stops {
 public:
  bool empty() const { return taken_ == count_; }
  int size() const { return count_ - taken_; }
  int front() const { return position_[taken_]; }
  int take() { return position_[taken_++]; }

  // Of the positions first, first + step, ..., `length` of them, those at which stop(position)
  // holds.
  template <class Stop>
  void collect(int first, int step, int length, Stop stop) {
    int count = 0;
    for (int k = 0; k < length; ++k, first += step) {
      position_[count] = first;
      count += stop(first) ? 1 : 0;
    }
    taken_ = 0;
    count_ = count;
  }

 private:
  int position_[3 * block];  // what the last stretch of a partition can hold
  int taken_ = 0;
  int count_ = 0;
};

// Splits a subfile into parts of which no entry of the low one exceeds the pivot and none of the
// high one is below it. Entries equal to the pivot stop both scans, which balances the parts where
// values repeat. Scans that meet in one entry leave it to both parts.
std::pair<subfile, subfile> partition(real_data data, permutation index, subfile file) {
  order_ends_and_middle(data, index, file);
  const double pivot = data(index(file.left + file.span() / 2));
  const auto stops_up = [=](int at) { return !(data(index(at)) < pivot); };
  const auto stops_down = [=](int at) { return !(data(index(at)) > pivot); };
  stops up, down;

  // Positions low..high have not been looked at.
  int low = file.left + 1, high = file.right - 1;
  while (high - low + 1 >= 2 * block) {
    if (up.empty()) {
      up.collect(low, 1, block, stops_up);
      low += block;
    }
    if (down.empty()) {
      down.collect(high, -1, block, stops_down);
      high -= block;
    }
    for (int pairs = std::min(up.size(), down.size()); pairs > 0; --pairs)
      std::swap(index(up.take()), index(down.take()));
  }

  // The scans have come to low and high, and meet between them.
  if (!up.empty()) low = up.front();
  if (!down.empty()) high = down.front();
  up.collect(low, 1, high - low + 1, stops_up);
  down.collect(high, -1, high - low + 1, stops_down);
  int swapped_low = low - 1, swapped_high = high + 1;
  while (!up.empty() && !down.empty() && up.front() < down.front()) {
    swapped_low = up.take();
    swapped_high = down.take();
    std::swap(index(swapped_low), index(swapped_high));
  }
  const int i = up.empty() ? swapped_high : std::min(up.front(), swapped_high);
  const int j = down.empty() ? swapped_low : std::max(down.front(), swapped_low);
  return {{file.left, j}, {i, file.right}};
}

// Sorts a short subfile by insertion.
void insert(real_data data, permutation index, subfile file) {
  for (int i = file.left + 1; i <= file.right; ++i) {
    const int moving = index(i);
    const double value = data(moving);
    int k = i - 1;
    for (; k >= file.left && data(index(k)) > value; --k) index(k + 1) = index(k);
    index(k + 1) = moving;
  }
}

void quicksort(real_data data, permutation index) {
  fixed_vector<int, stack_size> lstk, rstk;
  int depth = 0;
  subfile file{1, index.size()};
  for (;;) {
    auto [smaller, larger] = partition(data, index, file);
    if (smaller.span() > larger.span()) std::swap(smaller, larger);
    if (larger.span() <= largest_unsorted_span) {
      insert(data, index, smaller);
      insert(data, index, larger);
      if (depth == 0) return;
      file = {lstk(depth), rstk(depth)};
      --depth;
    } else if (smaller.span() <= largest_unsorted_span) {
      insert(data, index, smaller);
      file = larger;
    } else {
      ++depth;
      lstk(depth) = larger.left;
      rstk(depth) = larger.right;
      file = smaller;
    }
  }
}

}  // namespace

void qsortr8(const int& n, const double* data, int* index) {
  const real_data values(data, n);
  const permutation order(index, n);
  for (int i = 1; i <= n; ++i) order(i) = i;
  if (n > largest_unsorted_span) return quicksort(values, order);
  insert(values, order, {1, n});
}

}  // namespace statsubs
