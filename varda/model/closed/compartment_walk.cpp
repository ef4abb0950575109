// SPDX-License-Identifier: Apache-2.0
#include "varda/model/closed/compartment_walk.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "varda/model/closed/compartment_system.h"

namespace varda {

namespace {

// A steady state in which more doses than this overlap is a parameter gone astray: each of them is
// followed on its own.
constexpr double most_unfinished = 1e5;

bool positive(double x) {
  return x > 0.0 && std::isfinite(x);
}

template <int N>
bool admissible(const kinetics<N>& model) {
  const mammillary<N>& rates = model.rates;
  const administration& given = *model.given;
  return positive(rates.volume) && positive(rates.elimination) &&
         std::all_of(rates.to.begin(), rates.to.end(), positive) &&
         std::all_of(rates.from.begin(), rates.from.end(), positive) &&
         positive(given.absorption_rate) && positive(given.duration) && positive(given.rate) &&
         given.lag_time >= 0.0 && std::isfinite(given.lag_time) && given.bioavailability >= 0.0 &&
         std::isfinite(given.bioavailability);
}

void fill_with_nan(std::span<double> f) {
  std::fill(f.begin(), f.end(), std::numeric_limits<double>::quiet_NaN());
}

// What is still to come of doses already given: an amount that enters, or an input that changes.
struct entry {
  double time = 0.0;
  std::size_t compartment = 0;
  double amount = 0.0;
  double rate = 0.0;  // added to the input
};

bool later(const entry& a, const entry& b) {
  return a.time > b.time;
}

// Entries in the order of their times. The memory stays with the thread from one subject to the
// next.
class agenda {
 public:
  agenda() : entries_(memory()) { clear(); }
  bool empty() const { return entries_.empty(); }
  bool due(double time) const { return !entries_.empty() && entries_.front().time <= time; }
  void clear() { entries_.clear(); }
  void add(const entry& e) {
    entries_.push_back(e);
    std::push_heap(entries_.begin(), entries_.end(), later);
  }
  entry next() {
    std::pop_heap(entries_.begin(), entries_.end(), later);
    const entry first = entries_.back();
    entries_.pop_back();
    return first;
  }

 private:
  static std::vector<entry>& memory() {
    thread_local std::vector<entry> entries;
    return entries;
  }

  std::vector<entry>& entries_;
};

// A dose as the model takes it up.
struct uptake {
  std::size_t compartment = 0;
  double lag_time = 0.0;
  double amount = 0.0;  // at once, where the duration is 0
  double rate = 0.0;    // for the duration otherwise
  double duration = 0.0;
};

template <int N>
class walk {
 public:
  walk(const subject& who, route by, const kinetics<N>& model)
      : who_(who), by_(by), given_(model.given), system_(model.rates, given_->absorption_rate) {
    if (!who.timeline.empty()) now_ = who.timeline.front().time;
  }

  void change(const kinetics<N>& model) {
    const system next(model.rates, model.given->absorption_rate);
    state_ = next.taken_over(state_, system_);
    system_ = next;
    given_ = model.given;
  }

  // Empties the compartments, ends infusions and forgets what has yet to enter.
  void reset(double time) {
    state_ = {};
    waiting_.clear();
    stop_inputs();
    now_ = time;
  }

  // Takes observations from the front of `events`, as many as can be dealt with at once, and writes
  // their predictions.
  std::size_t observe(std::span<const event> events, double* f) {
    if (events[0].time <= now_ || inputs_on_ > 0 || !waiting_.empty()) {
      go_to(events[0].time);
      f[0] = system_.concentration(state_);
      return 1;
    }
    double times[system::longest_run];
    const std::size_t most = std::min(events.size(), system::longest_run);
    std::size_t count = 0;
    for (; count < most && events[count].kind == event_kind::observation; ++count)
      times[count] = events[count].time - now_;
    if (count % 2 != 0) times[count] = 0.0;  // exponentials are taken in pairs
    system_.follow(state_, times, count, f);
    now_ = events[count - 1].time;
    return count;
  }

  void go_to(double time) {
    while (waiting_.due(time)) {
      const entry e = waiting_.next();
      advance(e.time);
      take(e);
    }
    advance(time);
  }

  void give(const dose& d) {
    const uptake u = taken_up(d);
    if (d.steady_state && d.interval == 0.0) return end_constant_input(u);
    if (d.steady_state) give_earlier(u, d.interval);
    start(u, d.time + u.lag_time);
  }

 private:
  using system = compartment_system<N>;
  using state = typename system::state;

  uptake taken_up(const dose& d) const {
    const bool oral = by_ == route::oral;
    uptake u;
    // A depot comes first in the numbers of the data and last in those of the system.
    const auto number = static_cast<std::size_t>(d.compartment - 1);
    u.compartment = !oral ? number : number == 0 ? system::depot : number - 1;
    u.amount = d.amount;
    u.rate = d.rate;
    if (!oral || u.compartment == system::depot) {
      u.lag_time = given_->lag_time;
      u.amount *= given_->bioavailability;
    }
    dose_input input = d.input;
    if (input == dose_input::bolus && by_ == route::zero_order && number == 0)
      input = dose_input::modelled_duration;
    if (input == dose_input::modelled_rate) u.rate = given_->rate;
    if (input == dose_input::modelled_duration) {
      u.duration = given_->duration;
      u.rate = u.amount / u.duration;
    } else if (input != dose_input::bolus) {
      u.duration = u.amount / u.rate;
    }
    return u;
  }

