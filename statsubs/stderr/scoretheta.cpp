// SPDX-License-Identifier: Apache-2.0
#include "statsubs/stderr/scoretheta.h"

#include <algorithm>
#include <cmath>

#include "statsubs/state/entry_check.h"
#include "statsubs/state/evaluation_block.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/stderr/free_omega.h"
#include "statsubs/support/array.h"
#include "statsubs/support/parallel.h"

namespace statsubs {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;

namespace {

constexpr double least_weight = 1e-10;
constexpr double relative_step = 0.01;
constexpr double least_step = 1e-10;
constexpr double stand_in_for_zero = 1e-15;
constexpr int mean_of_none = -99;

// What the analytic scores take of a sample.
struct sample {
  double weight;
  vector_view<const double> gradient;  // of ln N(eta; 0, omega) with respect to the mean
};

// Moves a fixed effect, and the residual deviation with it where the two are one, and puts back
// what it found at the end of its life.
class moved_theta {
 public:
  explicit moved_theta(int j)
      : j_(j), theta_(gv::theta(j)), sigmalchol_(gv::sigmalchol), sigmasq_(gv::sigmasq) {}
  ~moved_theta() {
    gv::theta(j_) = theta_;
    gv::sigmalchol = sigmalchol_;
    gv::sigmasq = sigmasq_;
  }
  moved_theta(const moved_theta&) = delete;
  moved_theta& operator=(const moved_theta&) = delete;

  void move_to(double value) {
    gv::theta(j_) = value;
    if (gv::freesigmafound == 0 || j_ != gv::ntheta) return;
    gv::sigmalchol = value;
    gv::sigmasq = value * value;
  }

 private:
  int j_;
  double theta_, sigmalchol_, sigmasq_;
};

// The central differences of the objective by a fixed effect, at every sample of a block.
void central_differences(int j, evaluation_block& block, vector_view<double> differences) {
  const double t0 = gv::theta(j);
  const double h = std::max(relative_step * std::fabs(t0), least_step);
  moved_theta theta(j);
  theta.move_to(t0 + h);
  block.evaluate();
  for (int i = 1; i <= block.size(); ++i) differences(i) = block.objective(i);
  theta.move_to((t0 + h) - 2.0 * h);
  block.evaluate();
  for (int i = 1; i <= block.size(); ++i)
    differences(i) = (differences(i) - block.objective(i)) / (2.0 * h);
}

// The column of a fixed effect in the C matrix; 0 for none.
int column_of(int j) {
  return host::findloc1ddim1_i32(qv::iseqtheta.data(), qv::iseqtheta.size(), j);
}

double mean_score(int j, const sample& at) {
  const double score = at.gradient(qv::itypetheta_etamap(j)) * at.weight;
  const int column = column_of(j);
  if (column == 0 || gv::ibaccolislog(column) != 1) return score;
  return score / (gv::theta(j) == 0.0 ? stand_in_for_zero : gv::theta(j));
}

double covariate_score(int j, const sample& at) {
  const int column = column_of(j);
  if (column == 0) return 0.0;
  double sum = 0.0;
  for (int e = 1; e <= gv::leneta; ++e) {
    const int row = gv::muetamap(e);
    if (row != 0) sum += qv::cmatrix_3d(row, column, gv::izub) * at.gradient(e);
  }
  return at.weight * sum;
}

bool is_mean(int j) {
  return qv::itypetheta_etamap(j) != mean_of_none;
}

bool is_covariate(int j) {
  return qv::itypetheta(j) == 0 && qv::cmatrix_3d.rows() == gv::leneta;
}

double usable(double score) {
  return host::isgoodr8(score) == 1 ? score : 0.0;
}

// gradient <- omegainv eta.
void mean_gradient(matrix_view<const double> omegainv, const double* eta,
                   vector_view<double> gradient) {
  for (int i = 1; i <= gradient.size(); ++i) {
    double sum = 0.0;
    for (int j = 1; j <= gradient.size(); ++j) sum += omegainv(i, j) * eta[j - 1];
    gradient(i) = sum;
  }
}

// Derivatives of ln N(eta; 0, omega) with respect to omega, from the one with respect to the mean.
class omega_scores {
 public:
  explicit omega_scores(int n)
      : element_("derivatives by the elements of omega", n, n), diagonal_("their diagonal", n, n) {}

