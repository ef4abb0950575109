// SPDX-License-Identifier: Apache-2.0
#include "varda/report/simulation_tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "varda/data/row_rules.h"
#include "varda/report/reports.h"
#include "varda/support/text.h"

namespace varda {

namespace {

std::string cell(double value) {
  return std::isfinite(value) ? fmt::format(",{}", value) : ",";
}

std::string dvid_field(const population_model& model, const observation& of) {
  return csv_field(model.specification().data.endpoints[static_cast<std::size_t>(of.endpoint)]);
}

// Which columns of doses a data set needs.
struct dose_columns {
  explicit dose_columns(const dataset& data) {
    for (const subject& who : data.subjects) {
      for (const dose& d : who.doses) {
        any = true;
        compartment = compartment || d.compartment != 1;
        rate = rate || d.input != dose_input::bolus;
        steady_state = steady_state || d.steady_state;
      }
    }
  }
  bool any = false;
  bool compartment = false;
  bool rate = false;
  bool steady_state = false;
};

double rate_column(const dose& d) {
  switch (d.input) {
    case dose_input::bolus:
      return 0.0;
    case dose_input::infusion:
      return d.rate;
    case dose_input::modelled_rate:
      return -1.0;
    case dose_input::modelled_duration:
      return -2.0;
  }
  return 0.0;
}

// The columns that stand on every row.
class row_writer {
 public:
  explicit row_writer(const population_model& model)
      : model_(model), doses_(model.data()), limits_(model) {
    std::vector<std::string> roles = {"ID", "TIME", "EVID"};
    if (doses_.any) roles.emplace_back("AMT");
    if (doses_.compartment) roles.emplace_back("CMT");
    if (doses_.rate) roles.emplace_back("RATE");
    if (doses_.steady_state) roles.insert(roles.end(), {"SS", "II"});
    if (several_endpoints()) roles.emplace_back("DVID");
    roles.insert(roles.end(), {"DV", "CENS", "IPRED"});
    const data_source& source = model.specification().data;
    if (source.occasions) roles.emplace_back("OCC");
    header_ = "REP";
    std::vector<std::string> written;
    for (const std::string& of : roles) {
      const auto renamed = source.columns.find(of);
      written.push_back(renamed == source.columns.end() ? of : renamed->second);
      header_ += "," + csv_field(written.back());
    }
    const auto is_written = [&](const std::string& name) {
      return std::any_of(written.begin(), written.end(), [&](const std::string& column) {
        return equal_ignoring_case(column, name);
      });
    };
    // A column may have a role and be a covariate too. A covariate REP or IPRED is neither of ours:
    // the reader refuses the column that is there twice.
    const std::vector<std::string>& names = model.data().covariate_names;
    for (std::size_t k = 0; k < names.size(); ++k)
      if (names[k] == "IPRED" || !is_written(names[k])) {
        covariates_.push_back(k);
        written.push_back(names[k]);
        header_ += "," + csv_field(names[k]);
      }
    // A column that the model file names must be there.
    for (const auto& [role, name] : source.columns)
      if (!is_written(name)) {
        written.push_back(name);
        header_ += "," + csv_field(name);
        end_ += ",";
      }
    if (const std::string applied = applied_rules(source); !applied.empty()) {
      header_ += fmt::format(",{}", applied_column);
      end_ += "," + applied;
    }
    header_ += "\n";
    end_ += "\n";
  }

  const std::string& header() const { return header_; }

  std::string rows(int subject, const simulated_subject& simulated, int replicate) const {
    const varda::subject& who = model_.data().subjects[static_cast<std::size_t>(subject)];
    std::string text;
    const segment* in_force = &who.segments.front();
    const std::string begin = fmt::format("{},{},", replicate + 1, csv_field(who.id));
    std::vector<event_row> happened = events_of(simulated, replicate);
    auto next = happened.cbegin();
    const auto write_events_before = [&](double time) {
      for (; next != happened.cend() && next->time < time; ++next)
        text += fmt::format("{}{},0{}{}", begin, next->time, dose_fields(nullptr),
                            event_fields(*next)) +
                covariate_fields(*in_force) + end_;
    };
    for (const event& e : who.timeline) {
      const auto at = static_cast<std::size_t>(e.index);
      write_events_before(e.time);
      switch (e.kind) {
        case event_kind::segment:
          // Its record, a dose or an observation, follows; where none does, an event without
          // either.
          in_force = &who.segments[at];
          text += fmt::format("{}{},2{}{}", begin, e.time, dose_fields(nullptr), value_fields(0));
          break;
        case event_kind::instant:
          continue;
        case event_kind::reset:
          text += fmt::format("{}{},3{}{}", begin, e.time, dose_fields(nullptr), value_fields(0));
          break;
        case event_kind::dose:
          text += fmt::format("{}{},1{}{}", begin, e.time, dose_fields(&who.doses[at]),
                              value_fields(0));
          break;
        case event_kind::observation: {
          const observation& o = who.observations[at];
          if (is_event(o.endpoint)) continue;
          text += fmt::format(
              "{}{},0{}{}", begin, e.time, dose_fields(nullptr),
              observed_fields(o, simulated, static_cast<Eigen::Index>(e.index), replicate));
          break;
        }
      }
      text += covariate_fields(*in_force) + end_;
    }
    write_events_before(std::numeric_limits<double>::infinity());
    return text;
  }

