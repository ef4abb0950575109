// SPDX-License-Identifier: Apache-2.0
#include "varda/run/memory_needs.h"

#include <fmt/format.h>

#include <algorithm>
#include <new>
#include <stdexcept>

#include "varda/method/newton/coordinates.h"
#include "varda/method/newton/limits.h"
#include "varda/method/newton/newton.h"
#include "varda/run/fit_result.h"
#include "varda/support/memory.h"

namespace varda {

namespace {

// Program and libraries, and what a run takes whatever its size.
constexpr std::size_t bytes_of_program = 12UL << 20;

constexpr std::size_t reals(std::size_t count) {
  return heap_bytes(sizeof(double) * count);
}

template <class T>
std::size_t array(const std::vector<T>& of) {
  return heap_bytes(sizeof(T) * of.capacity());
}

bool evaluations_are_dear(const population_model& model) {
  return model.specification().structure.name == equation_structure;
}

// The sizes that everything follows from.
struct sizes {
  explicit sizes(const population_model& model)
      : subjects(static_cast<std::size_t>(model.subjects())),
        effects(static_cast<std::size_t>(model.random_effects())),
        coordinates(static_cast<std::size_t>(varda::coordinates(model).size())),
        factor(static_cast<std::size_t>(points_factor(model.random_effects()))) {
    for (int i = 0; i < model.subjects(); ++i) {
      const auto own = static_cast<std::size_t>(model.observations(i));
      observations += own;
      most_observations = std::max(most_observations, own);
    }
  }
  std::size_t moments() const { return reals(effects) + reals(effects * effects); }

