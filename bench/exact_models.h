// SPDX-License-Identifier: Apache-2.0
//
// Predictions of the models that `exact` knows, from their closed forms, with first and second
// derivatives by truncated Taylor arithmetic. Written for that yardstick alone: nothing here is
// shared with the programs that it judges.
#pragma once

#include <array>
#include <cmath>
#include <string>
#include <vector>

namespace exact {

// A value with its gradient and the lower triangle (by rows) of its Hessian in N variables.
template <int N>
struct jet {
  static constexpr int pairs = N * (N + 1) / 2;
  double v = 0;
  std::array<double, N> g{};
  std::array<double, pairs> h{};

  jet() = default;
  jet(double value) : v(value) {}
};

// f(x) from f, f' and f'' at the value of x.
template <int N>
jet<N> chain(const jet<N>& x, double f, double first, double second) {
  jet<N> y(f);
  for (int i = 0, k = 0; i < N; ++i) {
    y.g[i] = first * x.g[i];
    for (int j = 0; j <= i; ++j, ++k) y.h[k] = first * x.h[k] + second * x.g[i] * x.g[j];
  }
  return y;
}

template <int N>
jet<N> operator+(const jet<N>& a, const jet<N>& b) {
  jet<N> y(a.v + b.v);
  for (int i = 0; i < N; ++i) y.g[i] = a.g[i] + b.g[i];
  for (int k = 0; k < jet<N>::pairs; ++k) y.h[k] = a.h[k] + b.h[k];
  return y;
}

template <int N>
jet<N> operator*(double c, const jet<N>& a) {
  jet<N> y(c * a.v);
  for (int i = 0; i < N; ++i) y.g[i] = c * a.g[i];
  for (int k = 0; k < jet<N>::pairs; ++k) y.h[k] = c * a.h[k];
  return y;
}

template <int N>
jet<N> operator-(const jet<N>& a, const jet<N>& b) {
  return a + (-1.0) * b;
}

template <int N>
jet<N> operator*(const jet<N>& a, const jet<N>& b) {
  jet<N> y(a.v * b.v);
  for (int i = 0, k = 0; i < N; ++i) {
    y.g[i] = a.v * b.g[i] + b.v * a.g[i];
    for (int j = 0; j <= i; ++j, ++k)
      y.h[k] = a.v * b.h[k] + b.v * a.h[k] + a.g[i] * b.g[j] + a.g[j] * b.g[i];
  }
  return y;
}

template <int N>
jet<N> operator/(const jet<N>& a, const jet<N>& b) {
  const double inverse = 1 / b.v;
  return a * chain(b, inverse, -inverse * inverse, 2 * inverse * inverse * inverse);
}

template <int N>
jet<N> exp(const jet<N>& x) {
  const double f = std::exp(x.v);
  return chain(x, f, f, f);
}

template <int N>
jet<N> log(const jet<N>& x) {
  return chain(x, std::log(x.v), 1 / x.v, -1 / (x.v * x.v));
}

template <int N>
jet<N> sqrt(const jet<N>& x) {
  const double root = std::sqrt(x.v);
  return chain(x, root, 0.5 / root, -0.25 / (root * x.v));
}

inline double value_of(double x) {
  return x;
}
template <int N>
double value_of(const jet<N>& x) {
  return x.v;
}

// (1 - exp(-x)) / x and its two derivatives for x >= 0; the series where the quotient loses digits.
inline std::array<double, 3> mean_decay_terms(double x) {
  std::array<double, 3> d{};
  if (x < 0.5) {
    double term = 1;  // x^n (-1)^n / (n + 1)!, and the same for the shifted sums of the derivatives
    for (int n = 0; n < 16; ++n) {
      d[0] += term / (n + 1);
      d[1] -= term / (n + 2);
      d[2] += term / (n + 3);
      term *= -x / (n + 1);
    }
    return d;
  }
  const double e = std::exp(-x);
  d[0] = (1 - e) / x;
  d[1] = (e - d[0]) / x;
  d[2] = (-e - 2 * d[1]) / x;
  return d;
}
inline double mean_decay(double x) {
  return x < 1e-8 ? 1 - x / 2 : -std::expm1(-x) / x;
}
template <int N>
jet<N> mean_decay(const jet<N>& x) {
  const auto d = mean_decay_terms(x.v);
  return chain(x, d[0], d[1], d[2]);
}

// (exp(-b t) - exp(-a t)) / (a - b): what is there at t of a unit that enters a compartment with
// elimination b by a first-order process of rate a, over a. Symmetric, and smooth where a = b.
template <class T>
T passing(const T& a, const T& b, double t) {
  using std::exp;
  const bool a_slower = value_of(a) < value_of(b);
  const T& slow = a_slower ? a : b;
  const T apart = a_slower ? b - a : a - b;
  return t * (exp((-t) * slow) * mean_decay(t * apart));
}

// Every structure is made from its parameters and gives the response to a unit dose t after it.

template <class T>
struct bolus_one {  // CL, V
  static constexpr int parameters = 2;
  static constexpr bool dosed = true;
  T rate, factor;
  explicit bolus_one(const std::array<T, 2>& p) : rate(p[0] / p[1]), factor(T(1.0) / p[1]) {}
  T response(double t) const {
    using std::exp;
    return factor * exp((-t) * rate);
  }
};

template <class T>
struct oral_one {  // ka, CL, V
  static constexpr int parameters = 3;
  static constexpr bool dosed = true;
  T ka, rate, factor;
  explicit oral_one(const std::array<T, 3>& p) : ka(p[0]), rate(p[1] / p[2]), factor(p[0] / p[2]) {}
  T response(double t) const { return factor * passing(ka, rate, t); }
};

// Disposition of two compartments: weights and rates of the two exponentials of a unit bolus.
template <class T>
struct biexponential {
  T fast, slow, fast_share, slow_share;
  biexponential(const T& cl, const T& v1, const T& q, const T& v2) {
    using std::sqrt;
    const T k = cl / v1, k12 = q / v1, k21 = q / v2;
    const T difference = k + k12 - k21;
    const T root = sqrt(difference * difference + 4.0 * (k12 * k21));
    fast = 0.5 * (k + k12 + k21 + root);
    slow = k * k21 / fast;
    fast_share = (fast - k21) / root;
    slow_share = (k21 - slow) / root;
  }
};

template <class T>
struct bolus_two {  // CL, V1, Q, V2
  static constexpr int parameters = 4;
  static constexpr bool dosed = true;
  biexponential<T> b;
  T fast_part, slow_part;
  explicit bolus_two(const std::array<T, 4>& p)
      : b(p[0], p[1], p[2], p[3]), fast_part(b.fast_share / p[1]), slow_part(b.slow_share / p[1]) {}
  T response(double t) const {
    using std::exp;
    return fast_part * exp((-t) * b.fast) + slow_part * exp((-t) * b.slow);
  }
};

template <class T>
struct oral_two {  // ka, CL, V1, Q, V2
  static constexpr int parameters = 5;
  static constexpr bool dosed = true;
  T ka;
  biexponential<T> b;
  T fast_part, slow_part;
  explicit oral_two(const std::array<T, 5>& p)
      : ka(p[0]),
        b(p[1], p[2], p[3], p[4]),
        fast_part(ka * b.fast_share / p[2]),
        slow_part(ka * b.slow_share / p[2]) {}
  T response(double t) const {
    return fast_part * passing(ka, b.fast, t) + slow_part * passing(ka, b.slow, t);
  }
};

// A logistic curve; no doses, t is the time itself.
template <class T>
struct growth {  // A, t50, s
  static constexpr int parameters = 3;
  static constexpr bool dosed = false;
  T top, half, width;
  explicit growth(const std::array<T, 3>& p) : top(p[0]), half(p[1]), width(p[2]) {}
  T response(double t) const {
    using std::exp;
    return top / (T(1.0) + exp((half - T(t)) / width));
  }
};

struct dose {
  double time, amount;
};
struct observation {
  double time, value;
  int doses;  // given before it in the order of the file
};
struct subject {
  std::string id;
  std::vector<dose> doses;
  std::vector<observation> observations;
  std::vector<double> covariates;  // one value for each covariate effect of the model
};

enum class deviation { additive, proportional, log_normal };

// The density of a subject's observations given its coordinates: the structural parameters, as
// logarithms or plain, then the logarithms of the residual deviations.
class individual_density {
 public:
  virtual ~individual_density() = default;
  virtual int structural() const = 0;
  // Log density; -infinity where the prediction fails.
  virtual double value(const subject& s, const double* coordinates) const = 0;
  // The same, with gradient (size k) and the full Hessian (k x k) in the k coordinates.
  virtual double derivatives(const subject& s, const double* coordinates, double* gradient,
                             double* hessian) const = 0;
};

template <template <class> class Structure>
class density_of final : public individual_density {
  static constexpr int n = Structure<double>::parameters;

