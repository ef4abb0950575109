// SPDX-License-Identifier: Apache-2.0
//
// Where the points of an integral come from. The points of subject i in pass k are a function of
// (seed, k, i) alone: subjects can be integrated in any order and by any process, and a run can be
// taken up anywhere.
#pragma once

#include <cstdint>

namespace varda {

// A pass over the subjects. Passes of the same purpose and index see the same points.
struct point_pass {
  enum class purpose : std::uint8_t {
    iteration,
    presampling,
    trial,
    standard_errors,
    replicate,
    screening,
    draw,
    report
  };
  purpose why = purpose::iteration;
  int index = 0;
};

// A number that nothing but its arguments decides; the passes of one seed and those of another have
// nothing in common.
std::uint64_t address_of(int seed, const point_pass& pass, int subject);

// The stateless mixer behind all of them: the finaliser of splitmix64 (G. L. Steele, D. Lea and
// C. H. Flood, "Fast splittable pseudorandom number generators", OOPSLA 2014).
std::uint64_t mixed(std::uint64_t z);

// The library's Sobol generator for one run.
//
// One scrambling serves all subjects: each takes the first points of the scrambled sequence,
// shifted digitally by random digits of its own (R. Cranley and T. N. L. Patterson, SIAM J. Numer.
// Anal. 13 (1976) 904-914, for shifts; A. B. Owen, "Monte Carlo and quasi-Monte Carlo sampling",
// 2003, for digital ones). A digital shift keeps the number of points in every elementary box, so
// the points stay a net, while subjects become independent of each other.
class point_source {
 public:
  // Starts the generator for points of `dimensions` coordinates; `scramble` as in the settings.
  point_source(int dimensions, int seed, int scramble);

  // Puts the generator before the first of `samples` points of a subject (from 0).
  void place(const point_pass& pass, int subject, int samples) const;

 private:
  int dimensions_;
  int seed_;
  bool shifted_;
};

}  // namespace varda
