// SPDX-License-Identifier: Apache-2.0
#include "exact_likelihood.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace exact {
namespace {

constexpr double log_2pi = 1.8378770664093454836;
constexpr double t_df = 5;

// Gauss-Hermite nodes (weight exp(-x^2)): eigenvalues of the Jacobi matrix (Golub and Welsch 1969);
// weights from the orthonormal polynomials, which keeps their digits where they are tiny.
struct rule {
  std::vector<double> node, log_weight;
};
rule gauss_hermite(int n) {
  Eigen::MatrixXd jacobi = Eigen::MatrixXd::Zero(n, n);
  for (int i = 1; i < n; ++i) jacobi(i, i - 1) = jacobi(i - 1, i) = std::sqrt(i / 2.0);
  const Eigen::VectorXd x = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(jacobi).eigenvalues();
  rule r;
  for (int i = 0; i < n; ++i) {
    double last = 0, now = std::pow(std::acos(-1.0), -0.25), squares = 0;
    for (int k = 0; k < n; ++k) {
      squares += now * now;
      const double next = std::sqrt(2.0 / (k + 1)) * x(i) * now - std::sqrt(k / (k + 1.0)) * last;
      last = now;
      now = next;
    }
    r.node.push_back(x(i));
    r.log_weight.push_back(-std::log(squares));
  }
  return r;
}
const rule& hermite_rule(int n) {
  static std::map<int, rule> made;
  const auto at = made.find(n);
  return at != made.end() ? at->second : made.emplace(n, gauss_hermite(n)).first->second;
}

// Box and Muller on a generator whose bits the standard fixes, so that points are the same
// everywhere.
class normal_stream {
 public:
  explicit normal_stream(unsigned seed) : bits_(seed) {}
  double uniform() { return (static_cast<double>(bits_() >> 11) + 0.5) * 0x1p-53; }
  double operator()() {
    return std::sqrt(-2 * std::log(uniform())) * std::cos(2 * std::acos(-1.0) * uniform());
  }
  Eigen::VectorXd vector(Eigen::Index d) {
    Eigen::VectorXd z(d);
    for (Eigen::Index i = 0; i < d; ++i) z(i) = (*this)();
    return z;
  }

 private:
  std::mt19937_64 bits_;
};

double log_normal_density(double squared_distance, Eigen::Index d) {
  return -0.5 * (squared_distance + static_cast<double>(d) * log_2pi);
}
double log_t_density(double squared_distance, Eigen::Index d) {
  const double n = static_cast<double>(d);
  return std::lgamma((t_df + n) / 2) - std::lgamma(t_df / 2) -
         0.5 * n * std::log(t_df * std::acos(-1.0)) -
         0.5 * (t_df + n) * std::log1p(squared_distance / t_df);
}
double log_sum(const std::vector<double>& terms) {
  const double top = *std::max_element(terms.begin(), terms.end());
  double sum = 0;
  for (const double t : terms) sum += std::exp(t - top);
  return top + std::log(sum);
}

}  // namespace

Eigen::VectorXd population::packed() const {
  Eigen::VectorXd psi(static_cast<Eigen::Index>(free.size()));
  for (size_t i = 0; i < free.size(); ++i) {
    const quantity& q = free[i];
    double& x = psi(static_cast<Eigen::Index>(i));
    switch (q.what) {
      case quantity::kind::typical:
        x = typical[q.coordinate];
        break;
      case quantity::kind::effect:
        x = effects[q.column];
        break;
      case quantity::kind::diagonal:
        x = std::log(factor(q.row, q.row));
        break;
      case quantity::kind::entry:
        x = factor(q.row, q.column);
        break;
      case quantity::kind::residual:
        x = log_deviations[q.row];
        break;
    }
  }
  return psi;
}

void population::unpack(const Eigen::VectorXd& psi) {
  for (size_t i = 0; i < free.size(); ++i) {
    const quantity& q = free[i];
    const double x = psi(static_cast<Eigen::Index>(i));
    switch (q.what) {
      case quantity::kind::typical:
        typical[q.coordinate] = x;
        break;
      case quantity::kind::effect:
        effects[q.column] = x;
        break;
      case quantity::kind::diagonal:
        factor(q.row, q.row) = std::exp(x);
        break;
      case quantity::kind::entry:
        factor(q.row, q.column) = x;
        break;
      case quantity::kind::residual:
        log_deviations[q.row] = x;
        break;
    }
  }
}