  std::size_t subjects, effects, coordinates, factor;
  std::size_t observations = 0;
  std::size_t most_observations = 0;
};

// Proposals of all subjects, of one normal density each.
std::size_t proposals_of(const sizes& n) {
  return n.subjects *
         (sizeof(draw_mixture) + heap_bytes(sizeof(std::vector<draw_component>) + 2 * sizeof(int)) +
          heap_bytes(sizeof(draw_component)) + n.moments());
}

// What a measurement keeps of the subjects.
std::size_t measurement(const sizes& n) {
  const std::size_t figures =
      static_cast<std::size_t>(newton_limits::groups_of_a_draw) + n.effects + n.effects * n.effects;
  return n.subjects * (sizeof(subject_measure) + sizeof(double) * figures);
}

// A subject's samples and what is computed of them, by every thread.
std::size_t working_samples(const sizes& n, std::size_t samples, int threads) {
  return static_cast<std::size_t>(threads) * sizeof(double) * samples *
         (6 * n.effects + 3 * n.coordinates + 3 * n.most_observations + 8);
}

std::size_t kept_draws(const population_model& model, const sizes& n, int processes,
                       std::size_t samples) {
  const std::size_t all = sizeof(double) * samples *
                          (n.subjects * (n.effects + 1) + n.observations) /
                          static_cast<std::size_t>(processes);
  const std::size_t most = evaluations_are_dear(model) ? newton_limits::memory_of_dear_draws
                                                       : newton_limits::memory_of_cheap_draws;
  return std::min(all, newton_limits::memory_for_samples(most, n.subjects));
}

// What the processes exchange at one time of a measurement.
std::size_t exchanged(const sizes& n) {
  const std::size_t figures = 8 + n.coordinates + 2 * n.coordinates * n.coordinates;
  return sizeof(double) * std::min(n.subjects * figures, std::size_t{1} << 20U);
}

}  // namespace

std::size_t bytes_of_data(const dataset& data) {
  std::size_t sum = array(data.subjects);
  for (const subject& who : data.subjects) {
    sum += array(who.doses) + array(who.observations) + array(who.segments) + array(who.timeline);
    for (const segment& s : who.segments) sum += array(s.covariates);
  }
  return sum;
}

std::size_t bytes_of_fit(const population_model& model, int processes, int threads, int samples) {
  const sizes n(model);
  const auto points = static_cast<std::size_t>(samples);
  const std::size_t data = bytes_of_data(model.data()) * (model.all_normal() ? 1 : 2) +
                           n.subjects * (sizeof(double) * model.columns().size() + sizeof(int));
  // Proposals before the step, after it, and with what defends them; of the measurements the one at
  // the draw, the last step's and the one in work.
  return bytes_of_program + data + 3 * proposals_of(n) + 3 * measurement(n) + exchanged(n) +
         kept_draws(model, n, processes, points) + working_samples(n, points, threads);
}

std::size_t bytes_of_likelihood(const population_model& model, int processes, int threads,
                                int samples) {
  const sizes n(model);
  const auto replicates = static_cast<std::size_t>(model.specification().estimation.replicates);
  const std::size_t all = replicates * static_cast<std::size_t>(samples);
  const std::size_t kept = evaluations_are_dear(model) ? kept_draws(model, n, processes, all) : 0;
  const std::size_t found = n.subjects * (sizeof(subject_integral) + sizeof(subject_health) +
                                          n.moments() + sizeof(double) * replicates);
  return 2 * proposals_of(n) + measurement(n) + exchanged(n) + kept +
         working_samples(n, all, threads) + found;
}

std::size_t bytes_of_quadrature(const population_model& model) {
  // Modes with their curvatures.
  const sizes n(model);
  return n.subjects * (sizeof(double) * 4 + 3 * n.moments());
}

std::size_t bytes_of_predictions(const population_model& model) {
  const auto effects = static_cast<std::size_t>(model.random_effects());
  const auto parameters = static_cast<std::size_t>(model.structural_parameters());
  std::size_t sum = 0;
  for (int i = 0; i < model.subjects(); ++i) {
    const auto own = static_cast<std::size_t>(model.observations(i));
    sum += sizeof(subject_predictions) + reals(effects) + 4 * reals(own) + reals(parameters * own);
  }
  return sum;
}

std::size_t bytes_of_npde(const population_model& model, int threads) {
  const sizes n(model);
  const auto simulations = static_cast<std::size_t>(model.specification().estimation.npde_samples);
  if (simulations == 0) return 0;
  // Values and their means; of one block of individuals parameters, predictions, residuals and
  // variances.
  const std::size_t block = std::min(simulations, std::size_t{256});
  const std::size_t working =
      sizeof(double) *
      (2 * simulations * n.most_observations +
       block * (2 * n.effects + static_cast<std::size_t>(model.structural_parameters()) +
                3 * n.most_observations));
  return static_cast<std::size_t>(threads) * working +
         n.subjects * (sizeof(Eigen::VectorXd) + 2 * sizeof(std::ptrdiff_t) + 24) +
         2 * sizeof(double) * n.observations;
}

memory_forecast forecast_memory(const population_model& model, int processes, int threads) {
  const int factor = points_factor(model.random_effects());
  return {bytes_of_fit(model, processes, threads,
                       verdict_points(model.random_effects(), model.subjects())),
          bytes_of_fit(model, processes, threads, factor * newton_limits::most_samples_of_a_draw),
          bytes_of_predictions(model) + bytes_of_npde(model, threads)};
}

bool within_memory(const job& peers, const std::string& part, std::size_t wanted,
                   findings& warnings, const std::function<void()>& work) {
  const auto leave_out = [&](const std::string& why) {
    warnings.push_back({.level = severity::warning,
                        .code = "W-RUN-MEMORY",
                        .message = fmt::format("{} left out: about {} of memory are wanted, {}",
                                               part, bytes_in_words(wanted), why),
                        .remedy = "give the run more memory, or more processes"});
    return false;
  };
  if (peers.any(wanted > available_memory())) return leave_out("more than are available");
  try {
    work();
    return true;
  } catch (const std::bad_alloc&) {
    if (peers.size() > 1) throw;
  } catch (const std::length_error&) {
    if (peers.size() > 1) throw;
  }
  return leave_out("and the system refused them");
}

}  // namespace varda
