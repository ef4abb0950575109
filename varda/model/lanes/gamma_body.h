// SPDX-License-Identifier: Apache-2.0
//
// The gamma function and the normal distribution function in lanes: a part of kernel_body.h.
// Stirling's series (Abramowitz and Stegun 6.1.40 and 6.3.18) from 10 on; below, the argument is
// moved up by ten, and the product of the ten factors taken off.

constexpr double stirling_from = 10.0;

// log Gamma(x) - (x - 1/2) log x + x - log(2 pi) / 2 for x of 10 and more; the first term left out
// is below 1e-16.
inline vec stirling_rest(vec x) {
  const vec r = 1.0 / x;
  const vec r2 = r * r;
  constexpr double c[] = {1.0 / 12,   -1.0 / 360,      1.0 / 1260, -1.0 / 1680,
                          1.0 / 1188, -691.0 / 360360, 1.0 / 156,  -3617.0 / 122400};
  vec sum = all(c[7]);
  for (int k = 6; k >= 0; --k) sum = sum * r2 + c[k];
  return sum * r;
}

// x (x + 1) ... (x + 9).
inline vec ten_factors(vec x) {
  vec product = x;
  for (int k = 1; k < 10; ++k) product = product * (x + static_cast<double>(k));
  return product;
}

inline vec only_positive(vec x, vec result) {
  return choose(x > vec{}, result, all(__builtin_nan("")));
}

inline vec log_gamma(vec x) {
  constexpr double half_log_2pi = 0x1.d67f1c864beb5p-1;
  const mask low = x < all(stirling_from);
  const vec high = choose(low, x + stirling_from, x);
  const vec stirling =
      ((high - 0.5) * VARDA_SLEEF(log)(high) - high) + (half_log_2pi + stirling_rest(high));
  if (which(low) == 0) return stirling;
  const vec moved = stirling - VARDA_SLEEF(log)(ten_factors(choose(low, x, all(1.0))));
  return only_positive(x, choose(low, moved, stirling));
}

inline vec digamma(vec x) {
  const mask low = x < all(stirling_from);
  const vec high = choose(low, x + stirling_from, x);
  const vec r = 1.0 / high;
  const vec r2 = r * r;
  constexpr double c[] = {1.0 / 12,  -1.0 / 120,     1.0 / 252, -1.0 / 240,
                          1.0 / 132, -691.0 / 32760, 1.0 / 12,  -3617.0 / 8160};
  vec sum = all(c[7]);
  for (int k = 6; k >= 0; --k) sum = sum * r2 + c[k];
  vec result = VARDA_SLEEF(log)(high) - 0.5 * r - sum * r2;
  if (which(low) == 0) return result;
  vec steps{};
  for (int k = 9; k >= 0; --k) steps = steps + 1.0 / (x + static_cast<double>(k));
  return only_positive(x, choose(low, result - steps, result));
}

// log of Gamma(x + n) / Gamma(x) for n not below 0, whose digits do not cancel where x is large.
inline vec log_gamma_ratio(vec x, vec n) {
  const mask low = x < all(stirling_from);
  const vec high = choose(low, x + stirling_from, x);
  const vec sum = high + n;
  vec result = (((sum - 0.5) * VARDA_SLEEF(log1p)(n / high) - n) + n * VARDA_SLEEF(log)(high)) +
               (stirling_rest(sum) - stirling_rest(high));
  if (which(low) != 0) {
    vec quotient = all(1.0);
    for (int k = 0; k < 10; ++k) {
      const vec factor = x + static_cast<double>(k);
      quotient = quotient * (factor / (factor + n));
    }
    result = choose(low, result + VARDA_SLEEF(log)(quotient), result);
  }
  return choose((x > vec{}) & (n >= vec{}), result, all(__builtin_nan("")));
}

inline vec normal_probability(vec x) {
  constexpr double root_half = 0x1.6a09e667f3bcdp-1;
  return 0.5 * VARDA_SLEEF_U15(erfc)(-x * root_half);
}