// Weighted sums over the nodes of one subject: the likelihood, and with it the moments of the
// derivatives of the complete-data log density, from which Fisher's and Louis' identities give
// those of the marginal one. Weights are relative to exp(reference).
struct exact_likelihood::sums {
  const population& p;
  const individual_density& density;
  const subject& s;
  double reference;
  double weight = 0, weight_squared = 0;
  double negligible = 0;  // weights below it are not worth derivatives
  Eigen::VectorXd score;
  Eigen::MatrixXd curvature, outer;
  std::vector<double> gradient, hessian;  // of one node, in the coordinates
  Eigen::VectorXd slope;                  // of a coordinate by the free quantity that moves it

  sums(const population& point, const individual_density& model, const subject& of, double scale)
      : p(point), density(model), s(of), reference(scale) {
    const auto n = static_cast<Eigen::Index>(p.free.size());
    score = slope = Eigen::VectorXd::Zero(n);
    curvature = outer = Eigen::MatrixXd::Zero(n, n);
    const size_t k = p.typical.size() + p.log_deviations.size();
    gradient.resize(k);
    hessian.resize(k * k);
  }

  // log_weight: of the node in an average or rule for the integral of density times N(z; 0, I).
  void add(double log_weight, const Eigen::VectorXd& z, const std::vector<double>& u,
           double log_density, bool derivatives) {
    const double w = std::exp(log_weight + log_density - reference);
    weight += w;
    weight_squared += w * w;
    if (!derivatives || !(w > std::max(negligible, 1e-15 * weight))) return;
    const int k = static_cast<int>(gradient.size());
    density.derivatives(s, u.data(), gradient.data(), hessian.data());
    const auto n = static_cast<Eigen::Index>(p.free.size());
    for (Eigen::Index i = 0; i < n; ++i) {
      const quantity& q = p.free[static_cast<size_t>(i)];
      switch (q.what) {
        case quantity::kind::effect:
          slope(i) = s.covariates[q.column];
          break;
        case quantity::kind::diagonal:
          slope(i) = p.factor(q.row, q.row) * z(q.row);
          break;
        case quantity::kind::entry:
          slope(i) = z(q.column);
          break;
        default:
          slope(i) = 1;
      }
    }
    for (Eigen::Index i = 0; i < n; ++i) {
      const int a = p.free[static_cast<size_t>(i)].coordinate;
      const double by_i = slope(i) * gradient[a];
      score(i) += w * by_i;
      for (Eigen::Index j = 0; j <= i; ++j) {
        const int b = p.free[static_cast<size_t>(j)].coordinate;
        curvature(i, j) += w * slope(i) * slope(j) * hessian[a * k + b];
        outer(i, j) += w * by_i * slope(j) * gradient[b];
      }
      if (p.free[static_cast<size_t>(i)].what == quantity::kind::diagonal)
        curvature(i, i) += w * by_i;
    }
  }
};

exact_likelihood::exact_likelihood(std::vector<subject> subjects,
                                   std::unique_ptr<individual_density> density, settings chosen)
    : subjects_(std::move(subjects)),
      density_(std::move(density)),
      settings_(chosen),
      sampled_(subjects_.size(), 0),
      last_modes_(subjects_.size()) {}

size_t exact_likelihood::sampled() const {
  return static_cast<size_t>(std::count(sampled_.begin(), sampled_.end(), char{1}));
}

// The coordinates of a subject without random effects.
std::vector<double> exact_likelihood::coordinates(const population& p, const subject& s) const {
  std::vector<double> u = p.typical;
  for (size_t e = 0; e < p.effects.size(); ++e)
    u[p.effect_parameter[e]] += p.effects[e] * s.covariates[e];
  u.insert(u.end(), p.log_deviations.begin(), p.log_deviations.end());
  return u;
}