  void update(matrix_view<const double> omegainv, vector_view<const double> gradient) {
    const int n = gradient.size();
    for (int j = 1; j <= n; ++j)
      for (int i = 1; i <= n; ++i)
        element_(i, j) = 0.5 * (gradient(i) * gradient(j) - omegainv(i, j));
    host::diag_2d(n, element_.data(), diagonal_.data());
  }
  // By element (i, j) and its mirror image together.
  double operator()(int i, int j) const { return 2.0 * element_(i, j) - diagonal_(i, j); }

 private:
  matrix<double> element_, diagonal_;
};

// A column of scores per sample; those of samples that are left out or belong to another process
// stay 0.
struct sample_scores {
  sample_scores(int nomegafree, int nsample)
      : theta("the scores of the samples for theta", gv::ntheta, nsample),
        omega("the scores of the samples for omega", nomegafree, nsample) {}
  matrix<double> theta;
  matrix<double> omega;
};

// Samples of one call of the host, with what they share.
class scored_block {
 public:
  scored_block(matrix_view<const double> samples, vector_view<const double> weights,
               sample_scores& scores)
      : block_(installed_host(), gv::leneta),
        gradients_("the derivatives by the mean", gv::leneta, block_.capacity()),
        differences_("differences of the objective", block_.capacity()),
        by_omega_(gv::leneta),
        samples_(samples),
        weights_(weights),
        scores_(scores) {}

  bool full() const { return block_.full(); }

  void add(int k) {
    block_.add(k, samples_.column(k).data());
    mean_gradient(gv::omegainv, samples_.column(k).data(), gradients_.column(block_.size()));
  }

  void score() {
    if (block_.size() == 0) return;
    block_.evaluate();  // shows the host the samples at the parameters as they are
    for (int j = 1; j <= gv::ntheta; ++j) score_theta(j);
    if (scores_.omega.rows() > 0)
      for (int i = 1; i <= block_.size(); ++i) score_omega(i);
    block_.clear();
  }

 private:
  sample at(int i) const { return {weights_(block_.number(i)), gradients_.column(i)}; }

  void score_theta(int j) {
    const bool mean = is_mean(j);
    const bool covariate = !mean && is_covariate(j);
    if (!mean && !covariate) central_differences(j, block_, differences_);
    for (int i = 1; i <= block_.size(); ++i) {
      const double score = mean        ? mean_score(j, at(i))
                           : covariate ? covariate_score(j, at(i))
                                       : differences_(i) * at(i).weight;
      scores_.theta(j, block_.number(i)) = usable(score);
    }
  }

  void score_omega(int i) {
    const vector_view<double> scores = scores_.omega.column(block_.number(i));
    by_omega_.update(gv::omegainv, at(i).gradient);
    const matrix_view<const double> mask = gv::omegamask.corner(gv::leneta, gv::leneta);
    for_each_free_omega(mask, scores.size(), [&](int c, int row, int column) {
      scores(c) = usable(by_omega_(row, column) * at(i).weight);
    });
  }

