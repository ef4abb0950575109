// SPDX-License-Identifier: Apache-2.0
//
// Where the points of an integral come from. The points of subject i in pass k are a function of
// (seed, k, i) alone: subjects can be integrated in any order and by any process, and a run can be
// taken up anywhere.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "varda/model/specification.h"

namespace varda {

// A pass over the subjects. Passes of the same purpose and index see the same points.
struct point_pass {
  enum class purpose : std::uint8_t {
    iteration,
    presampling,
    trial,
    screening,
    draw,
    report,
    start
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

// Number `counter` of the pseudo-random stream at an address, within (0, 1).
double uniform_at(std::uint64_t address, std::uint32_t counter);

// The library's Sobol generator for one run.
//
// One scrambling serves all subjects: each takes the first points of the scrambled sequence,
// shifted digitally by random digits of its own (R. Cranley and T. N. L. Patterson, SIAM J. Numer.
// Anal. 13 (1976) 904-914, for shifts; A. B. Owen, "Monte Carlo and quasi-Monte Carlo sampling",
// 2003, for digital ones). A digital shift keeps the number of points in every elementary box, so
// the points stay a net, while subjects become independent of each other.
class point_source {
 public:
  // Starts the generator for points of `dimensions` coordinates; `scramble` and `kind` as in the
  // settings.
  point_source(int dimensions, int seed, int scramble, point_kind kind = point_kind::sobol);

  // Puts the generator before the first of `samples` points of a subject (from 0).
  void place(const point_pass& pass, int subject, int samples) const;

  // The points that the library draws from there, each coordinate kept to [1e-6, 1 - 1e-6] as
  // fgintegrate keeps it: dimensions x samples, packed. The generator stays where it is; may be
  // called from several threads.
  void fill(const point_pass& pass, int subject, int samples, double* points) const;

  int dimensions() const { return dimensions_; }

 private:
  struct position {
    int count;  // as in the library's generator
    std::array<int, most_random_effects> last;
  };
  position position_of(const point_pass& pass, int subject, int samples) const;

  int dimensions_;
  int seed_;
  bool shifted_;
  point_kind kind_;
  std::vector<int> directions_;  // dimensions x binary digits
  double digit_ = 0.0;
};

}  // namespace varda