// log p(y | z), with u moved to the coordinates at z. u comes in as coordinates() at z = 0 in its
// second half.
double exact_likelihood::log_density(const population& p, const subject& s, std::vector<double>& u,
                                     const Eigen::VectorXd& z) const {
  const size_t k = u.size() / 2;
  std::copy(u.begin() + static_cast<std::ptrdiff_t>(k), u.end(), u.begin());
  for (size_t a = 0; a < p.random.size(); ++a) {
    const auto row = static_cast<Eigen::Index>(a);
    for (Eigen::Index b = 0; b <= row; ++b) u[p.random[a]] += p.factor(row, b) * z(b);
  }
  return density_->value(s, u.data());
}

// To the mode of p(y | z) N(z; 0, I) from m.at, by Newton steps on absolute eigenvalues.
bool exact_likelihood::climb(const population& p, const subject& s, mode& m) const {
  const auto d = static_cast<Eigen::Index>(p.random.size());
  std::vector<double> u = coordinates(p, s);
  const size_t k = u.size();
  u.insert(u.end(), u.begin(), u.end());
  std::vector<double> gradient(k), hessian(k * k);
  double value = log_density(p, s, u, m.at) + log_normal_density(m.at.squaredNorm(), d);
  if (!std::isfinite(value)) return false;
  for (int iteration = 0; iteration < 200; ++iteration) {
    log_density(p, s, u, m.at);
    density_->derivatives(s, u.data(), gradient.data(), hessian.data());
    Eigen::VectorXd g(d);
    Eigen::MatrixXd h(d, d);
    for (Eigen::Index a = 0; a < d; ++a) {
      g(a) = gradient[p.random[a]];
      for (Eigen::Index b = 0; b < d; ++b) h(a, b) = hessian[p.random[a] * k + p.random[b]];
    }
    g = m.at - p.factor.transpose() * g;
    h = Eigen::MatrixXd::Identity(d, d) - p.factor.transpose() * h * p.factor;
    if (!g.allFinite() || !h.allFinite()) return false;
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> eigen(h);
    const Eigen::VectorXd absolute = eigen.eigenvalues().cwiseAbs().cwiseMax(1e-3);
    const Eigen::VectorXd along = eigen.eigenvectors().transpose() * g;
    Eigen::VectorXd step = -eigen.eigenvectors() * along.cwiseQuotient(absolute);
    const double promised = -g.dot(step);
    // Prior precision 1 is what the data can hardly undercut at a mode; the floor keeps the rule's
    // spread finite where they do.
    const Eigen::VectorXd safe = eigen.eigenvalues().cwiseMax(0.25);
    m.spread = eigen.eigenvectors() * safe.cwiseSqrt().cwiseInverse().asDiagonal();
    m.log_joint = value;
    m.log_mass = value + 0.5 * static_cast<double>(d) * log_2pi - 0.5 * safe.array().log().sum();
    if (promised < 1e-16 * (1 + std::abs(value))) return true;
    if (step.norm() > 3) step *= 3 / step.norm();
    double better = -HUGE_VAL;
    for (int halving = 0; halving < 40; ++halving, step /= 2) {
      better =
          log_density(p, s, u, m.at + step) + log_normal_density((m.at + step).squaredNorm(), d);
      if (better > value) break;
    }
    if (!(better > value)) return promised < 1e-6;
    m.at += step;
    value = better;
  }
  return true;
}

// The modes that hold at least a share of 1e-9 of the mass, the heaviest first.
std::vector<exact_likelihood::mode> exact_likelihood::modes(const population& p, size_t i,
                                                            bool thorough) {
  const subject& s = subjects_[i];
  const auto d = static_cast<Eigen::Index>(p.random.size());
  std::vector<double> u = coordinates(p, s);
  u.insert(u.end(), u.begin(), u.end());
  normal_stream draw(static_cast<unsigned>(7919 * i + 17));
  std::vector<Eigen::VectorXd> starts = last_modes_[i];
  starts.push_back(Eigen::VectorXd::Zero(d));
  std::vector<std::pair<double, Eigen::VectorXd>> pool;
  for (int n = 0; n < (thorough ? 400 : 40); ++n) {
    const Eigen::VectorXd z = (n % 4 == 3 ? 2.5 : 1.0) * draw.vector(d);
    pool.emplace_back(log_density(p, s, u, z), z);
    if (thorough && n < 16) starts.push_back(z);
  }
  const auto best = static_cast<std::ptrdiff_t>(thorough ? 20 : 2);
  std::partial_sort(pool.begin(), pool.begin() + best, pool.end(),
                    [](const auto& a, const auto& b) { return a.first > b.first; });
  for (std::ptrdiff_t n = 0; n < best; ++n) starts.push_back(pool[static_cast<size_t>(n)].second);

  std::vector<mode> found;
  for (const Eigen::VectorXd& z : starts) {
    mode m{z, {}, 0, 0};
    if (!climb(p, s, m)) continue;
    const bool known = std::any_of(found.begin(), found.end(), [&](const mode& other) {
      return (other.spread.inverse() * (m.at - other.at)).squaredNorm() < 1e-3;
    });
    if (!known) found.push_back(m);
  }
  std::sort(found.begin(), found.end(),
            [](const mode& a, const mode& b) { return a.log_mass > b.log_mass; });
  while (found.size() > 1 && found.back().log_mass < found.front().log_mass - 20.7)
    found.pop_back();
  last_modes_[i].clear();
  for (const mode& m : found) last_modes_[i].push_back(m.at);
  return found;
}

