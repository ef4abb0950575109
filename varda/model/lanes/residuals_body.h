// SPDX-License-Identifier: Apache-2.0
//
// The density of observations in lanes: a part of kernel_body.h.

// A positive number as mantissa in [1, 2) and exponent.
struct parted {
  vec mantissa;
  vec exponent;
};

inline parted part(vec x) {
  const mask tiny = x < all(0x1p-1022);
  vec shift = all(1023.0);
  if (which(tiny) != 0) {
    x = choose(tiny, x * 0x1p54, x);
    shift = choose(tiny, all(1023.0 + 54.0), shift);
  }
  const bits whole = bits_of(x);
  return {number_of((whole & (bits{} + 0x000fffffffffffffU)) | bits_of(all(1.0))),
          (number_of((whole >> 52) | bits_of(all(0x1p52))) - 0x1p52) - shift};
}

// The logarithm of a product of many positive numbers: one logarithm for all of them.
class log_product {
 public:
  void multiply(vec x) {
    const parted p = part(x);
    join(p.mantissa, p.exponent);
  }
  void multiply_square(vec x) {
    const parted p = part(x);
    join(p.mantissa * p.mantissa, p.exponent + p.exponent);
  }
  [[gnu::always_inline]] vec value() const {
    if (!any_) return vec{};
    return VARDA_SLEEF(log)(mantissa_) + exponent_ * log_2_low + exponent_ * log_2_high;
  }

 private:
  void join(vec mantissa, vec exponent) {
    any_ = true;
    mantissa_ = mantissa_ * mantissa;
    exponent_ = exponent_ + exponent;
    if (++joined_ < most_joined) return;
    const parted p = part(mantissa_);
    mantissa_ = p.mantissa;
    exponent_ = exponent_ + p.exponent;
    joined_ = 0;
  }

  static constexpr int most_joined = 400;  // of squares below 4
  vec mantissa_ = all(1.0);
  vec exponent_{};
  int joined_ = 0;
  bool any_ = false;
};

// log(y / f) for positive y and f, by one division: with the quotient 2^k q, q between 2^-1/2 and
// 2^1/2, it is k log 2 + 2 artanh((q - 1) / (q + 1)). The series goes to s^21, where |s| <= 0.1716;
// the first term left out is below 1e-18 of the sum.
inline vec log_ratio(const parted& y, vec f) {
  const parted d = part(f);
  vec above = y.mantissa;
  vec below = d.mantissa;
  vec k = y.exponent - d.exponent;
  constexpr double root_2 = 0x1.6a09e667f3bcdp+0;
  const mask high = above > root_2 * below;
  const mask low = below > root_2 * above;
  below = choose(high, below + below, below);
  above = choose(low, above + above, above);
  k = choose(high, k + 1.0, choose(low, k - 1.0, k));
  const vec s = (above - below) / (above + below);
  const vec s2 = s * s;
  constexpr double over[] = {2.0 / 3,  2.0 / 5,  2.0 / 7,  2.0 / 9,  2.0 / 11,
                             2.0 / 13, 2.0 / 15, 2.0 / 17, 2.0 / 19, 2.0 / 21};
  const vec s4 = s2 * s2;
  const vec s8 = s4 * s4;
  const vec p0 = (over[0] + s2 * over[1]) + s4 * (over[2] + s2 * over[3]);
  const vec p4 = (over[4] + s2 * over[5]) + s4 * (over[6] + s2 * over[7]);
  const vec p8 = over[8] + s2 * over[9];
  const vec rest = (s * s2) * (p0 + s8 * (p4 + s8 * p8));
  const vec logarithm = k * log_2_high + (2.0 * s + (rest + k * log_2_low));
  return choose((f > vec{}) & (f <= all(largest)), logarithm, all(__builtin_nan("")));
}

// log(y / f) for a bound y: 0 is below everything.
inline vec log_bound_ratio(double y, vec f) {
  if (!(y > 0.0)) {
    const double limit = y == 0.0 ? -__builtin_inf() : __builtin_nan("");
    return choose(f > vec{}, all(limit), all(__builtin_nan("")));
  }
  return log_ratio(part(all(y)), f);
}

