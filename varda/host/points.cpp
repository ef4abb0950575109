// SPDX-License-Identifier: Apache-2.0
#include "varda/host/points.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstdint>

#include "statsubs/sequences/bdsobl.h"
#include "statsubs/sequences/sobol.h"

namespace varda {

namespace {

static_assert(most_random_effects <= statsubs::bdsobl::max_dimensions);
constexpr int sequence_length = 1073741823;  // 2^30 - 1
constexpr int sequence_digits = 30;
// Replicates are independent draws: without scrambling they would repeat one another.
constexpr int replicate_scrambling = 1;

// Streams of one seed: iterations from 0, everything else far above them.
constexpr std::uint64_t streams_per_seed = std::uint64_t{1} << 32;
constexpr std::uint64_t first_trial_stream = std::uint64_t{1} << 28;
constexpr std::uint64_t presampling_stream = std::uint64_t{1} << 29;
constexpr std::uint64_t standard_error_stream = std::uint64_t{1} << 30;
constexpr std::uint64_t first_replicate_stream = std::uint64_t{1} << 31;

}  // namespace

void check_points(const population_model& model, int samples) {
  if (static_cast<std::int64_t>(samples) * (model.subjects() + 1) > sequence_length)
    throw bad_input({.code = "E-RUN-POINTS",
                     .message = fmt::format("{} samples for each of {} subjects are more than the "
                                            "{} points of the sequence",
                                            samples, model.subjects(), sequence_length),
                     .remedy = "lower estimation.samples",
                     .file = model.specification().path,
                     .column = "estimation.samples"});
}

point_source::point_source(engine_host& host, int samples)
    : host_(host),
      fresh_(host.model().specification().estimation.fresh_points),
      type_(host.model().specification().estimation.scramble) {
  check_points(host.model(), samples);
  statsubs::poly_vinit_define();
  const int seed = host.model().specification().estimation.seed;
  for (int k = 0; k <= seed; ++k) scramble(type_);
}

void point_source::scramble(int type) {
  std::array<bool, 2> ok{};
  std::array<double, most_random_effects> point{};
  int quality = 0;
  statsubs::insobl(ok.data(), host_.model().random_effects(), sequence_length, quality,
                   point.data(), sequence_digits, type);
  [[maybe_unused]] const bool started = ok[0] && ok[1];
  assert(started);
  for (int i = 1; i <= host_.model().random_effects(); ++i)
    first_point_[static_cast<std::size_t>(i - 1)] = statsubs::bdsobl::lastq(i);
}

// The generator's whole position is the serial number of its last point and that point's digits.
void point_source::rewind() {
  for (int i = 1; i <= host_.model().random_effects(); ++i)
    statsubs::bdsobl::lastq(i) = first_point_[static_cast<std::size_t>(i - 1)];
  statsubs::bdsobl::count = 0;
}

// A power of two of points that starts at a multiple of itself is a net: it has the same number of
// points in every box of certain partitions of the cube, and integrates far more exactly than as
// many points that start elsewhere. The first subject therefore starts at such a multiple.
void point_source::align(int samples) {
  if (!std::has_single_bit(static_cast<unsigned>(samples))) return;
  std::array<double, most_random_effects> unused{};
  for (int k = 1; k < samples; ++k) statsubs::gosobl(unused.data());
}

std::uint64_t point_source::stream(std::uint64_t purpose) const {
  const auto seed = static_cast<std::uint64_t>(host_.model().specification().estimation.seed);
  return seed * streams_per_seed + purpose;
}

void point_source::begin_iteration(int iteration, int samples) {
  host_.set_random_stream(stream(fresh_ ? static_cast<std::uint64_t>(iteration) : 0));
  if (fresh_ && iteration > 1)
    scramble(type_);
  else
    rewind();
  align(samples);
}

void point_source::begin_presampling() {
  host_.set_random_stream(stream(presampling_stream));
  rewind();
}

void point_source::begin_trial_pass(int pass, int samples) {
  host_.set_random_stream(stream(first_trial_stream + static_cast<std::uint64_t>(pass)));
  if (pass > 1) return;
  rewind();
  align(samples);
}

void point_source::begin_standard_errors() {
  host_.set_random_stream(stream(standard_error_stream));
  scramble(type_);
}

void point_source::begin_replicate(int replicate, int samples) {
  const estimation_settings& settings = host_.model().specification().estimation;
  host_.set_random_stream(stream(first_replicate_stream + static_cast<std::uint64_t>(replicate)));
  // The blocks of scramblings that different seeds use for their replicates do not overlap.
  if (replicate == 1)
    for (int k = 0; k < settings.seed * (settings.replicates - 1); ++k)
      scramble(replicate_scrambling);
  scramble(replicate_scrambling);
  align(samples);
}

}  // namespace varda