  // The dose itself, from the time at which it begins to enter.
  void start(const uptake& u, double time) {
    if (u.duration > 0.0) {
      begin_or_wait({.time = time, .compartment = u.compartment, .rate = u.rate});
      waiting_.add({.time = time + u.duration, .compartment = u.compartment, .rate = -u.rate});
    } else {
      begin_or_wait({.time = time, .compartment = u.compartment, .amount = u.amount});
    }
  }

  void begin_or_wait(const entry& e) {
    if (e.time > now_)
      waiting_.add(e);
    else
      take(e);
  }

  // All that a steady state's earlier doses, `interval` apart, have left and have yet to bring.
  void give_earlier(const uptake& u, double interval) {
    if ((u.lag_time + u.duration) / interval > most_unfinished) return fail();
    // With a lag time longer than the interval some have not begun to enter.
    const double on_their_way = std::floor(u.lag_time / interval);
    for (double k = on_their_way; k >= 1.0; --k) start(u, now_ + (u.lag_time - k * interval));
    double age = (on_their_way + 1.0) * interval - u.lag_time;

    state dose_left;
    if (u.duration > 0.0) {
      typename system::inputs input{};
      input[u.compartment] = u.rate;
      for (; age < u.duration; age += interval) {
        state begun;
        system_.advance(begun, age, input);
        state_.add(begun);
        take({.compartment = u.compartment, .rate = u.rate});
        waiting_.add(
            {.time = now_ + (u.duration - age), .compartment = u.compartment, .rate = -u.rate});
      }
      system_.advance(dose_left, u.duration, input);
      age -= u.duration;
    } else {
      system_.add_amount(dose_left, u.compartment, u.amount);
    }
    state_.add(system_.repeated(dose_left, age, interval));
  }

  // An infusion that has run for ever and ends now, or a lag time later.
  void end_constant_input(const uptake& u) {
    typename system::inputs input{};
    input[u.compartment] = u.rate;
    state_.add(system_.balanced(input));
    if (u.lag_time == 0.0) return;
    take({.compartment = u.compartment, .rate = u.rate});
    waiting_.add({.time = now_ + u.lag_time, .compartment = u.compartment, .rate = -u.rate});
  }

  void fail() { system_.add_amount(state_, 0, std::numeric_limits<double>::quiet_NaN()); }

  void take(const entry& e) {
    if (e.rate == 0.0) return system_.add_amount(state_, e.compartment, e.amount);
    inputs_on_ += e.rate > 0.0 ? 1 : -1;
    input_[e.compartment] += e.rate;
    // The rates that are left may not add up to nothing exactly.
    if (inputs_on_ == 0) stop_inputs();
  }

  void stop_inputs() {
    inputs_on_ = 0;
    input_ = {};
  }

  void advance(double time) {
    const double t = time - now_;
    if (!(t > 0.0)) return;
    if (inputs_on_ > 0)
      system_.advance(state_, t, input_);
    else
      system_.advance(state_, t);
    now_ = time;
  }

  const subject& who_;
  route by_;
  const administration* given_;
  system system_;
  state state_;
  typename system::inputs input_{};
  int inputs_on_ = 0;
  agenda waiting_;
  double now_ = 0.0;
};

}  // namespace

template <int N>
void walk_timeline(const subject& who, route by,
                   const std::function<kinetics<N>(int segment)>& in_segment, bool constant,
                   std::span<double> f) {
  kinetics<N> model = in_segment(0);
  if (!admissible(model)) return fill_with_nan(f);
  walk<N> state(who, by, model);
  const std::span<const event> events = who.timeline;
  for (std::size_t n = 0; n < events.size();) {
    const event& e = events[n];
    const auto at = static_cast<std::size_t>(e.index);
    if (e.kind == event_kind::observation) {
      n += state.observe(events.subspan(n), &f[at]);
      continue;
    }
    ++n;
    state.go_to(e.time);
    if (e.kind == event_kind::dose) state.give(who.doses[at]);
    if (e.kind == event_kind::reset) state.reset(e.time);
    if (e.kind == event_kind::segment && !constant) {
      model = in_segment(e.index);
      if (!admissible(model)) return fill_with_nan(f);
      state.change(model);
    }
  }
}

template void walk_timeline<1>(const subject&, route, const std::function<kinetics<1>(int)>&, bool,
                               std::span<double>);
template void walk_timeline<2>(const subject&, route, const std::function<kinetics<2>(int)>&, bool,
                               std::span<double>);
template void walk_timeline<3>(const subject&, route, const std::function<kinetics<3>(int)>&, bool,
                               std::span<double>);

}  // namespace varda
