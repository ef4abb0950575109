// SPDX-License-Identifier: Apache-2.0
#include "varda/model/plausibility.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "varda/data/oddities.h"
#include "varda/model/density.h"
#include "varda/support/text.h"

namespace varda {

namespace {

// A unit that was mistaken is a factor of a thousand as a rule; these are powers of ten.
constexpr double another_scale = 2.0;
constexpr double spike = 1.0;  // over the next largest value of the subject
// So many subjects, or values, are needed to say what is usual.
constexpr std::size_t usual_subjects = 5;
constexpr std::size_t usual_values = 3;

// An observation that is not censored, with its prediction.
struct seen {
  const observation* at;
  double prediction;
  bool on_scale() const { return at->value > 0.0 && prediction > 0.0; }
  double ratio() const { return std::log10(at->value / prediction); }
};

double median_of(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The share of the values below `share`, by rank.
double percentile_of(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

std::string factor(double log10_of_it) {
  const double whole = std::floor(std::fabs(log10_of_it));
  const double unit = std::pow(10.0, whole - 1.0);
  return fmt::format("{:.0f}", std::round(std::pow(10.0, std::fabs(log10_of_it)) / unit) * unit);
}

class inspection {
 public:
  explicit inspection(const population_model& model) : model_(model), data_(model.data()) {}

  findings run() {
    predict();
    const auto endpoints = static_cast<int>(model_.specification().endpoints.size());
    for (int k = 0; k < endpoints; ++k)
      if (model_.specification().endpoints[static_cast<std::size_t>(k)].is_normal()) inspect(k);
    find_repeated();
    find_constant_covariates();
    return odd_.warnings();
  }

 private:
  void predict() {
    const Eigen::VectorXd theta = model_.start_theta();
    const density joint(model_);
    density_workspace scratch(model_);
    Eigen::VectorXd mu(model_.random_effects());
    Eigen::MatrixXd f;
    for (int i = 0; i < model_.subjects(); ++i) {
      const subject& who = data_.subjects[static_cast<std::size_t>(i)];
      std::vector<seen>& rows = seen_.emplace_back();
      if (who.observations.empty()) continue;
      model_.means(i, theta.data(), mu.data());
      joint.predict(i, theta.data(), mu, f, scratch);
      for (std::size_t k = 0; k < who.observations.size(); ++k)
        if (who.observations[k].censored == censoring::none)
          rows.push_back({&who.observations[k], f(0, static_cast<Eigen::Index>(k))});
    }
  }

  finding place(std::size_t i, int row) const {
    return {.file = data_.file, .row = row, .column = column(), .subject = data_.subjects[i].id};
  }
  std::string column() const {
    const auto& renamed = model_.specification().data.columns;
    return renamed.contains("DV") ? renamed.at("DV") : "DV";
  }
  std::string of_endpoint(int k) const {
    const std::string& name = model_.specification().endpoints[static_cast<std::size_t>(k)].name;
    return name.empty() ? "" : " of " + name;
  }

  void inspect(int endpoint) {
    std::vector<double> ratios, medians, largest;
    struct summary {
      std::size_t subject;
      double ratio;    // median of the subject's values over their predictions
      double largest;  // of the subject's values
    };
    std::vector<summary> subjects;
    for (std::size_t i = 0; i < seen_.size(); ++i) {
      std::vector<double> own;
      double most = 0.0;
      for (const seen& s : seen_[i]) {
        if (s.at->endpoint != endpoint || !s.on_scale()) continue;
        own.push_back(s.ratio());
        most = std::max(most, s.at->value);
      }
      if (own.empty()) continue;
      ratios.insert(ratios.end(), own.begin(), own.end());
      subjects.push_back({i, median_of(own), std::log10(most)});
      medians.push_back(subjects.back().ratio);
      largest.push_back(subjects.back().largest);
    }
    const bool logarithms = find_logarithms(endpoint);
    if (ratios.size() < usual_values || logarithms) return;
    const double usual_ratio = median_of(medians);
    const double all = median_of(ratios);
    if (std::fabs(all) >= another_scale)
      odd_.say("W-DATA-SCALE",
               fmt::format("the observations{} are {} times {} than the predictions at the start "
                           "values",
                           of_endpoint(endpoint), factor(all), all > 0.0 ? "larger" : "smaller"),
               "check the units of DV, AMT and the start values",
               {.file = data_.file, .column = column()});
    if (subjects.size() >= usual_subjects) {
      const double usual_largest = median_of(largest);
      for (const summary& s : subjects) {
        const double by_ratio = s.ratio - usual_ratio;
        const double by_value = s.largest - usual_largest;
        if (std::min(std::fabs(by_ratio), std::fabs(by_value)) < another_scale ||
            (by_ratio > 0.0) != (by_value > 0.0))
          continue;
        odd_.say(
            "W-DATA-SCALE",
            fmt::format("the observations{} of this subject are some {} times {} than those of "
                        "the others",
                        of_endpoint(endpoint), factor(by_value),
                        by_value > 0.0 ? "larger" : "smaller"),
            "check the unit of its values",
            place(s.subject, data_.subjects[s.subject].observations.front().row));
      }
    }
    for (const summary& s : subjects) find_spike(endpoint, s.subject, s.ratio);
  }

  // One value of a subject that leaves all others, and its prediction, behind.
  void find_spike(int endpoint, std::size_t i, double usual) {
    const seen* top = nullptr;
    double next = 0.0;
    std::size_t count = 0;
    for (const seen& s : seen_[i]) {
      if (s.at->endpoint != endpoint || !s.on_scale()) continue;
      ++count;
      if (top == nullptr || s.at->value > top->at->value) {
        next = top == nullptr ? 0.0 : top->at->value;
        top = &s;
      } else {
        next = std::max(next, s.at->value);
      }
    }
    if (count < usual_values || std::log10(top->at->value / next) < spike ||
        top->ratio() - usual < another_scale)
      return;
    odd_.say(
        "W-DATA-OUTLIER",
        fmt::format("the value {} is {} times its prediction at the start values, and the next "
                    "largest of the subject is {}",
                    top->at->value, factor(top->ratio()), next),
        "check the decimal point and the unit", place(i, top->at->row));
  }

  // Logarithms of what the model predicts, where the error is proportional to the value.
  bool find_logarithms(int endpoint) {
    const error_kind error =
        model_.specification().endpoints[static_cast<std::size_t>(endpoint)].residual.kind;
    if (error == error_kind::additive || error == error_kind::box_cox) return false;
    std::vector<double> as_they_are, as_logarithms, predictions;
    int negative = 0;
    std::optional<finding> first;
    for (std::size_t i = 0; i < seen_.size(); ++i)
      for (const seen& s : seen_[i]) {
        if (s.at->endpoint != endpoint || !(s.prediction > 0.0)) continue;
        const double expected = std::log(s.prediction);
        predictions.push_back(expected);
        as_logarithms.push_back(std::fabs(s.at->value - expected));
        as_they_are.push_back(s.at->value > 0.0 ? std::fabs(std::log(s.at->value) - expected)
                                                : std::fabs(s.at->value - expected) + 1.0);
        if (s.at->value < 0.0 && ++negative == 1) first = place(i, s.at->row);
      }
    constexpr std::size_t enough = 10;
    if (predictions.size() < enough) return false;
    // Within a factor of 2.2 for four values of five, over predictions that span one of 4.5, and a
    // good deal closer than the values themselves.
    const bool logarithms =
        percentile_of(as_logarithms, 0.8) < 0.8 &&
        percentile_of(predictions, 0.9) - percentile_of(predictions, 0.1) > 1.5 &&
        median_of(as_they_are) > 0.8 && median_of(as_logarithms) < 0.5 * median_of(as_they_are);
    if (logarithms)
      odd_.say("W-DATA-LOGARITHM",
               fmt::format("the observations{} look like logarithms of the predictions, and their "
                           "error is proportional to the value",
                           of_endpoint(endpoint)),
               "give DV itself (in [data.define], DVX = \"exp(DV)\" with columns = { DV = \"DVX\" "
               "}), or "
               "predict the logarithm under an additive error",
               {.file = data_.file, .column = column()});
    else if (first && error == error_kind::proportional)
      odd_.say("W-DATA-LOGARITHM",
               fmt::format("{}{} {} negative, and the error is proportional to the value",
                           count_of(negative, "observation"), of_endpoint(endpoint),
                           negative == 1 ? "is" : "are"),
               "if they are logarithms, take an additive error and predict the logarithm", *first);
    return logarithms;
  }

  void find_repeated() {
    for (std::size_t i = 0; i < data_.subjects.size(); ++i) {
      const std::vector<observation>& all = data_.subjects[i].observations;
      for (std::size_t k = 0; k < all.size(); ++k) {
        if (all[k].value == 0.0 || all[k].censored != censoring::none ||
            !model_.observed().is_normal(all[k]))
          continue;
        for (std::size_t j = k; j-- > 0 && all[j].time == all[k].time;) {
          if (all[j].value != all[k].value || all[j].endpoint != all[k].endpoint ||
              all[j].censored != censoring::none)
            continue;
          odd_.count(
              "W-DATA-REPEATED",
              {"observation repeats an earlier one of its subject, with the same time and value",
               "observations repeat an earlier one of their subject, with the same time and "
               "value"},
              "leave one of the two out unless both were measured", place(i, all[k].row));
          break;
        }
      }
    }
  }

  void find_constant_covariates() {
    if (data_.subjects.size() < 2) return;
    for (std::size_t k = 0; k < data_.covariate_names.size(); ++k) {
      const double value = data_.subjects.front().segments.front().covariates[k];
      const bool constant =
          std::all_of(data_.subjects.begin(), data_.subjects.end(), [&](const subject& who) {
            return std::all_of(who.segments.begin(), who.segments.end(),
                               [&](const segment& s) { return s.covariates[k] == value; });
          });
      if (constant)
        odd_.say("W-DATA-CONSTANT",
                 fmt::format("the covariate is {} in all records", data_.covariate_text(value)),
                 "its effect cannot be estimated",
                 {.file = data_.file, .column = data_.covariate_names[k]});
    }
  }

  const population_model& model_;
  const dataset& data_;
  oddities odd_;
  std::vector<std::vector<seen>> seen_;  // by subject
};

}  // namespace

findings implausible(const population_model& model) {
  return inspection(model).run();
}

}  // namespace varda
