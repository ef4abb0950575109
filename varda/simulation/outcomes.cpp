// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/outcomes.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "statsubs/distributions/gamma.h"
#include "varda/model/equations/outcome_formulas.h"

namespace varda {

namespace {

constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

// The first count whose distribution function reaches u, summed up from where nothing is lost: a
// count below mean - 12 deviations has a probability below 1e-31 (a bound for sums of variables
// that are not negative). dispersion 0: Poisson.
double count_at(double mean, double dispersion, double u) {
  if (!(mean >= 0.0) || !std::isfinite(mean) || !std::isfinite(dispersion)) return unknown;
  if (mean == 0.0) return 0.0;
  const double deviation = std::sqrt(mean + dispersion * mean * mean);
  double k = std::max(0.0, std::floor(mean - 12.0 * deviation));
  const double am = dispersion * mean;
  double log_probability = 0.0;
  if (dispersion > 0.0) {
    const double r = 1.0 / dispersion;
    log_probability = -(r + k) * std::log1p(am) - statsubs::gamln(k + 1.0);
    if (k > 0.0) log_probability += k * std::log(am) + statsubs::gamln(r + k) - statsubs::gamln(r);
  } else {
    log_probability = k * std::log(mean) - mean - statsubs::gamln(k + 1.0);
  }
  double probability = std::exp(log_probability);
  double sum = probability;
  while (sum < u) {
    k += 1.0;
    probability *=
        dispersion > 0.0 ? (1.0 + dispersion * (k - 1.0)) / k * (mean / (1.0 + am)) : mean / k;
    sum += probability;
    // What is left is lost in rounding.
    if (k > mean && probability < 1e-18 * sum) break;
  }
  return k;
}

double inflated_count_at(double mean, double share, double dispersion, double u) {
  if (!(share >= 0.0 && share <= 1.0)) return unknown;
  if (u <= share) return std::isfinite(mean) ? 0.0 : unknown;
  return count_at(mean, dispersion, (u - share) / (1.0 - share));
}

}  // namespace

bool can_be_simulated(const outcome_text& of) {
  return of.kind != endpoint_kind::log_likelihood;
}

bool has_row_values(const outcome_text& of) {
  return can_be_simulated(of) && of.kind != endpoint_kind::event;
}

double outcome_at(const outcome_text& of, const double* parameters, double u) {
  switch (of.kind) {
    case endpoint_kind::poisson:
    case endpoint_kind::zero_inflated_poisson:
      return inflated_count_at(parameters[0], parameters[1], 0.0, u);
    case endpoint_kind::negative_binomial:
    case endpoint_kind::zero_inflated_negative_binomial:
      return inflated_count_at(parameters[0], parameters[1], parameters[2], u);
    case endpoint_kind::binary:
      if (std::isnan(parameters[0])) return unknown;
      return u <= 1.0 - parameters[0] ? 0.0 : 1.0;
    case endpoint_kind::ordinal: {
      const std::size_t cuts = of.levels.size() - 1;
      for (std::size_t k = 0; k < cuts; ++k) {
        if (std::isnan(parameters[k])) return unknown;
        if (u <= parameters[k]) return of.levels[k];
      }
      return of.levels.back();
    }
    case endpoint_kind::normal:
    case endpoint_kind::event:
    case endpoint_kind::log_likelihood:
      break;
  }
  return unknown;
}

double rank_of(const outcome_text& of, double value) {
  if (of.kind != endpoint_kind::ordinal || std::isnan(value)) return value;
  return static_cast<double>(std::find(of.levels.begin(), of.levels.end(), value) -
                             of.levels.begin());
}

rank_moments rank_moments_of(const outcome_text& of, const double* parameters) {
  switch (of.kind) {
    case endpoint_kind::poisson:
    case endpoint_kind::zero_inflated_poisson:
    case endpoint_kind::negative_binomial:
    case endpoint_kind::zero_inflated_negative_binomial: {
      const double mean = parameters[0];
      const double zeros = parameters[1];
      const double dispersion = law_parameters(of) > 2 ? parameters[2] : 0.0;
      return {(1.0 - zeros) * mean, (1.0 - zeros) * mean * (1.0 + (dispersion + zeros) * mean)};
    }
    case endpoint_kind::binary:
      return {parameters[0], parameters[0] * (1.0 - parameters[0])};
    case endpoint_kind::ordinal: {
      // With P_k the probability of a rank above k: sums of P_k and of (2 k + 1) P_k.
      double mean = 0.0;
      double square = 0.0;
      for (std::size_t k = 0; k + 1 < of.levels.size(); ++k) {
        const double above = 1.0 - parameters[k];
        mean += above;
        square += static_cast<double>(2 * k + 1) * above;
      }
      return {mean, square - mean * mean};
    }
    case endpoint_kind::normal:
    case endpoint_kind::event:
    case endpoint_kind::log_likelihood:
      break;
  }
  return {unknown, unknown};
}

watch_times::watch_times(const population_model& model) : model_(model) {
  last_.assign(model.specification().endpoints.size(), -std::numeric_limits<double>::infinity());
  for (const subject& who : model.data().subjects)
    for (const observation& o : who.observations) {
      double& last = last_[static_cast<std::size_t>(o.endpoint)];
      last = std::max(last, o.time);
    }
}

double watch_times::end_of(int subject, int endpoint) const {
  const outcome_text& of =
      model_.specification().endpoints[static_cast<std::size_t>(endpoint)].outcome;
  if (of.kind != endpoint_kind::event) return unknown;
  const observation* last = nullptr;
  for (const observation& o :
       model_.data().subjects[static_cast<std::size_t>(subject)].observations)
    if (o.endpoint == endpoint) last = &o;
  if (last == nullptr) return unknown;
  if (!std::isnan(of.follow_up)) return of.follow_up;
  const bool open = last->censored == censoring::right || std::isnan(last->value);
  return open ? last->time : last_[static_cast<std::size_t>(endpoint)];
}

event_design::event_design(const population_model& model, int subject, const watch_times& until) {
  const auto endpoints = static_cast<int>(model.specification().endpoints.size());
  std::vector<double> ends;
  for (int e = 0; e < endpoints; ++e) ends.push_back(until.end_of(subject, e));
  if (std::all_of(ends.begin(), ends.end(), [](double end) { return std::isnan(end); })) return;
  who_ = model.data().subjects[static_cast<std::size_t>(subject)];
  std::erase_if(who_.timeline, [](const event& e) {
    return e.kind == event_kind::observation || e.kind == event_kind::instant;
  });
  who_.observations.clear();
  who_.instants = 0;
  for (int e = 0; e < endpoints; ++e)
    if (!std::isnan(ends[static_cast<std::size_t>(e)]))
      lay_out(model, e, ends[static_cast<std::size_t>(e)]);
  // The places in the order of the timeline, which the grids of several endpoints share.
  std::vector<event> rows;
  for (std::size_t j = 0; j < who_.observations.size(); ++j)
    rows.push_back({event_kind::observation, static_cast<int>(j), who_.observations[j].time});
  std::stable_sort(rows.begin(), rows.end(),
                   [](const event& a, const event& b) { return a.time < b.time; });
  std::vector<event> timeline;
  auto next = rows.begin();
  int segment = 0;
  const auto observe_before = [&](double time) {
    for (; next != rows.end() && next->time < time; ++next) {
      who_.observations[static_cast<std::size_t>(next->index)].segment = segment;
      timeline.push_back(*next);
    }
  };
  for (const event& e : who_.timeline) {
    observe_before(e.time);
    if (e.kind == event_kind::segment) segment = e.index;
    timeline.push_back(e);
  }
  observe_before(std::numeric_limits<double>::infinity());
  who_.timeline = std::move(timeline);
}

void event_design::lay_out(const population_model& model, int endpoint, double end) {
  constexpr int pieces = 256;
  constexpr int fine_pieces = 12;  // each half of the next, from the beginning on
  grid made;
  made.endpoint = endpoint;
  made.repeated =
      model.specification().endpoints[static_cast<std::size_t>(endpoint)].outcome.repeated;
  made.end = end;
  const double begin = who_.timeline.empty() ? 0.0 : std::min(0.0, who_.timeline.front().time);
  const double width = (end - begin) / pieces;
  if (!(width > 0.0)) {
    made.times = {begin};
  } else {
    for (int k = 0; k <= pieces; ++k) made.times.push_back(begin + width * k);
    for (int k = 1; k <= fine_pieces; ++k) made.times.push_back(begin + std::ldexp(width, -k));
    for (const event& e : who_.timeline)
      if (e.time > begin && e.time < end) made.times.push_back(e.time);
    std::sort(made.times.begin(), made.times.end());
    made.times.erase(std::unique(made.times.begin(), made.times.end()), made.times.end());
  }
  for (const double time : made.times) {
    made.places.push_back(who_.observations.size());
    for (const int what : {quantity::parameters, quantity::parameters + 1})
      who_.observations.push_back(
          {.time = time, .value = unknown, .endpoint = endpoint, .quantity = what, .begin = begin});
  }
  grids_.push_back(std::move(made));
}

namespace {

// Where a cumulative hazard reaches `level` between two times: its cubic with the hazards as slopes
// (no steeper than keeps it rising: Fritsch and Carlson, 1980, SIAM J. Numer. Anal. 17, 238-246).
struct stretch {
  double from, to;
  double total_from, total_to;
  double hazard_from, hazard_to;

