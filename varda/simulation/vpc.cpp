// SPDX-License-Identifier: Apache-2.0
#include "varda/simulation/vpc.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "varda/support/text.h"

namespace varda {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double unknown = std::numeric_limits<double>::quiet_NaN();

// An observation with where it stands in the simulations.
struct point {
  double time = 0.0;
  double value = 0.0;  // -infinity below its limit, infinity above
  double prediction = 0.0;
  int subject = 0;
  Eigen::Index row = 0;
  quantified_range range{};
};

double time_of_last_dose(const subject& who, const observation& at) {
  double last = who.timeline.empty() ? at.time : who.timeline.front().time;
  for (const event& e : who.timeline) {
    if (e.time > at.time) break;
    if (e.kind == event_kind::dose) last = e.time;
  }
  return last;
}

double censored_value(double value, const quantified_range& range) {
  return value < range.lower ? -infinity : value > range.upper ? infinity : value;
}

double observed_value(const observation& o) {
  switch (o.censored) {
    case censoring::left:
    case censoring::interval:
      return -infinity;
    case censoring::right:
      return infinity;
    case censoring::none:
      break;
  }
  return o.value;
}

// The strata of a covariate: each of its values, or, where there are more than six, halves.
class strata {
 public:
  strata(const dataset& data, const std::string& covariate, const std::string& file) {
    if (covariate.empty()) return;
    const auto& names = data.covariate_names;
    const auto at = std::find_if(names.begin(), names.end(), [&](const std::string& name) {
      return equal_ignoring_case(name, covariate);
    });
    if (at == names.end()) {
      const std::string near = did_you_mean(covariate, names);
      throw bad_input({.code = "E-SIM-STRATIFY",
                       .message = "the model has no covariate " + covariate,
                       .remedy = names.empty()  ? "it has none at all"
                                 : near.empty() ? fmt::format("it has {}", fmt::join(names, ", "))
                                                : "did you mean " + near + "?",
                       .file = file});
    }
    position_ = static_cast<int>(at - names.begin());
    name_ = *at;
    for (const subject& who : data.subjects)
      for (const observation& o : who.observations) values_.push_back(value_at(who, o));
    std::sort(values_.begin(), values_.end());
    const double median = percentile_of(values_, 0.5);
    values_.erase(std::unique(values_.begin(), values_.end()), values_.end());
    constexpr std::size_t most_values = 6;
    const bool texts = data.is_text_covariate(static_cast<std::size_t>(position_));
    if (values_.size() > most_values && !texts) values_ = {median, infinity};
    halved_ = values_.back() == infinity;
    for (const double value : values_) texts_.push_back(data.covariate_text(value));
  }

  std::size_t count() const { return position_ < 0 ? 1 : values_.size(); }
  std::size_t of(const subject& who, const observation& o) const {
    if (position_ < 0) return 0;
    return static_cast<std::size_t>(
        std::lower_bound(values_.begin(), values_.end(), value_at(who, o)) - values_.begin());
  }
  std::string name(std::size_t k) const {
    if (position_ < 0) return "";
    if (!halved_) return name_ + " " + texts_[k];
    return fmt::format("{} {} {}", name_, k == 0 ? "at most" : "above", values_.front());
  }

 private:
  double value_at(const subject& who, const observation& o) const {
    return who.segments[static_cast<std::size_t>(o.segment)]
        .covariates[static_cast<std::size_t>(position_)];
  }

