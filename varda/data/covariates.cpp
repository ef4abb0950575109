// SPDX-License-Identifier: Apache-2.0
#include "varda/data/covariates.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "varda/data/levels.h"

namespace varda {

namespace {

constexpr double no_value = std::numeric_limits<double>::quiet_NaN();

// The first value in a column. A text that is no level is passed over: it is refused where its
// record is read.
double first_value(std::span<const csv_table::record> records, int column, bool levels) {
  for (const csv_table::record& r : records) {
    const std::string_view text = r.fields[static_cast<std::size_t>(column)];
    if (is_missing(text)) continue;
    if (levels) return level_number(text);
    if (const std::optional<double> value = to_number(text)) return *value;
  }
  return no_value;
}

}  // namespace

covariate_path::covariate_path(const column_map& columns,
                               std::span<const csv_table::record> records) {
  for (std::size_t k = 0; k < columns.covariates(); ++k)
    in_force_.covariates.push_back(
        first_value(records, columns.position_of_covariate(k), columns.may_be_text(k)));
  const bool several = columns.model().occasions;
  occasions_.push_back(several ? first_value(records, columns.position_of(role::occ), true)
                               : no_value);
}

int covariate_path::without_value() const {
  const auto& values = in_force_.covariates;
  const auto at =
      std::find_if(values.begin(), values.end(), [](double v) { return std::isnan(v); });
  return at == values.end() ? -1 : static_cast<int>(at - values.begin());
}

std::optional<segment> covariate_path::next(const record_view& from, double time) {
  segment changed = in_force_;
  for (std::size_t k = 0; k < changed.covariates.size(); ++k)
    changed.covariates[k] = from.covariate(k).value_or(changed.covariates[k]);
  if (from.model().occasions) {
    if (const std::optional<double> label = from.level(role::occ)) {
      const auto at = std::find(occasions_.begin(), occasions_.end(), *label);
      changed.occasion = static_cast<int>(at - occasions_.begin());
      if (at == occasions_.end()) occasions_.push_back(*label);
    }
  }
  if (changed.occasion == in_force_.occasion && changed.covariates == in_force_.covariates)
    return std::nullopt;
  changed.begin = time;
  in_force_ = changed;
  return changed;
}

}  // namespace varda