// A product rule about every mode. With several modes the integrand is divided among them by the
// normal densities at the modes: the parts add up to it, and each is smooth and has one mode. A
// first pass with fewer nodes finds every part's mean and covariance, about which the rule of a
// skew density converges much faster than about the mode.
void exact_likelihood::quadrature(const population& p, size_t i, const std::vector<mode>& modes,
                                  bool derivatives, sums& total) const {
  static const int by_effects[] = {0, 101, 61, 25, 17, 9, 7};
  const auto d = static_cast<Eigen::Index>(p.random.size());
  const double n = static_cast<double>(d);
  const int nodes =
      settings_.nodes > 0 ? settings_.nodes : by_effects[std::min<Eigen::Index>(d, 6)];
  std::vector<double> u = coordinates(p, subjects_[i]);
  u.insert(u.end(), u.begin(), u.end());
  std::vector<Eigen::MatrixXd> inverse;
  std::vector<double> log_det, shares(modes.size());
  for (const mode& m : modes) {
    inverse.emplace_back(m.spread.inverse());
    log_det.push_back(std::log(std::abs(m.spread.determinant())));
  }
  for (size_t of = 0; of < modes.size(); ++of) {
    // use(log weight, z, log density) at every node of the rule about `at` with the root `spread`.
    const auto pass = [&](const rule& r, const Eigen::VectorXd& at, const Eigen::MatrixXd& spread,
                          const auto& use) {
      const double top = n * *std::max_element(r.log_weight.begin(), r.log_weight.end());
      const double constant = 0.5 * n * std::log(2.0) + std::log(std::abs(spread.determinant()));
      std::vector<size_t> index(static_cast<size_t>(d), 0);
      Eigen::VectorXd x(d), z(d);
      while (true) {
        double log_weight = 0;
        for (Eigen::Index a = 0; a < d; ++a) {
          x(a) = r.node[index[static_cast<size_t>(a)]];
          log_weight += r.log_weight[index[static_cast<size_t>(a)]];
        }
        // Corners of the grid: products of weights that no density can make count.
        if (log_weight > top - 39) {
          z.noalias() = at + std::sqrt(2.0) * (spread * x);
          log_weight += x.squaredNorm() + constant + log_normal_density(z.squaredNorm(), d);
          if (modes.size() > 1) {
            for (size_t j = 0; j < modes.size(); ++j)
              shares[j] = modes[j].log_mass - log_det[j] -
                          0.5 * (inverse[j] * (z - modes[j].at)).squaredNorm();
            log_weight += shares[of] - log_sum(shares);
          }
          use(log_weight, z, log_density(p, subjects_[i], u, z));
        }
        size_t a = 0;
        while (a < index.size() && ++index[a] == r.node.size()) index[a++] = 0;
        if (a == index.size()) break;
      }
    };
    double weight = 0;
    Eigen::VectorXd mean = Eigen::VectorXd::Zero(d);
    Eigen::MatrixXd square = Eigen::MatrixXd::Zero(d, d);
    pass(hermite_rule(nodes / 2 + 1), modes[of].at, modes[of].spread,
         [&](double log_weight, const Eigen::VectorXd& z, double value) {
           const double w = std::exp(log_weight + value - total.reference);
           const Eigen::VectorXd away = z - modes[of].at;
           weight += w;
           mean += w * away;
           square += w * away * away.transpose();
         });
    Eigen::VectorXd at = modes[of].at;
    Eigen::MatrixXd spread = modes[of].spread;
    if (weight > 0) {
      total.negligible = 1e-12 * std::max(weight, total.weight);
      mean /= weight;
      const Eigen::LLT<Eigen::MatrixXd> root(square / weight - mean * mean.transpose());
      if (root.info() == Eigen::Success) {
        at += mean;
        spread = root.matrixL();
      }
    }
    pass(hermite_rule(nodes), at, spread,
         [&](double log_weight, const Eigen::VectorXd& z, double value) {
           total.add(log_weight, z, u, value, derivatives);
         });
  }
}