  int position_ = -1;
  std::string name_;
  std::vector<double> values_;
  std::vector<std::string> texts_;
  bool halved_ = false;
};

double median_of(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return percentile_of(values, 0.5);
}

// Where an infinite percentile stands for one that censoring hides.
double known_or_nan(double value) {
  return std::isfinite(value) ? value : unknown;
}

// The median of the replicates' values and the ends of the interval.
void take_replicates(std::vector<double> values, double interval, vpc_statistic& to) {
  std::erase_if(values, [](double v) { return std::isnan(v); });
  std::sort(values.begin(), values.end());
  to.lower = known_or_nan(percentile_of(values, 0.5 - 0.5 * interval));
  to.median = known_or_nan(percentile_of(values, 0.5));
  to.upper = known_or_nan(percentile_of(values, 0.5 + 0.5 * interval));
}

double share_censored(const std::vector<double>& values) {
  const auto count =
      std::count_if(values.begin(), values.end(), [](double v) { return std::isinf(v); });
  return values.empty() ? unknown : static_cast<double>(count) / static_cast<double>(values.size());
}

// A replicate's values of a bin, without those that could not be simulated.
std::vector<double> simulated_values(const std::vector<const point*>& points,
                                     const std::vector<double>& corrections,
                                     const std::vector<simulated_subject>& simulated,
                                     Eigen::Index replicate) {
  std::vector<double> values;
  for (std::size_t k = 0; k < points.size(); ++k) {
    const point& p = *points[k];
    const double y = simulated[static_cast<std::size_t>(p.subject)].values(p.row, replicate);
    if (!std::isnan(y)) values.push_back(corrections[k] * censored_value(y, p.range));
  }
  return values;
}

vpc_bin bin_of(const std::vector<const point*>& points,
               const std::vector<simulated_subject>& simulated, int replicates,
               const vpc_plan& plan, vpc_panel& panel) {
  vpc_bin bin;
  bin.observations = static_cast<int>(points.size());
  std::vector<double> times;
  std::vector<double> predictions;
  for (const point* p : points) {
    times.push_back(p->time);
    predictions.push_back(p->prediction);
  }
  bin.centre = median_of(times);
  const double typical = median_of(predictions);
  std::vector<double> corrections;
  std::vector<double> observed;
  for (const point* p : points) {
    corrections.push_back(plan.prediction_corrected ? typical / p->prediction : 1.0);
    observed.push_back(corrections.back() * p->value);
    panel.times.push_back(p->time);
    panel.below.push_back(p->value == -infinity);
    panel.above.push_back(p->value == infinity);
    const double shown = p->value == -infinity  ? p->range.lower
                         : p->value == infinity ? p->range.upper
                                                : p->value;
    panel.values.push_back(corrections.back() * shown);
  }
  constexpr std::size_t count = std::size(vpc_percentiles);
  bin.percentiles.resize(count);
  bin.censored.observed = share_censored(observed);
  std::sort(observed.begin(), observed.end());
  for (std::size_t q = 0; q < count; ++q)
    bin.percentiles[q].observed = known_or_nan(percentile_of(observed, vpc_percentiles[q]));

  std::vector<std::vector<double>> by_replicate(count);
  std::vector<double> shares;
  for (Eigen::Index r = 0; r < replicates; ++r) {
    std::vector<double> values = simulated_values(points, corrections, simulated, r);
    shares.push_back(share_censored(values));
    std::sort(values.begin(), values.end());
    for (std::size_t q = 0; q < count; ++q)
      by_replicate[q].push_back(percentile_of(values, vpc_percentiles[q]));
  }
  for (std::size_t q = 0; q < count; ++q)
    take_replicates(std::move(by_replicate[q]), plan.interval, bin.percentiles[q]);
  take_replicates(std::move(shares), plan.interval, bin.censored);
  return bin;
}

std::vector<double> edges_of(const std::vector<point>& points, const vpc_plan& plan) {
  if (!plan.edges.empty()) return plan.edges;
  std::vector<double> times;
  std::vector<int> counts;
  int last = -1;
  for (const point& p : points) {
    times.push_back(p.time);
    if (p.subject != last) counts.push_back(0);
    last = p.subject;
    ++counts.back();
  }
  std::sort(times.begin(), times.end());
  return bin_edges(times, plan.bins > 0 ? plan.bins : automatic_bins(std::move(counts)));
}

void fill(const std::vector<point>& points, const std::vector<simulated_subject>& simulated,
          int replicates, const vpc_plan& plan, vpc_panel& panel) {
  const std::vector<double> edges = edges_of(points, plan);
  std::vector<std::vector<const point*>> binned(edges.size() - 1);
  for (const point& p : points) {
    // A bin holds its lower edge; the last one the upper as well.
    const auto above = std::upper_bound(edges.begin(), edges.end(), p.time);
    auto k = static_cast<std::size_t>(above - edges.begin());
    if (p.time == edges.back()) k = edges.size() - 1;
    if (k == 0 || k == edges.size()) {
      ++panel.left_out;
      continue;
    }
    binned[k - 1].push_back(&p);
  }
  for (std::size_t k = 0; k < binned.size(); ++k) {
    if (binned[k].empty()) continue;
    panel.bins.push_back(bin_of(binned[k], simulated, replicates, plan, panel));
    panel.bins.back().from = edges[k];
    panel.bins.back().to = edges[k + 1];
  }
}

}  // namespace

