// SPDX-License-Identifier: Apache-2.0
#include "varda/model/lanes/section.h"

#include <array>
#include <map>
#include <set>
#include <utility>

namespace varda {

namespace {

using value = lane_graph::value;

class writer {
 public:
  writer(const lane_graph& graph, const std::vector<value>& results,
         const std::function<bool(value)>& is_known)
      : graph_(graph), results_(results), is_known_(is_known) {}

  lane_section write() {
    for (const value r : results_) count_uses(r);
    std::map<value, std::size_t> first_place;
    for (std::size_t k = 0; k < results_.size(); ++k) first_place.try_emplace(results_[k], k);
    results_of_ = first_place;
    for (const value r : results_) order(r);
    number_registers();
    return std::move(section_);
  }

 private:
  struct step {
    value result = 0;
    lane_code code = lane_code::copy;
    std::array<value, 3> operands{};
    std::size_t count = 1;
  };

  bool is_leaf(value v) const {
    return graph_.at(v).kind != lane_graph::node_kind::operation || is_known_(v);
  }

  void count_uses(value v) {
    if (uses_[v]++ > 0 || is_leaf(v)) return;
    const lane_graph::node& n = graph_.at(v);
    for (std::size_t k = 0; k < lane_graph::operands_of(n.code); ++k) count_uses(n.operands[k]);
  }

  // A product that is needed in one place only and can be computed there.
  bool joins(value v) const {
    return !is_leaf(v) && graph_.at(v).code == lane_code::multiply && uses_.at(v) == 1 &&
           !results_of_.contains(v);
  }

  step step_for(value v) const {
    const lane_graph::node& n = graph_.at(v);
    const value a = n.operands[0];
    const value b = n.operands[1];
    const auto joined = [&](lane_code code, value factors, value rest) {
      const auto& f = graph_.at(factors).operands;
      return step{v, code, {f[0], f[1], rest}, 3};
    };
    if (n.code == lane_code::add && joins(a)) return joined(lane_code::multiply_add, a, b);
    if (n.code == lane_code::add && joins(b)) return joined(lane_code::multiply_add, b, a);
    if (n.code == lane_code::subtract && joins(a))
      return joined(lane_code::multiply_subtract, a, b);
    if (n.code == lane_code::subtract && joins(b))
      return joined(lane_code::subtract_multiply, b, a);
    return {v, n.code, n.operands, lane_graph::operands_of(n.code)};
  }

  void order(value v) {
    if (!seen_.insert(v).second) return;
    if (is_leaf(v)) {
      section_.leaves.push_back(v);
      return;
    }
    const step s = step_for(v);
    for (std::size_t k = 0; k < s.count; ++k) order(s.operands[k]);
    steps_.push_back(s);
  }

  // Temporaries are used again after their last reading, so that few of them stay in the cache.
  void number_registers() {
    std::map<value, std::size_t> last_use;
    for (std::size_t i = 0; i < steps_.size(); ++i)
      for (std::size_t k = 0; k < steps_[i].count; ++k) last_use[steps_[i].operands[k]] = i;

    std::map<value, std::uint32_t> place;
    for (const value leaf : section_.leaves) place[leaf] = static_cast<std::uint32_t>(place.size());
    const auto first_result = static_cast<std::uint32_t>(section_.leaves.size());
    section_.results = results_.size();
    for (const auto& [v, k] : results_of_)
      if (!is_leaf(v)) place[v] = first_result + static_cast<std::uint32_t>(k);

    const std::uint32_t first_temporary =
        first_result + static_cast<std::uint32_t>(results_.size());
    std::uint32_t temporaries = 0;
    std::vector<std::uint32_t> free;
    for (std::size_t i = 0; i < steps_.size(); ++i) {
      const step& s = steps_[i];
      lane_operation o{.code = s.code};
      std::uint32_t* const operands[] = {&o.a, &o.b, &o.c};
      for (std::size_t k = 0; k < 3; ++k) *operands[k] = place.at(s.operands[k < s.count ? k : 0]);
      std::set<value> done;
      for (std::size_t k = 0; k < s.count; ++k) {
        const value v = s.operands[k];
        if (last_use.at(v) == i && place.at(v) >= first_temporary && done.insert(v).second)
          free.push_back(place.at(v));
      }
      if (!place.contains(s.result)) {
        if (free.empty()) free.push_back(first_temporary + temporaries++);
        place[s.result] = free.back();
        free.pop_back();
      }
      o.out = place.at(s.result);
      section_.operations.push_back(o);
    }
    section_.temporaries = temporaries;
    // Results that stand ready, and those that are asked for twice.
    for (std::size_t k = 0; k < results_.size(); ++k) {
      const std::uint32_t from = place.at(results_[k]);
      const auto to = first_result + static_cast<std::uint32_t>(k);
      if (from != to)
        section_.operations.push_back(
            {.code = lane_code::copy, .out = to, .a = from, .b = from, .c = from});
    }
  }

  const lane_graph& graph_;
  const std::vector<value>& results_;
  const std::function<bool(value)>& is_known_;
  lane_section section_;
  std::map<value, int> uses_;
  std::map<value, std::size_t> results_of_;
  std::set<value> seen_;
  std::vector<step> steps_;
};

}  // namespace

lane_section write_section(const lane_graph& graph, const std::vector<value>& results,
                           const std::function<bool(value)>& is_known) {
  return writer(graph, results, is_known).write();
}

}  // namespace varda