  evaluation_block block_;
  matrix<double> gradients_;
  vector<double> differences_;
  omega_scores by_omega_;
  matrix_view<const double> samples_;
  vector_view<const double> weights_;
  sample_scores& scores_;
};

void score_own_samples(matrix_view<const double> samples, vector_view<const double> weights,
                       sample_scores& scores) {
  scored_block block(samples, weights, scores);
  const int first = gv::myid == 0 ? gv::numprocs : gv::myid;
  for (int k = first; k <= weights.size(); k += gv::numprocs) {
    if (weights(k) <= least_weight) continue;
    block.add(k);
    if (block.full()) block.score();
  }
  block.score();
}

// Adds what the processes found; entries have one contributor, so the order does not matter.
void share(matrix_view<double> scores) {
  support::allreduce_sum({scores.data(), scores.rows() * scores.columns()}, gv::numprocs);
}

double row_sum(matrix_view<const double> a, int row) {
  double sum = 0.0;
  for (int k = 1; k <= a.columns(); ++k) sum += a(row, k);
  return sum;
}

void sum_over_samples(const sample_scores& scores) {
  std::fill(gv::scorevec_expanded.begin(), gv::scorevec_expanded.end(), 0.0);
  for (int j = 1; j <= gv::ntheta; ++j)
    gv::scorevec_expanded(j) = gv::scorevec(j) = row_sum(scores.theta, j);
  for (int c = 1; c <= scores.omega.rows(); ++c)
    gv::scorevec_expanded(gv::ntheta + c) = row_sum(scores.omega, c);
}

void add_outer_product(vector_view<const double> x, matrix_view<double> a) {
  for (int j = 1; j <= a.columns(); ++j)
    for (int i = 1; i <= a.rows(); ++i) a(i, j) += x(i) * x(j);
}

// What the scores of the fixed effects take from the tables of the regression. A place in iseqtheta
// is looked for here without the host, who is asked once he may be.
void check_classes(const entry_check& check, int isub) {
  const auto& places = qv::iseqtheta;
  check.holds("itypetheta_etamap", qv::itypetheta_etamap, gv::ntheta);
  for (int j = 1; j <= gv::ntheta; ++j) {
    const int column =
        static_cast<int>(std::find(places.begin(), places.end(), j) - places.begin()) + 1;
    const bool placed = column <= places.size();
    if (is_mean(j)) {
      check.within("an entry of itypetheta_etamap", qv::itypetheta_etamap(j), 1, gv::leneta);
      if (placed) check.holds("ibaccolislog", gv::ibaccolislog, column);
      continue;
    }
    check.holds("itypetheta", qv::itypetheta, gv::ntheta);
    if (!is_covariate(j) || !placed) continue;
    check.holds("cmatrix_3d", qv::cmatrix_3d, gv::leneta, column, isub);
    check.holds("muetamap", gv::muetamap, gv::leneta);
    for (const int row : gv::muetamap.first(gv::leneta))
      check.within("an entry of muetamap", row, 0, gv::leneta);
  }
}

// A function of its own in profiles: bench/entry_checks.py.
[[gnu::noinline]] void check_entry(int isub, int nsample, const double* dsample2,
                                   const double* wtcond2, const double* scoremat_qrpem,
                                   int nomegafree) {
  const entry_check check("scoretheta");
  const int n = gv::leneta;
  check.at_least("nsample", nsample, 1);
  check.at_least("leneta", n, 0);
  check.at_least("ntheta", gv::ntheta, 0);
  check.within("nomegafree", nomegafree, 0, n * (n + 1) / 2);
  check.at_least("isub", isub, 1);
  if (isub > qv::cmatrix_3d.slices()) check.subject(isub);
  check.share();
  check.given("dsample2", dsample2, n);
  check.given("wtcond2", wtcond2, nsample);
  check.given("scoremat_qrpem", scoremat_qrpem, gv::ntheta + nomegafree);
  check.holds("theta", gv::theta, gv::ntheta);
  check.holds("omegainv", gv::omegainv, n, n);
  if (nomegafree > 0) check.holds("omegamask", gv::omegamask, n, n);
  check.holds("scorevec", gv::scorevec, gv::ntheta);
  check.holds("scorevec_expanded", gv::scorevec_expanded, gv::ntheta + nomegafree);
  check_classes(check, isub);
}

}  // namespace

void scoretheta(const int& isub, const int& nsample, const double* dsample2, const double* wtcond2,
                double* scoremat_qrpem, const int& nomegafree) {
  const sole_entry alone("scoretheta");
  check_entry(isub, nsample, dsample2, wtcond2, scoremat_qrpem, nomegafree);
  gv::izub = isub;
  host::setisub(isub);
  sample_scores scores(nomegafree, nsample);
  score_own_samples({dsample2, gv::leneta, nsample}, {wtcond2, nsample}, scores);
  share(scores.theta);
  if (scores.omega.rows() > 0) share(scores.omega);
  sum_over_samples(scores);
  const int n = gv::ntheta + scores.omega.rows();
  add_outer_product(gv::scorevec_expanded, {scoremat_qrpem, n, n});
}

}  // namespace statsubs