// Importance sampling from a mixture: t about every mode, t twice as wide, and the population.
void exact_likelihood::sampling(const population& p, size_t i, const std::vector<mode>& modes,
                                int points, unsigned stream, bool derivatives, sums& total) const {
  const auto d = static_cast<Eigen::Index>(p.random.size());
  std::vector<double> u = coordinates(p, subjects_[i]);
  u.insert(u.end(), u.begin(), u.end());
  std::vector<Eigen::MatrixXd> inverse;
  std::vector<double> log_det, masses, share;
  for (const mode& m : modes) {
    inverse.emplace_back(m.spread.inverse());
    log_det.push_back(std::log(std::abs(m.spread.determinant())));
    masses.push_back(m.log_mass);
  }
  // Half by mass, half evenly: Laplace's masses may be far from true.
  for (const double mass : masses)
    share.push_back(0.5 * std::exp(mass - log_sum(masses)) +
                    0.5 / static_cast<double>(modes.size()));
  constexpr double narrow = 0.55, wide = 0.25, prior = 0.2;
  const double n = static_cast<double>(d);
  normal_stream draw(static_cast<unsigned>(104729 * i) + stream);
  std::vector<double> log_q(2 * modes.size() + 1);
  for (int point = 0; point < points; ++point) {
    Eigen::VectorXd z = draw.vector(d);
    double pick = draw.uniform();
    if (pick < narrow + wide) {
      const double scale = pick < narrow ? 1.0 : 2.0;
      pick = draw.uniform();
      size_t of = 0;
      while (of + 1 < modes.size() && pick > share[of]) pick -= share[of++];
      double chi_squared = 0;
      for (int degree = 0; degree < static_cast<int>(t_df); ++degree) {
        const double x = draw();
        chi_squared += x * x;
      }
      z = modes[of].at + scale / std::sqrt(chi_squared / t_df) * (modes[of].spread * z);
    }
    for (size_t j = 0; j < modes.size(); ++j) {
      const double distance = (inverse[j] * (z - modes[j].at)).squaredNorm();
      log_q[2 * j] = std::log(narrow * share[j]) - log_det[j] + log_t_density(distance, d);
      log_q[2 * j + 1] = std::log(wide * share[j]) - log_det[j] - n * std::log(2.0) +
                         log_t_density(distance / 4, d);
    }
    const double log_prior = log_normal_density(z.squaredNorm(), d);
    log_q.back() = std::log(prior) + log_prior;
    const double value = log_density(p, subjects_[i], u, z);
    total.add(log_prior - log_sum(log_q) - std::log(static_cast<double>(points)), z, u, value,
              derivatives);
  }
}

surface exact_likelihood::evaluate(const population& p, bool thorough) {
  surface result;
  const auto n = static_cast<Eigen::Index>(p.free.size());
  result.gradient = Eigen::VectorXd::Zero(n);
  result.hessian = Eigen::MatrixXd::Zero(n, n);
  double variance = 0;
  for (size_t i = 0; i < subjects_.size(); ++i) {
    const std::vector<mode> found = modes(p, i, thorough);
    result.modes.push_back(static_cast<int>(found.size()));
    if (found.empty()) {
      result.finite = false;
      result.subjects.push_back(HUGE_VAL);
      continue;
    }
    sums total(p, *density_, subjects_[i], found.front().log_mass);
    if (sampled_[i]) {
      const int points = settings_.sample_points;
      sampling(p, i, found, points, 1, true, total);
      variance += 4 * (total.weight_squared / (total.weight * total.weight) - 1.0 / points);
    } else {
      quadrature(p, i, found, true, total);
    }
    const double value = -2 * (total.reference + std::log(total.weight));
    result.subjects.push_back(value);
    result.minus2ll += value;
    const Eigen::VectorXd score = total.score / total.weight;
    result.gradient -= 2 * score;
    result.hessian -=
        2 * ((total.curvature + total.outer) / total.weight - score * score.transpose());
  }
  result.error = std::sqrt(variance);
  result.hessian = Eigen::MatrixXd(result.hessian.selfadjointView<Eigen::Lower>());
  result.finite = result.finite && std::isfinite(result.minus2ll) && result.gradient.allFinite() &&
                  result.hessian.allFinite();
  return result;
}

