// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>

#include "varda/host/engine_host.h"

namespace varda {

// Throws bad_input when samples x subjects points could run past the end of the sequence.
void check_points(const population_model& model, int samples);

// Where the E-step's points come from: the library's Sobol generator and, for pseudo-random points
// and the t family, the host's streams.
//
// With common points every iteration integrates over the same points, which makes an iteration a
// deterministic map of the parameters and its convergence smooth. The scrambling has no seed: seed
// k burns k scramblings before the first one that is used.
class point_source {
 public:
  // Starts the generator for at most so many samples a subject, which check_points takes.
  point_source(engine_host& host, int samples);

  // Before the first subject of an iteration, counted from 1, that takes `samples` a subject.
  void begin_iteration(int iteration, int samples);
  // Before the first subject of the presampling pass.
  void begin_presampling();
  // Before the first subject of a pass, counted from 1, of a trial between two iterations, whose
  // points stay as they are; it takes `samples` a subject, those that follow the pass before.
  void begin_trial_pass(int pass, int samples);
  // Before the first subject of the pass for standard errors.
  void begin_standard_errors();
  // Before the first subject of a replicate, counted from 1, that takes `samples` a subject:
  // independent of all other points.
  void begin_replicate(int replicate, int samples);

 private:
  void scramble(int type);
  void align(int samples);
  void rewind();
  std::uint64_t stream(std::uint64_t purpose) const;

  engine_host& host_;
  std::array<int, most_random_effects> first_point_{};  // of the point that starts the sequence
  bool fresh_;
  int type_;
};

}  // namespace varda