namespace {

// What is known of the events of some subjects.
struct watched {
  std::vector<std::vector<double>> events;
  std::vector<double> ends;
};

int at_risk(const watched& w, double time, bool repeated) {
  int count = 0;
  for (std::size_t i = 0; i < w.ends.size(); ++i)
    count +=
        w.ends[i] >= time && (repeated || w.events[i].empty() || w.events[i][0] >= time) ? 1 : 0;
  return count;
}

// Of the data: an event that came before its row counts at it.
void watch(const subject& who, int endpoint, watched& to) {
  std::vector<double> events;
  double end = 0.0;
  for (const observation& o : who.observations) {
    if (o.endpoint != endpoint || std::isnan(o.value)) continue;
    if (o.censored != censoring::right) events.push_back(o.time);
    end = o.time;
  }
  to.events.push_back(std::move(events));
  to.ends.push_back(end);
}

event_panel event_panel_of(const population_model& model, int endpoint,
                           const std::vector<int>& members,
                           const std::vector<simulated_subject>& simulated, int replicates,
                           double interval) {
  event_panel panel;
  panel.endpoint = endpoint;
  panel.repeated =
      model.specification().endpoints[static_cast<std::size_t>(endpoint)].outcome.repeated;
  panel.subjects = static_cast<int>(members.size());
  watched seen;
  for (const int i : members)
    watch(model.data().subjects[static_cast<std::size_t>(i)], endpoint, seen);
  constexpr int pieces = 100;
  const double last = *std::max_element(seen.ends.begin(), seen.ends.end());
  for (int k = 0; k <= pieces; ++k) panel.times.push_back(last * k / pieces);
  for (const double time : panel.times)
    panel.at_risk.push_back(at_risk(seen, time, panel.repeated));
  const std::vector<double> observed =
      event_curve(seen.events, seen.ends, panel.repeated, panel.times);
  std::vector<std::vector<double>> by_time(panel.times.size());
  for (int r = 0; r < replicates; ++r) {
    watched made;
    for (const int i : members) {
      const auto& events = simulated[static_cast<std::size_t>(i)].events;
      if (events.empty()) continue;
      std::vector<double> own;
      double end = unknown;
      for (const event_row& row : events[static_cast<std::size_t>(r)]) {
        if (row.endpoint != endpoint) continue;
        if (row.happened) own.push_back(row.time);
        end = row.time;
      }
      if (std::isnan(end)) continue;
      made.events.push_back(std::move(own));
      made.ends.push_back(end);
    }
    const std::vector<double> curve =
        event_curve(made.events, made.ends, panel.repeated, panel.times);
    for (std::size_t k = 0; k < curve.size(); ++k) by_time[k].push_back(curve[k]);
  }
  for (std::size_t k = 0; k < panel.times.size(); ++k) {
    vpc_statistic s;
    s.observed = observed[k];
    take_replicates(std::move(by_time[k]), interval, s);
    panel.values.push_back(s);
  }
  return panel;
}

}  // namespace

std::vector<double> event_curve(const std::vector<std::vector<double>>& events,
                                const std::vector<double>& ends, bool repeated,
                                const std::vector<double>& times) {
  std::vector<double> happened;
  std::vector<double> leaving;  // when a subject is not watched any more
  for (std::size_t i = 0; i < ends.size(); ++i) {
    happened.insert(happened.end(), events[i].begin(), events[i].end());
    leaving.push_back(!repeated && !events[i].empty() ? events[i].front() : ends[i]);
  }
  std::sort(happened.begin(), happened.end());
  std::sort(leaving.begin(), leaving.end());
  std::vector<double> curve;
  double value = repeated ? 0.0 : 1.0;
  auto next = happened.begin();
  for (const double time : times) {
    while (next != happened.end() && *next <= time) {
      const auto same = std::upper_bound(next, happened.end(), *next);
      const auto share =
          static_cast<double>(same - next) /
          static_cast<double>(leaving.end() -
                              std::lower_bound(leaving.begin(), leaving.end(), *next));
      value = repeated ? value + share : value * (1.0 - share);
      next = same;
    }
    // Nobody is left, and some have left without an event.
    const bool over = leaving.empty() || (time > leaving.back() && (repeated || value > 0.0));
    curve.push_back(over ? unknown : value);
  }
  return curve;
}

double percentile_of(const std::vector<double>& ascending, double probability) {
  if (ascending.empty()) return unknown;
  const double h = probability * static_cast<double>(ascending.size() - 1);
  const auto below = static_cast<std::size_t>(h);
  const double share = h - static_cast<double>(below);
  const double a = ascending[below];
  if (share == 0.0 || std::isinf(a)) return a;
  const double b = ascending[below + 1];
  return std::isinf(b) ? b : a + share * (b - a);
}

