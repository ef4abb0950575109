// SPDX-License-Identifier: Apache-2.0
#include "statsubs/quadrature/agqintjoint.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "statsubs/quadrature/agqgrid.h"
#include "statsubs/quadrature/getghnodes.h"
#include "statsubs/quadrature/grid_moments.h"
#include "statsubs/state/entry_check.h"
#include "statsubs/state/evaluation_block.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/support/array.h"
#include "statsubs/support/parallel.h"
#include "statsubs/support/restored.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace se = statsubs::saveearlyvars;

namespace {

constexpr double failed_objective = 1e50;
constexpr int block_size = 4096;
constexpr int stopped = 3;  // of the argument info, beside agqinit's

// A function of its own in profiles: bench/entry_checks.py.
[[gnu::noinline]] void check_entry(int isub) {
  const entry_check check("agqintjoint");
  const int n = gv::leneta;
  check.subject(isub);
  check.share();
  check.holds("theta", gv::theta, gv::ntheta);
  check.holds("xmusub", gv::xmusub, n);
  check.holds("omegacholsub", gv::omegacholsub, n, n);
  check.holds("xmusubnew", gv::xmusubnew, n);
  check.holds("omegasubnew", gv::omegasubnew, n, n);
}

struct grid {
  grid(int nodes_per_dimension, int n, int& info)
      : count(nodes_per_dimension),
        nodes("nodes of the grid", most_ghnodes),
        log_weights("their weights", most_ghnodes) {
    agqinit(count, n, nodes.data(), log_weights.data(), points, info);
  }
  int count;
  vector<double> nodes, log_weights;
  int points = 0;
};

// Points of a grid that follow one another.
struct block {
  explicit block(int n, int size)
      : z("standardised points of a block", n, size), terms("their terms", size) {}
  matrix<double> z;
  vector<double> terms;
};

double usable_log_likelihood(double f) {
  return host::isgoodr8(f) == 1 ? -f : -failed_objective;
}

double log_likelihood_at(const double* eta) {
  double f = not_evaluated;
  host::seteta(eta);
  host::fcneta(gv::leneta, eta, f);
  return usable_log_likelihood(f);
}

// Adds the log-likelihoods at the points of a call to their terms. Returns the host's answer to the
// question for a stop, after one that is not zero without having added anything.
int evaluate_together(evaluation_block& points, vector_view<double> terms) {
  if (points.size() == 0) return 0;
  points.evaluate();
  const int answer = host::stoprequested();
  if (answer != 0) return answer;
  for (int i = 1; i <= points.size(); ++i)
    terms(points.number(i)) += usable_log_likelihood(points.objective(i));
  points.clear();
  return 0;
}

// All points of a block from point `first` on, and the terms of those that belong to this process;
// the others' are zero. Returns the host's last answer to the question for a stop, after which the
// block is not complete.
int evaluate_own_points(const grid& g, int first, matrix_view<double> z,
                        vector_view<double> terms) {
  const int n = z.rows();
  const host_table& engine = installed_host();
  const bool together = engine.fcnxetas != nullptr;
  evaluation_block waiting(engine, n);
  vector<double> eta("a point of the grid", n);
  for (int j = 1; j <= terms.size(); ++j) {
    const int k = first + (j - 1);
    double log_weight = 0.0;
    getagqpoint(k, g.count, n, g.nodes.data(), g.log_weights.data(), gv::xmusub.data(),
                gv::omegacholsub.data(), gv::omegacholsub.leading(), z.column(j).data(), eta.data(),
                log_weight);
    terms(j) = 0.0;
    if (k % gv::numprocs != gv::myid) continue;
    terms(j) = log_weight;
    int answer = 0;
    if (together) {
      waiting.add(j, eta.data());
      if (waiting.full()) answer = evaluate_together(waiting, terms);
    } else {
      terms(j) += log_likelihood_at(eta.data());
      answer = host::stoprequested();
    }
    if (answer != 0) return answer;
  }
  return evaluate_together(waiting, terms);
}

// False when the run is stopped.
bool integrate(const grid& g, grid_moments& moments) {
  const int n = gv::leneta;
  block work(n, std::min(block_size, g.points));
  for (std::int64_t first = 1; first <= g.points; first += block_size) {
    const int start = static_cast<int>(first);
    const int size = std::min(block_size, g.points - start + 1);
    const matrix_view<double> z(work.z.data(), n, size);
    const vector_view<double> terms(work.terms.data(), size);
    int answer = evaluate_own_points(g, start, z, terms);
    host::checkforstop(answer);
    if (se::globalstop != 0) return false;
    support::allreduce_sum(terms, gv::numprocs);
    moments.add(z, terms);
  }
  return true;
}

double log_determinant(matrix_view<const double> factor) {
  double sum = 0.0;
  for (int i = 1; i <= factor.rows(); ++i) sum += std::log(std::abs(factor(i, i)));
  return sum;
}

// factor factor', both triangles.
void square(matrix_view<const double> factor, matrix_view<double> to) {
  for (int j = 1; j <= factor.rows(); ++j)
    for (int i = j; i <= factor.rows(); ++i) {
      double sum = 0.0;
      for (int c = 1; c <= j; ++c) sum += factor(i, c) * factor(j, c);
      to(i, j) = to(j, i) = sum;
    }
}

}  // namespace

void agqintjoint(const int& isub, const int& nnodes, double& loglik, int& info) {
  const sole_entry alone("agqintjoint");
  const grid g(nnodes, gv::leneta, info);
  if (info != 0) return;
  check_entry(isub);
  const int n = gv::leneta;
  host::setisub(isub);
  const support::restored keeper(gv::theta);
  gv::izub = isub;
  host::setmainstdev(gv::sigmalchol);

  grid_moments moments(n);
  info = stopped;
  if (!integrate(g, moments)) return;
  const matrix_view<const double> factor = gv::omegacholsub.corner(n, n);
  const matrix_view<double> covariance = gv::omegasubnew.corner(n, n);
  loglik = log_determinant(factor) + moments.log_sum();
  moments.conditional(gv::xmusub, factor, gv::xmusubnew, covariance);
  if (g.points == 1) square(factor, covariance);
  info = 0;
}

}  // namespace statsubs