 public:
  density_of(std::vector<bool> logarithmic, std::vector<deviation> deviations)
      : logarithmic_(std::move(logarithmic)), deviations_(std::move(deviations)) {}

  int structural() const override { return n; }

  double value(const subject& s, const double* u) const override {
    std::array<double, n> p{};
    for (int i = 0; i < n; ++i) p[i] = logarithmic_[i] ? std::exp(u[i]) : u[i];
    const Structure<double> structure(p);
    double total = 0;
    for (const observation& o : s.observations) {
      const double f = predict(structure, s, o);
      double y = o.value, mean = f;
      if (in_logarithms()) {
        total -= std::log(y);
        y = std::log(y), mean = std::log(f);
      }
      double variance = 0;
      for (size_t r = 0; r < deviations_.size(); ++r)
        variance += std::exp(2 * u[n + r]) * (is_proportional(r) ? f * f : 1);
      total -= 0.5 * (log_2pi + std::log(variance) + (y - mean) * (y - mean) / variance);
    }
    return std::isfinite(total) ? total : -HUGE_VAL;
  }

  double derivatives(const subject& s, const double* u, double* gradient,
                     double* hessian) const override {
    const int m = static_cast<int>(deviations_.size()), k = n + m;
    std::fill(gradient, gradient + k, 0.0);
    std::fill(hessian, hessian + k * k, 0.0);
    std::array<jet<n>, n> p;
    for (int i = 0; i < n; ++i) {
      const double v = logarithmic_[i] ? std::exp(u[i]) : u[i];
      p[i] = jet<n>(v);
      p[i].g[i] = logarithmic_[i] ? v : 1;
      p[i].h[i * (i + 1) / 2 + i] = logarithmic_[i] ? v : 0;
    }
    const Structure<jet<n>> structure(p);
    std::array<double, 2> square{};
    for (int r = 0; r < m; ++r) square[r] = std::exp(2 * u[n + r]);
    double total = 0;
    for (const observation& o : s.observations) {
      jet<n> f = predict(structure, s, o);
      double y = o.value;
      if (in_logarithms()) {
        total -= std::log(y);
        y = std::log(y);
        f = log(f);
      }
      // The log density as a function of the prediction F and of the log deviations, through the
      // variance v and the residual.
      double v = 0, v_f = 0, v_ff = 0;
      std::array<double, 2> part{}, part_f{};  // derivatives by a log deviation, and by F as well
      for (int r = 0; r < m; ++r) {
        const bool prop = is_proportional(r);
        v += square[r] * (prop ? f.v * f.v : 1);
        part[r] = 2 * square[r] * (prop ? f.v * f.v : 1);
        part_f[r] = prop ? 4 * square[r] * f.v : 0;
        v_f += part_f[r] / 2;
        v_ff += prop ? 2 * square[r] : 0;
      }
      const double e = (y - f.v) / v;
      const double by_v = -0.5 * (1 / v - e * e), by_vv = 0.5 / (v * v) - e * e / v;
      const double by_f = e + by_v * v_f;
      const double by_ff = -1 / v - 2 * e / v * v_f + by_vv * v_f * v_f + by_v * v_ff;
      total -= 0.5 * (log_2pi + std::log(v) + e * e * v);
      for (int i = 0, c = 0; i < n; ++i) {
        gradient[i] += by_f * f.g[i];
        for (int j = 0; j <= i; ++j, ++c)
          hessian[i * k + j] += by_f * f.h[c] + by_ff * f.g[i] * f.g[j];
      }
      for (int r = 0; r < m; ++r) {
        const double mixed = -e / v * part[r] + by_vv * v_f * part[r] + by_v * part_f[r];
        gradient[n + r] += by_v * part[r];
        for (int i = 0; i < n; ++i) hessian[(n + r) * k + i] += mixed * f.g[i];
        for (int q = 0; q <= r; ++q)
          hessian[(n + r) * k + n + q] +=
              by_vv * part[r] * part[q] + (q == r ? 2 * by_v * part[r] : 0);
      }
    }
    for (int i = 0; i < k; ++i)
      for (int j = 0; j < i; ++j) hessian[j * k + i] = hessian[i * k + j];
    return std::isfinite(total) ? total : -HUGE_VAL;
  }

 private:
  static constexpr double log_2pi = 1.8378770664093454836;

  bool in_logarithms() const { return deviations_[0] == deviation::log_normal; }
  bool is_proportional(size_t r) const { return deviations_[r] == deviation::proportional; }

  template <class T>
  static T predict(const Structure<T>& structure, const subject& s, const observation& o) {
    if constexpr (!Structure<T>::dosed) return structure.response(o.time);
    T sum(0.0);
    for (int i = 0; i < o.doses; ++i)
      sum = sum + s.doses[i].amount * structure.response(o.time - s.doses[i].time);
    return sum;
  }

  std::vector<bool> logarithmic_;
  std::vector<deviation> deviations_;
};

}  // namespace exact