int automatic_bins(std::vector<int> counts) {
  if (counts.empty()) return 1;
  int all = 0;
  for (const int n : counts) all += n;
  const auto middle = counts.begin() + static_cast<std::ptrdiff_t>(counts.size() / 2);
  std::nth_element(counts.begin(), middle, counts.end());
  const int wanted = std::max(*middle, std::min(8, all / 30));
  return std::max(1, std::min({wanted, 20, all / 5}));
}

std::vector<double> bin_edges(const std::vector<double>& times, int bins) {
  if (times.empty()) return {0.0, 0.0};
  // Between which neighbours there is room for an edge, and how many times lie before it.
  std::vector<std::size_t> gaps;
  for (std::size_t k = 1; k < times.size(); ++k)
    if (times[k] > times[k - 1]) gaps.push_back(k);
  std::vector<double> edges = {times.front()};
  const auto add = [&](std::size_t k) {
    const double edge = times[k - 1] + 0.5 * (times[k] - times[k - 1]);
    if (edge > edges.back()) edges.push_back(edge);
  };
  if (gaps.size() < static_cast<std::size_t>(bins)) {
    for (const std::size_t k : gaps) add(k);
  } else {
    for (int b = 1; b < bins; ++b) {
      const double target = static_cast<double>(times.size()) * b / bins;
      add(*std::min_element(gaps.begin(), gaps.end(), [&](std::size_t x, std::size_t y) {
        return std::fabs(static_cast<double>(x) - target) <
               std::fabs(static_cast<double>(y) - target);
      }));
    }
  }
  edges.push_back(times.back());
  return edges;
}

vpc_result visual_predictive_check(const population_model& model, const drawn_parameters& estimates,
                                   const std::vector<simulated_subject>& simulated,
                                   const vpc_plan& plan) {
  vpc_result result;
  result.plan = plan;
  for (const simulated_subject& s : simulated)
    result.replicates = std::max(result.replicates, static_cast<int>(s.values.cols()));
  const strata groups(model.data(), plan.stratify, model.specification().path);
  const quantification limits(model);
  const std::size_t endpoints = model.specification().endpoints.size();
  std::vector<std::vector<point>> points(endpoints * groups.count());
  std::vector<int> left_out(points.size(), 0);
  std::vector<std::vector<int>> watched_by(points.size());  // subjects with events
  for (int i = 0; i < model.subjects(); ++i) {
    const subject& who = model.data().subjects[static_cast<std::size_t>(i)];
    const Eigen::VectorXd predictions = population_predictions(model, i, estimates.theta);
    for (std::size_t j = 0; j < who.observations.size(); ++j) {
      const observation& o = who.observations[j];
      const endpoint& of = model.specification().endpoints[static_cast<std::size_t>(o.endpoint)];
      const std::size_t panel =
          static_cast<std::size_t>(o.endpoint) * groups.count() + groups.of(who, o);
      if (of.outcome.kind == endpoint_kind::event) {
        std::vector<int>& members = watched_by[panel];
        if (members.empty() || members.back() != i) members.push_back(i);
        continue;
      }
      if (!of.is_normal() && !has_row_values(of.outcome)) continue;
      const auto row = static_cast<Eigen::Index>(j);
      if (plan.prediction_corrected && !(predictions(row) > 0.0)) {
        ++left_out[panel];
        continue;
      }
      const double start = plan.time_after_dose ? time_of_last_dose(who, o) : 0.0;
      points[panel].push_back({.time = o.time - start,
                               .value = observed_value(o),
                               .prediction = predictions(row),
                               .subject = i,
                               .row = row,
                               .range = limits.range_of(o)});
    }
  }
  for (std::size_t k = 0; k < points.size(); ++k) {
    const auto endpoint = static_cast<int>(k / groups.count());
    const outcome_text& of =
        model.specification().endpoints[static_cast<std::size_t>(endpoint)].outcome;
    if (of.kind == endpoint_kind::event && !watched_by[k].empty()) {
      result.events.push_back(event_panel_of(model, endpoint, watched_by[k], simulated,
                                             result.replicates, plan.interval));
      result.events.back().stratum = groups.name(k % groups.count());
    }
    if (of.kind != endpoint_kind::normal && !has_row_values(of)) continue;
    vpc_panel panel;
    panel.endpoint = endpoint;
    panel.stratum = groups.name(k % groups.count());
    panel.left_out = left_out[k];
    if (!points[k].empty()) fill(points[k], simulated, result.replicates, plan, panel);
    result.panels.push_back(std::move(panel));
  }
  return result;
}

}  // namespace varda
