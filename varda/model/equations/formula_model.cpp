// SPDX-License-Identifier: Apache-2.0
#include "varda/model/equations/formula_model.h"

#include <algorithm>

#include "varda/model/equations/formula_lanes.h"

namespace varda {

namespace {

// So many individuals at once: what they need stays in the caches.
constexpr std::size_t most_individuals = 256;

struct formula_workspace final : structural_model::workspace {
  explicit formula_workspace(const formula_program& program)
      : formulas(program, best_lane_kernel()) {}
  formula_lanes formulas;
  lane_array row;
};

}  // namespace

std::unique_ptr<structural_model::workspace> formula_model::make_workspace() const {
  return std::make_unique<formula_workspace>(program_);
}

void formula_model::predict(const subject& who, const parameter_block& p, const prediction_block& f,
                            workspace& scratch) const {
  auto& own = dynamic_cast<formula_workspace&>(scratch);
  for (std::size_t first = 0; first < p.individuals; first += most_individuals) {
    const std::size_t count = std::min(most_individuals, p.individuals - first);
    own.formulas.begin(who, p, first, count, positions_);
    own.row.reserve(own.formulas.stride());
    epoch now;
    std::size_t table = own.formulas.table_of(now);
    for (const event& e : who.timeline) {
      const auto at = static_cast<std::size_t>(e.index);
      switch (e.kind) {
        case event_kind::dose:
          now.dosed = true;
          now.dose_time = e.time;
          now.dose = who.doses[at].amount;
          break;
        case event_kind::reset:
          now = {.segment = now.segment};
          break;
        case event_kind::segment:
          now.segment = e.index;
          break;
        case event_kind::instant:
          break;
        case event_kind::observation: {
          own.formulas.output({.at = &who.observations[at]}, table, nullptr, own.row.data());
          std::copy(own.row.data(), own.row.data() + count, f.values + at * f.stride + first);
          continue;
        }
      }
      table = own.formulas.table_of(now);
    }
  }
}

}  // namespace varda