// log of the standard normal distribution function, to 1e-14 in either tail. The complementary
// error function underflows in the far tail; there Mills' ratio by its asymptotic series, whose
// first term left out is below 1e-14.
inline vec log_normal_probability(vec z) {
  constexpr double log_2pi = 0x1.d67f1c864beb5p+0;
  constexpr double root_half = 0x1.6a09e667f3bcdp-1;
  const mask up = z > vec{};
  const mask far = z <= all(-30.0);
  const vec tail = 0.5 * VARDA_SLEEF_U15(erfc)(magnitude(z) * root_half);
  vec result = choose(up, VARDA_SLEEF(log1p)(-tail), VARDA_SLEEF(log)(tail));
  if (which(far) == 0) return result;
  const vec w = 1.0 / (z * z);
  const vec series = -w * (1.0 - w * (3.0 - w * (15.0 - w * (105.0 - w * 945.0))));
  const vec distant = -0.5 * (z * z + log_2pi) - VARDA_SLEEF(log)(-z) + VARDA_SLEEF(log1p)(series);
  return choose(far, distant, result);
}

// log(Phi(upper) - Phi(lower)) for lower < upper, Phi symmetrical and its logarithm given. In the
// upper half the complements are the small numbers, whose difference keeps its digits.
template <class Logarithm>
inline vec log_share(vec lower, vec upper, Logarithm log_probability) {
  const mask high = lower > vec{};
  const vec from = choose(high, -upper, lower);
  const vec to = choose(high, -lower, upper);
  const vec whole = log_probability(to);
  return whole + VARDA_SLEEF(log1p)(-VARDA_SLEEF(exp)(log_probability(from) - whole));
}
inline vec log_normal_probability(vec lower, vec upper) {
  return log_share(lower, upper, [](vec z) { return log_normal_probability(z); });
}

// The continued fraction of the incomplete beta function I_x(a, b) (DLMF 8.17.22), for
// x < (a + 1) / (a + b + 2), by Lentz' method (W. J. Lentz, Applied Optics 15 (1976) 668). A lane
// keeps its value from where its own factors have come to 1.
inline vec beta_fraction(vec x, vec a, vec b) {
  constexpr int most_pairs = 400;  // some 60 for 1000 degrees of freedom
  vec above = all(1.0);
  vec below = 1.0 / (1.0 - (a + b) * x / (a + 1.0));
  vec result = below;
  mask open = result == result;
  for (int m = 1; m <= most_pairs && which(open) != 0; ++m) {
    const double k = m;
    const vec at = a + 2.0 * k;
    const vec even = k * (b - k) * x / ((at - 1.0) * at);
    const vec odd = -((a + k) * (a + b + k) * x / (at * (at + 1.0)));
    below = 1.0 / (1.0 + even * below);
    above = 1.0 + even / above;
    const vec first = below * above;
    below = 1.0 / (1.0 + odd * below);
    above = 1.0 + odd / above;
    const vec second = below * above;
    result = choose(open, result * first * second, result);
    open = open & (magnitude(second - 1.0) > all(2.0 * epsilon));
  }
  return result;
}

// log of the distribution function of Student's t, whose tail beyond |z| is I_x(nu / 2, 1 / 2) / 2
// at x = nu / (nu + z^2) (Abramowitz and Stegun 26.7.1); near the middle 1/2 less half of
// I_(1 - x)(1 / 2, nu / 2) (DLMF 8.17.4).
inline vec log_t_probability(vec z, const residual_law& law) {
  const double nu = law.degrees_of_freedom;
  const vec a = all(0.5 * nu);
  const vec half = all(0.5);
  // Between these limits neither q nor its inverse leaves the range.
  const vec q = larger(smaller(z * z / nu, all(1e300)), all(1e-300));
  const vec inverse = 1.0 / q;
  const mask far = q > all(3.0 / (nu + 2.0));
  const vec x = 1.0 / (1.0 + choose(far, q, inverse));
  const vec fraction = beta_fraction(x, choose(far, a, half), choose(far, half, a));
  const vec power = -(0.5 * nu) * VARDA_SLEEF(log1p)(q) - 0.5 * VARDA_SLEEF(log1p)(inverse);
  const vec share = VARDA_SLEEF(log)(fraction) + (power - law.log_beta);
  const vec beyond = share - VARDA_SLEEF(log)(all(nu));
  const vec tail = choose(far, VARDA_SLEEF(exp)(beyond), 0.5 - VARDA_SLEEF(exp)(share));
  const vec down = choose(far, beyond, VARDA_SLEEF(log)(tail));
  const vec result = choose(z > vec{}, VARDA_SLEEF(log1p)(-tail), down);
  const vec infinite = all(__builtin_inf());
  return choose(z == -infinite, -infinite, choose(z == infinite, vec{}, result));
}

