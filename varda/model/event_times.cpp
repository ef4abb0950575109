// SPDX-License-Identifier: Apache-2.0
#include "varda/model/event_times.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace varda {

namespace {

class preparation {
 public:
  preparation(const model_specification& file, const dataset& data, subject& who)
      : file_(file), data_(data), who_(who) {}

  void run() {
    std::erase_if(who_.timeline, [](const event& e) { return e.kind == event_kind::instant; });
    who_.instants = 0;
    const double begin = who_.timeline.empty() ? 0.0 : std::min(0.0, who_.timeline.front().time);
    bool integrated = false;
    for (std::size_t k = 0; k < file_.endpoints.size(); ++k) {
      const outcome_text& of = file_.endpoints[k].outcome;
      if (of.kind != endpoint_kind::event) continue;
      const bool solved = of.formula("hazard") != nullptr;
      const bool rows = prepare(static_cast<int>(k), of, begin, solved);
      if (rows && !solved) refuse_changes(of);
      integrated = integrated || (rows && solved);
    }
    if (!integrated) return;
    refuse_jumps();
    // The solution begins with the timeline.
    if (who_.timeline.front().time > begin) (void)add_instant(begin);
  }

 private:
  bad_input error(const observation& at, std::string code, std::string message,
                  std::string remedy) const {
    return bad_input({.code = std::move(code),
                      .message = std::move(message),
                      .remedy = std::move(remedy),
                      .file = data_.file,
                      .row = at.row,
                      .subject = who_.id});
  }

  // Whether there are rows.
  bool prepare(int endpoint, const outcome_text& of, double begin, bool solved) {
    int before = -1;
    double since = begin;
    bool over = false;
    bool any = false;
    for (std::size_t j = 0; j < who_.observations.size(); ++j) {
      observation& at = who_.observations[j];
      if (at.endpoint != endpoint) continue;
      if (over)
        throw error(at, "E-DATA-EVENTS", fmt::format("a row of {} stands after its event", of.name),
                    "leave it out, or write repeated = true where events may come again");
      at.begin = since;
      at.at_begin = solved ? before : -1;
      at.at_limit = -1;
      if (at.censored == censoring::interval) {
        if (at.limit < since)
          throw error(at, "E-DATA-CENSORING",
                      fmt::format("the limit {} lies before the row that the risk begins with, at "
                                  "time {}",
                                  at.limit, since),
                      "LIMIT is the time at which the event had not happened yet");
        if (solved) at.at_limit = add_instant(at.limit);
      }
      const bool happened = at.censored != censoring::right && !std::isnan(at.value);
      over = happened && !of.repeated;
      any = true;
      // What is not known ends nothing.
      if (std::isnan(at.value)) continue;
      since = at.time;
      before = static_cast<int>(j);
    }
    return any;
  }

  // The place of its states.
  int add_instant(double time) {
    const auto after = std::find_if(who_.timeline.begin(), who_.timeline.end(),
                                    [&](const event& e) { return e.time > time; });
    who_.timeline.insert(after, {event_kind::instant, who_.instants, time});
    return static_cast<int>(who_.observations.size()) + who_.instants++;
  }

  // A formula at the two ends of a stretch cannot know what was in force between them.
  void refuse_changes(const outcome_text& of) const {
    if (who_.segments.size() == 1) return;
    throw bad_input(
        {.code = "E-DATA-EVENTS",
         .message = fmt::format("the cumulative hazard of {} is given in closed form, and "
                                "a covariate or the occasion of the subject changes",
                                of.name),
         .remedy = "give the hazard instead, which is integrated",
         .file = data_.file,
         .row = who_.first_row,
         .subject = who_.id});
  }

  // They change all states at once, the cumulative hazard among them.
  void refuse_jumps() const {
    const bool resets = std::any_of(who_.timeline.begin(), who_.timeline.end(),
                                    [](const event& e) { return e.kind == event_kind::reset; });
    const bool steady = std::any_of(who_.doses.begin(), who_.doses.end(),
                                    [](const dose& d) { return d.steady_state; });
    if (!resets && !steady) return;
    throw bad_input({.code = "E-DATA-EVENTS",
                     .message = "a hazard that is integrated takes no resets and no doses at "
                                "steady state",
                     .remedy = "write the doses one by one, or give cumulative_hazard as a formula",
                     .file = data_.file,
                     .row = who_.first_row,
                     .subject = who_.id});
  }

  const model_specification& file_;
  const dataset& data_;
  subject& who_;
};

}  // namespace

void prepare_events(const model_specification& file, dataset& data) {
  const bool any =
      std::any_of(file.endpoints.begin(), file.endpoints.end(),
                  [](const endpoint& of) { return of.outcome.kind == endpoint_kind::event; });
  if (!any) return;
  for (subject& who : data.subjects) preparation(file, data, who).run();
}

}  // namespace varda