 private:
  bool several_endpoints() const { return model_.specification().endpoints.size() > 1; }

  std::string dose_fields(const dose* d) const {
    std::string fields;
    if (doses_.any) fields += d != nullptr ? cell(d->amount) : ",";
    if (doses_.compartment) fields += d != nullptr ? fmt::format(",{}", d->compartment) : ",";
    if (doses_.rate) fields += d != nullptr ? cell(rate_column(*d)) : ",";
    if (doses_.steady_state)
      fields += d != nullptr && d->steady_state ? fmt::format(",1,{}", d->interval) : ",,";
    return fields;
  }

  bool is_event(int endpoint) const {
    return model_.specification().endpoints[static_cast<std::size_t>(endpoint)].outcome.kind ==
           endpoint_kind::event;
  }

  // In the order of their times.
  static std::vector<event_row> events_of(const simulated_subject& simulated, int replicate) {
    if (simulated.events.empty()) return {};
    std::vector<event_row> all = simulated.events[static_cast<std::size_t>(replicate)];
    std::stable_sort(all.begin(), all.end(),
                     [](const event_row& a, const event_row& b) { return a.time < b.time; });
    return all;
  }

  // A row at the time of an event, or at the end of the watch.
  std::string event_fields(const event_row& row) const {
    const observation at{.endpoint = row.endpoint};
    std::string fields;
    if (several_endpoints()) fields += "," + dvid_field(model_, at);
    return fields + fmt::format(",{},0,", row.happened ? 1 : 0);
  }

  // No observation.
  std::string value_fields(int censored) const {
    return fmt::format("{},,{},", several_endpoints() ? "," : "", censored);
  }

  std::string observed_fields(const observation& o, const simulated_subject& simulated,
                              Eigen::Index row, int replicate) const {
    const quantified_range range = limits_.range_of(o);
    const double y = simulated.values(row, replicate);
    const int censored = y < range.lower ? 1 : y > range.upper ? -1 : 0;
    std::string fields;
    if (several_endpoints()) fields += "," + dvid_field(model_, o);
    fields += cell(std::clamp(y, range.lower, range.upper)) + fmt::format(",{}", censored);
    return fields + cell(simulated.individual(row, replicate));
  }

  std::string covariate_fields(const segment& in_force) const {
    std::string fields;
    if (model_.specification().data.occasions) fields += fmt::format(",{}", in_force.occasion + 1);
    for (const std::size_t k : covariates_) {
      const double value = in_force.covariates[k];
      fields += std::isfinite(value) ? "," + csv_field(model_.data().covariate_text(value)) : ",";
    }
    return fields;
  }