comparison exact_likelihood::check(const population& p) {
  comparison result;
  double variance = 0;
  for (size_t i = 0; i < subjects_.size(); ++i) {
    const std::vector<mode> found = modes(p, i, true);
    if (found.empty()) continue;
    sums grid(p, *density_, subjects_[i], found.front().log_mass), sample = grid;
    quadrature(p, i, found, false, grid);
    const int points = settings_.check_points;
    sampling(p, i, found, points, 2, false, sample);
    const double relative = sample.weight_squared / (sample.weight * sample.weight) - 1.0 / points;
    const double difference = std::log(sample.weight / grid.weight);
    result.minus2ll -= 2 * (sample.reference + std::log(sample.weight));
    variance += 4 * relative;
    const double ratio = std::abs(difference) / std::sqrt(relative);
    if (ratio > result.worst) {
      result.worst = ratio;
      result.worst_subject = subjects_[i].id;
    }
    if (!(ratio < 4.5)) sampled_[i] = 1;
  }
  result.error = std::sqrt(variance);
  return result;
}

promise newton_step(const surface& at) {
  const Eigen::VectorXd scale =
      at.hessian.diagonal().cwiseAbs().cwiseMax(1e-12).cwiseSqrt().cwiseInverse();
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> eigen(scale.asDiagonal() * at.hessian *
                                                             scale.asDiagonal());
  const Eigen::VectorXd absolute = eigen.eigenvalues().cwiseAbs().cwiseMax(1e-6);
  const Eigen::VectorXd along =
      eigen.eigenvectors().transpose() * (scale.asDiagonal() * at.gradient);
  promise result;
  result.step = -(scale.asDiagonal() * (eigen.eigenvectors() * along.cwiseQuotient(absolute)));
  result.gain = 0.5 * along.cwiseAbs2().cwiseQuotient(absolute).sum();
  result.least_eigenvalue = eigen.eigenvalues()(0);
  return result;
}

surface maximise(exact_likelihood& likelihood, population& p, bool verbose) {
  surface now = likelihood.evaluate(p, true);
  bool moved = false;
  if (!now.finite) return now;
  for (int iteration = 0; iteration < 300; ++iteration) {
    promise ahead = newton_step(now);
    if (verbose)
      std::fprintf(stderr, "%3d  -2LL %.8f  ahead %.3g  least eigenvalue %.3g\n", iteration,
                   now.minus2ll, ahead.gain, ahead.least_eigenvalue);
    if (ahead.gain < likelihood.chosen().rest) break;
    // Logarithms by at most 1; entries of L by at most 0.7 of the length of their row.
    Eigen::VectorXd psi = p.packed();
    double shrink = 1;
    for (size_t i = 0; i < p.free.size(); ++i) {
      const quantity& q = p.free[i];
      double limit = 1;
      if (q.what == quantity::kind::entry) limit = 0.7 * p.factor.row(q.row).norm();
      shrink = std::min(shrink, limit / std::abs(ahead.step(static_cast<Eigen::Index>(i))));
    }
    ahead.step *= shrink;
    bool better = false;
    for (int halving = 0; halving < 12 && !better; ++halving, ahead.step /= 2) {
      p.unpack(psi + ahead.step);
      surface next = likelihood.evaluate(p, false);
      better = next.finite && next.minus2ll < now.minus2ll;
      if (better) now = std::move(next);
    }
    if (!better) {
      p.unpack(psi);
      break;
    }
    moved = true;
  }
  return moved ? likelihood.evaluate(p, true) : now;
}

}  // namespace exact