inline vec log_probability(const residual_law& law, vec z) {
  return law.degrees_of_freedom > 0.0 ? log_t_probability(z, law) : log_normal_probability(z);
}
inline vec log_probability(const residual_law& law, vec lower, vec upper) {
  if (law.degrees_of_freedom > 0.0)
    return log_share(lower, upper, [&](vec z) { return log_t_probability(z, law); });
  return log_normal_probability(lower, upper);
}

// (y^lambda - f^lambda) / lambda of a bound y and positive f, about the larger of the two powers;
// a y of 0 is the end of the range, which lies at -1 / lambda or at infinity.
inline vec box_cox_difference(double lambda, double y, vec f) {
  const vec ratio = log_bound_ratio(y, f);
  if (lambda == 0.0) return ratio;
  const vec power = lambda * ratio;
  const vec base = choose(power > vec{}, all(y), f);
  const vec size = VARDA_SLEEF(exp)(lambda * VARDA_SLEEF(log)(base)) *
                   -VARDA_SLEEF(expm1)(-magnitude(power)) / (lambda < 0.0 ? -lambda : lambda);
  return choose(ratio == ratio, signed_like(size, ratio), ratio);
}

// Whether the deviation, with all its factors, is computed for each prediction.
inline bool is_whole(error_kind kind) {
  return kind == error_kind::combined_sd || kind == error_kind::power;
}

// The deviation of such a kind: a sum or a power.
inline vec deviation_at(const residual_law& law, vec f) {
  if (law.kind == error_kind::combined_sd) return law.additive + law.proportional * magnitude(f);
  return law.proportional * VARDA_SLEEF(exp)(law.exponent * VARDA_SLEEF(log)(magnitude(f)));
}

// The deviation of any kind, or the scale of Student's t.
inline vec any_deviation(const residual_law& law, vec f) {
  if (is_whole(law.kind)) return deviation_at(law, f);
  if (law.kind == error_kind::proportional) return magnitude(law.proportional * f);
  if (law.kind == error_kind::combined)
    return root(law.additive * law.additive + (law.proportional * law.proportional) * (f * f));
  return all(law.additive);
}

// Of a value or a bound and its prediction, transformed.
inline vec any_difference(const residual_law& law, double y, vec f) {
  if (law.kind == error_kind::box_cox) return box_cox_difference(law.lambda, y, f);
  return law.kind == error_kind::log_normal ? log_bound_ratio(y, f) : y - f;
}

// Squares, logarithms of variances and probabilities, of one vector of individuals.
class residual_sums {
 public:
  template <error_kind Kind>
  void add(const observation& at, const residual_law& law, vec f) {
    const vec difference = at.value - f;
    if constexpr (Kind == error_kind::additive) {
      squares_ = squares_ + (difference * difference) * law.per_additive_square;
    } else if constexpr (Kind == error_kind::proportional) {
      const vec r = difference / f;
      squares_ = squares_ + (r * r) * law.per_proportional_square;
      scales_.multiply_square(magnitude(f));
    } else if constexpr (Kind == error_kind::combined) {
      const vec variance =
          law.additive * law.additive + (law.proportional * law.proportional) * (f * f);
      squares_ = squares_ + difference * difference / variance;
      scales_.multiply(variance);
    } else if constexpr (Kind == error_kind::combined_sd || Kind == error_kind::power) {
      const vec deviation = deviation_at(law, f);
      const vec r = difference / deviation;
      squares_ = squares_ + r * r;
      scales_.multiply_square(deviation);
    } else if constexpr (Kind == error_kind::box_cox) {
      const vec r = box_cox_difference(law.lambda, positive(at), f);
      squares_ = squares_ + (r * r) * law.per_additive_square;
    } else {
      const vec r = log_bound_ratio(at.value, f);
      squares_ = squares_ + (r * r) * law.per_additive_square;
    }
  }
  void add(const observation& at, const residual_law& law, vec f) {
    if (law.known) {
      probability_ = probability_ + f;
      return;
    }
    if (at.censored != censoring::none) return add_censored(at, law, f);
    if (law.degrees_of_freedom > 0.0) return add_student(at, law, f);
    switch (law.kind) {
      case error_kind::additive:
        return add<error_kind::additive>(at, law, f);
      case error_kind::proportional:
        return add<error_kind::proportional>(at, law, f);
      case error_kind::combined:
        return add<error_kind::combined>(at, law, f);
      case error_kind::combined_sd:
        return add<error_kind::combined_sd>(at, law, f);
      case error_kind::power:
        return add<error_kind::power>(at, law, f);
      case error_kind::log_normal:
        return add<error_kind::log_normal>(at, law, f);
      case error_kind::box_cox:
        return add<error_kind::box_cox>(at, law, f);
    }
  }
  vec squares() const { return squares_ + student_squares_; }
  // -log of the density but for what no prediction enters.
  [[gnu::always_inline]] vec objective() const {
    return 0.5 * (squares_ + scales_.value()) - probability_;
  }

