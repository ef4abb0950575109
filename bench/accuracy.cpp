// SPDX-License-Identifier: Apache-2.0
//
// Prints the measured accuracy of the special functions, one line a function and range: the points
// visited, the largest relative error against Boost.Math at 50 digits, the bound that the tests
// hold it to, and the argument where it occurs. An argument sets the density of the grids; the
// tests use density 1.
#include <cstdio>
#include <cstdlib>

#include "bench/accuracy_cases.h"

namespace {

void print_row(const test::accuracy_case& row, int density) {
  const test::largest_error worst = row.sweep(density);
  std::printf("%-29s %-36s %7d  %8.1e  %7.0e  ", row.name.c_str(), row.range.c_str(), worst.points,
              worst.error, row.bound);
  if (row.two_arguments)
    std::printf("(%.9g, %.9g)\n", worst.at.a, worst.at.x);
  else
    std::printf("%.17g\n", worst.at.x);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const int density = argc > 1 ? std::atoi(argv[1]) : 10;
  if (density < 1) {
    std::fprintf(stderr, "usage: accuracy [density >= 1]\n");
    return 2;
  }
  std::printf("%-29s %-36s %7s  %8s  %7s  %s\n", "function", "range", "points", "error", "bound",
              "worst argument");
  for (const test::accuracy_case& row : test::accuracy_cases()) print_row(row, density);
  return 0;
}