  double reaches(double level) const {
    const double width = to - from;
    const double rise = total_to - total_from;
    if (!(rise > 0.0)) return to;
    const auto slope = [&](double hazard) {
      return std::isfinite(hazard) ? std::min(hazard * width / rise, 3.0) : 3.0;
    };
    const double a = slope(hazard_from);
    const double b = slope(hazard_to);
    const double wanted = (level - total_from) / rise;
    double low = 0.0;
    double high = 1.0;
    for (int k = 0; k < 50; ++k) {
      const double x = 0.5 * (low + high);
      const double y = x * (a + x * ((3.0 - 2.0 * a - b) + x * (a + b - 2.0)));
      (y < wanted ? low : high) = x;
    }
    return from + width * 0.5 * (low + high);
  }
};

}  // namespace

bool event_design::draw(const Eigen::VectorXd& predictions, deviates& from,
                        std::vector<event_row>& to) const {
  bool known = true;
  for (const grid& g : grids_) {
    const auto total = [&](std::size_t k) {
      return predictions(static_cast<Eigen::Index>(g.places[k]));
    };
    const auto hazard = [&](std::size_t k) {
      return predictions(static_cast<Eigen::Index>(g.places[k] + 1));
    };
    double level = total(0) - std::log(from.uniform());
    bool over = false;
    for (std::size_t k = 1; k < g.times.size() && !over && known; ++k) {
      if (!std::isfinite(total(k)) || total(k) < total(k - 1)) known = false;
      const stretch piece{g.times[k - 1], g.times[k],    total(k - 1),
                          total(k),       hazard(k - 1), hazard(k)};
      while (known && !over && level <= total(k)) {
        to.push_back({g.endpoint, piece.reaches(level), true});
        over = !g.repeated;
        level -= std::log(from.uniform());
      }
    }
    if (!over) to.push_back({g.endpoint, g.end, false});
  }
  return known;
}

}  // namespace varda