 private:
  // 0 can be transformed as a bound, but has no density.
  static double positive(const observation& at) {
    return at.value > 0.0 ? at.value : __builtin_nan("");
  }

  void add_student(const observation& at, const residual_law& law, vec f) {
    const vec deviation = any_deviation(law, f);
    const double y = law.kind == error_kind::box_cox ? positive(at) : at.value;
    const vec r = any_difference(law, y, f) / deviation;
    const double nu = law.degrees_of_freedom;
    student_squares_ = student_squares_ + r * r;
    scales_.multiply_square(deviation);
    probability_ = probability_ - (0.5 * (nu + 1.0)) * VARDA_SLEEF(log1p)(r * r / nu);
  }

  void add_censored(const observation& at, const residual_law& law, vec f) {
    const vec deviation = any_deviation(law, f);
    const auto scaled = [&](double y) { return any_difference(law, y, f) / deviation; };
    const vec z = scaled(at.value);
    vec value{};
    if (at.censored == censoring::left) value = log_probability(law, z);
    if (at.censored == censoring::right) value = log_probability(law, -z);
    if (at.censored == censoring::interval) {
      // From 0 on means from the end of the line: nothing that is transformed lies below 0.
      const bool logarithmic = law.kind == error_kind::log_normal;
      const double limit = logarithmic && at.limit < 0.0 ? 0.0 : at.limit;
      const bool from_end = law.kind == error_kind::box_cox && limit <= 0.0;
      value = from_end ? log_probability(law, z) : log_probability(law, scaled(limit), z);
    }
    probability_ = probability_ + choose(deviation > vec{}, value, all(__builtin_nan("")));
  }

  vec squares_{};
  vec student_squares_{};
  vec probability_{};
  log_product scales_;
};

// What of -log of the density no prediction enters: half the logarithms of 2 pi, of the deviations
// that stand alone, the factors of Student's t, and the logarithms of the values that are
// transformed, times the power that the slope of the transformation takes off.
inline vec constant_part(const residual_problem& problem) {
  constexpr double log_2pi = 0x1.d67f1c864beb5p+0;
  vec sum{};
  log_product values;
  double seen = 0.0;
  for (std::size_t e = 0; e < problem.endpoints; ++e) {
    const residual_law& law = problem.laws[e];
    if (law.known) continue;
    double count = 0.0;
    log_product powers;
    for (std::size_t k = 0; k < problem.observations; ++k) {
      const observation& at = problem.observed[k];
      if (at.censored != censoring::none || static_cast<std::size_t>(at.endpoint) != e) continue;
      count += 1.0;
      if (law.kind == error_kind::log_normal) values.multiply_square(all(at.value));
      if (law.kind == error_kind::box_cox) powers.multiply(all(at.value));
    }
    if (law.kind == error_kind::box_cox) sum = sum + (2.0 - 2.0 * law.lambda) * powers.value();
    if (law.degrees_of_freedom > 0.0) {
      sum = sum + count * (2.0 * law.log_beta + VARDA_SLEEF(log)(all(law.degrees_of_freedom)));
      continue;
    }
    seen += count;
    if (count == 0.0 || law.kind == error_kind::combined || is_whole(law.kind)) continue;
    const double s = law.kind == error_kind::proportional ? law.proportional : law.additive;
    sum = sum + count * VARDA_SLEEF(log)(all(s * s));
  }
  return 0.5 * (sum + values.value() + seen * log_2pi);
}