  const population_model& model_;
  dose_columns doses_;
  quantification limits_;
  std::vector<std::size_t> covariates_;  // with a column of their own
  std::string header_;
  std::string end_;  // of every row, behind the covariates
};

const std::string& endpoint_name(const population_model& model, int endpoint) {
  return model.specification().endpoints[static_cast<std::size_t>(endpoint)].name;
}

std::string percentile_name(std::size_t k) {
  return fmt::format("P{:02.0f}", 100.0 * vpc_percentiles[k]);
}

}  // namespace

std::string simulation_header(const population_model& model) {
  return row_writer(model).header();
}

std::string simulation_rows(const population_model& model,
                            const std::vector<simulated_subject>& simulated, int replicate) {
  const row_writer writer(model);
  std::string rows;
  for (int i = 0; i < model.subjects(); ++i)
    rows += writer.rows(i, simulated[static_cast<std::size_t>(i)], replicate);
  return rows;
}

std::string predictions_csv(const population_model& wanted,
                            const std::vector<predicted_subject>& predicted) {
  std::string table = "ID,TIME,DVID,DV,PRED,IPRED,IPRED_P05,IPRED_P95\n";
  for (int i = 0; i < wanted.subjects(); ++i) {
    const subject& who = wanted.data().subjects[static_cast<std::size_t>(i)];
    const predicted_subject& p = predicted[static_cast<std::size_t>(i)];
    for (std::size_t k = 0; k < who.observations.size(); ++k) {
      const observation& o = who.observations[k];
      const auto j = static_cast<Eigen::Index>(k);
      table += fmt::format("{},{},{}", csv_field(who.id), o.time, dvid_field(wanted, o));
      table += cell(o.value) + cell(p.population(j)) + cell(p.individual(j)) + cell(p.lower(j)) +
               cell(p.upper(j)) + "\n";
    }
  }
  return table;
}

std::string vpc_csv(const population_model& model, const vpc_result& result) {
  std::string table =
      "ENDPOINT,STRATUM,FROM,TO,CENTRE,OBSERVATIONS,STATISTIC,OBSERVED,LOWER,MEDIAN,UPPER\n";
  for (const vpc_panel& panel : result.panels)
    for (const vpc_bin& bin : panel.bins) {
      const std::string begin =
          fmt::format("{},{},{},{},{},{}", csv_field(endpoint_name(model, panel.endpoint)),
                      csv_field(panel.stratum), bin.from, bin.to, bin.centre, bin.observations);
      const auto add = [&](const std::string& name, const vpc_statistic& s) {
        table += fmt::format("{},{}", begin, name) + cell(s.observed) + cell(s.lower) +
                 cell(s.median) + cell(s.upper) + "\n";
      };
      for (std::size_t q = 0; q < bin.percentiles.size(); ++q)
        add(percentile_name(q), bin.percentiles[q]);
      add("CENSORED", bin.censored);
    }
  for (const event_panel& panel : result.events)
    for (std::size_t k = 0; k < panel.times.size(); ++k) {
      const vpc_statistic& s = panel.values[k];
      table += fmt::format("{},{},{},{},{},{},{}", csv_field(endpoint_name(model, panel.endpoint)),
                           csv_field(panel.stratum), panel.times[k], panel.times[k], panel.times[k],
                           panel.at_risk[k], panel.repeated ? "EVENTS" : "SURVIVAL") +
               cell(s.observed) + cell(s.lower) + cell(s.median) + cell(s.upper) + "\n";
    }
  return table;
}

std::string vpc_text(const population_model& model, const vpc_result& result) {
  const auto shown = [](double value) {
    return std::isfinite(value) ? fmt::format("{:>9.4g}", value) : fmt::format("{:>9}", "-");
  };
  std::string text =
      wrapped(fmt::format("{}isual predictive check, {}: observed percentiles, and the {:g} % "
                          "interval of the simulated ones (* = observed outside the interval)",
                          result.plan.prediction_corrected ? "Prediction-corrected v" : "V",
                          count_of(result.replicates, "replicate"), 100.0 * result.plan.interval),
              2);
  text += "\n";
  for (const vpc_panel& panel : result.panels) {
    std::string title = endpoint_name(model, panel.endpoint);
    if (!panel.stratum.empty()) title += (title.empty() ? "" : ", ") + panel.stratum;
    text += "\n" + (title.empty() ? "" : title + "\n");
    text += fmt::format("{:>9} {:>5}  {:>9} {:>9} {:>9}   {:>9} {:>9}\n", "time", "n", "percent",
                        "observed", "lower", "median", "upper");
    for (const vpc_bin& bin : panel.bins) {
      const auto add = [&](const std::string& begin, const std::string& name,
                           const vpc_statistic& s) {
        const bool outside = s.observed < s.lower || s.observed > s.upper;
        std::string line =
            begin + fmt::format("  {:>9} {} {}   {} {}{}", name, shown(s.observed), shown(s.lower),
                                shown(s.median), shown(s.upper), outside ? " *" : "");
        text += line + "\n";
      };
      for (std::size_t q = 0; q < bin.percentiles.size(); ++q)
        add(q == 0 ? fmt::format("{:>9.4g} {:>5}", bin.centre, bin.observations)
                   : fmt::format("{:>15}", ""),
            percentile_name(q), bin.percentiles[q]);
      if (bin.censored.observed > 0.0 || bin.censored.upper > 0.0)
        add(fmt::format("{:>15}", ""), "censored", bin.censored);
    }
    if (panel.left_out > 0)
      text += wrapped(fmt::format("  {} left out: prediction not above 0, or outside the bins.",
                                  count_of(panel.left_out, "observation")),
                      2) +
              "\n";
  }
  for (const event_panel& panel : result.events) {
    std::string title = endpoint_name(model, panel.endpoint);
    if (!panel.stratum.empty()) title += ", " + panel.stratum;
    text += fmt::format("\n{}: {}\n", title,
                        panel.repeated ? "mean number of events" : "share without an event");
    text += fmt::format("{:>9} {:>7}  {:>9}   {:>9} {:>9} {:>9}\n", "time", "at risk", "observed",
                        "lower", "median", "upper");
    constexpr std::size_t step = 10;
    for (std::size_t k = 0; k < panel.times.size(); k += step) {
      const vpc_statistic& s = panel.values[k];
      const bool outside = s.observed < s.lower || s.observed > s.upper;
      text += fmt::format("{:>9.4g} {:>7}  {}   {} {} {}{}\n", panel.times[k], panel.at_risk[k],
                          shown(s.observed), shown(s.lower), shown(s.median), shown(s.upper),
                          outside ? " *" : "");
    }
  }
  return text;
}

}  // namespace varda