inline bool is_uniform(const residual_problem& problem) {
  if (problem.endpoints != 1 || problem.laws[0].known) return false;
  if (problem.laws[0].degrees_of_freedom > 0.0) return false;
  for (std::size_t k = 0; k < problem.observations; ++k)
    if (problem.observed[k].censored != censoring::none) return false;
  return true;
}

// term(observation, predictions) for all observations and the vectors of individuals from `lane`
// on.
template <std::size_t... Vector, class Term>
inline void add_all(const residual_problem& problem, std::size_t lane,
                    std::index_sequence<Vector...>, Term term) {
  const std::size_t left = problem.individuals - lane;
  const std::size_t stride = problem.stride;
  const double* f = problem.f + lane;
  const observation* const end = problem.observed + problem.observations;
  if (left >= sizeof...(Vector) * width)
    for (const observation* at = problem.observed; at != end; ++at, f += stride)
      term(*at, load(f + Vector * width)...);
  else
    for (const observation* at = problem.observed; at != end; ++at, f += stride)
      term(*at, take(f + Vector * width, left)...);
}

// Of several vectors, all of them full, or of one that may not be.
template <std::size_t... Vector>
inline void write_residuals(const residual_problem& problem, bool uniform, vec constant,
                            std::size_t lane, std::index_sequence<Vector...> vectors) {
  const residual_law& first = problem.laws[0];
  const auto write = [&](vec objective, vec squares, std::size_t from) {
    put(problem.objective + from, objective + constant, problem.individuals - from);
    put(problem.squares + from, squares, problem.individuals - from);
  };
  // The sums are each kind's own, for registers to hold what it needs.
  const auto add_with = [&](auto add) {
    residual_sums sums[sizeof...(Vector)];
    add_all(problem, lane, vectors,
            [&](const observation& at, auto... values) { (add(sums[Vector], at, values), ...); });
    (write(sums[Vector].objective(), sums[Vector].squares(), lane + Vector * width), ...);
  };
  const auto add_of_kind = [&]<error_kind Kind>() {
    add_with([&](residual_sums& sum, const observation& at, vec f) {
      sum.template add<Kind>(at, first, f);
    });
  };
  if (!uniform)
    add_with([&](residual_sums& sum, const observation& at, vec f) {
      sum.add(at, problem.laws[at.endpoint], f);
    });
  else if (first.kind == error_kind::additive)
    add_of_kind.template operator()<error_kind::additive>();
  else if (first.kind == error_kind::proportional)
    add_of_kind.template operator()<error_kind::proportional>();
  else if (first.kind == error_kind::combined)
    add_of_kind.template operator()<error_kind::combined>();
  else if (first.kind == error_kind::combined_sd)
    add_of_kind.template operator()<error_kind::combined_sd>();
  else if (first.kind == error_kind::power)
    add_of_kind.template operator()<error_kind::power>();
  else if (first.kind == error_kind::box_cox)
    add_of_kind.template operator()<error_kind::box_cox>();
  else
    add_of_kind.template operator()<error_kind::log_normal>();
}

// The predictions of different observations may lie a power of two apart, where the cache has place
// for few of them; where there are many, each line of memory is read at once.
void residuals(const residual_problem& problem) {
  constexpr std::size_t line = 8;
  constexpr std::size_t many = 64;
  const vec constant = constant_part(problem);
  const bool uniform = is_uniform(problem);
  std::size_t lane = 0;
  if (problem.observations >= many)
    for (; lane + line <= problem.individuals; lane += line)
      write_residuals(problem, uniform, constant, lane, std::make_index_sequence<line / width>());
  for (; lane < problem.individuals; lane += width)
    write_residuals(problem, uniform, constant, lane, std::make_index_sequence<1>());
}

void exponentials(const double* from, double* to, std::size_t count) {
  for (std::size_t i = 0; i < count; i += width) {
    const std::size_t left = count - i;
    put(to + i, VARDA_SLEEF(exp)(take(from + i, left)), left);
  }
}
