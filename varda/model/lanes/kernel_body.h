// SPDX-License-Identifier: Apache-2.0
//
// The loops of a kernel, included by the source file of each instruction set, which defines vec,
// every, root, sign_bits, kernel_name, VARDA_SLEEF, VARDA_SLEEF_U15 and VARDA_KERNEL. Everything is
// local to that file.
#include <cstddef>
#include <cstdint>
#include <utility>

#include "varda/model/lanes/kernel.h"

#if defined(__clang__)
#define VARDA_UNROLL _Pragma("clang loop unroll(full)")
#else
#define VARDA_UNROLL _Pragma("GCC unroll 16")
#endif

namespace varda {

namespace {

using mask = decltype(vec{} < vec{});
using bits = std::uint64_t __attribute__((vector_size(sizeof(vec))));

constexpr std::size_t width = sizeof(vec) / sizeof(double);
constexpr double epsilon = 0x1p-52;
constexpr double largest = 0x1.fffffffffffffp+1023;

inline vec load(const double* from) {
  vec v;
  __builtin_memcpy(&v, from, sizeof v);
  return v;
}
inline void store(double* to, vec v) {
  __builtin_memcpy(to, &v, sizeof v);
}
inline vec all(double x) {
  return vec{} + x;
}
inline bits bits_of(vec x) {
  return reinterpret_cast<bits>(x);
}
inline bits bits_of(mask x) {
  return reinterpret_cast<bits>(x);
}
inline vec number_of(bits x) {
  return reinterpret_cast<vec>(x);
}
inline vec choose(mask where, vec yes, vec no) {
  return number_of((bits_of(where) & bits_of(yes)) | (~bits_of(where) & bits_of(no)));
}
inline vec one_where(mask where) {
  return number_of(bits_of(where) & bits_of(all(1.0)));
}
inline unsigned which(mask where) {
  return sign_bits(reinterpret_cast<vec>(where));
}
constexpr unsigned every_lane = (1U << width) - 1U;

inline vec magnitude(vec x) {
  return number_of(bits_of(x) & (bits{} + 0x7fffffffffffffffU));
}
inline vec signed_like(vec x, vec sign) {
  return number_of(bits_of(x) | (bits_of(sign) & (bits{} + 0x8000000000000000U)));
}
inline mask not_finite(vec x) {
  return ~(magnitude(x) <= all(largest));
}
// The larger; the first where either is NaN.
inline vec larger(vec a, vec b) {
  return choose(b > a, b, a);
}
inline vec smaller(vec a, vec b) {
  return choose(b < a, b, a);
}

// Numbers of 2^52 and more are whole.
inline vec nearest_whole(vec x) {
  const vec big = all(0x1p52);
  const vec size = magnitude(x);
  return choose(size < big, signed_like((size + big) - big, x), x);
}
inline vec floor_of(vec x) {
  const vec r = nearest_whole(x);
  return choose(r > x, r - 1.0, r);
}
inline vec ceiling_of(vec x) {
  const vec r = nearest_whole(x);
  return choose(r < x, signed_like(r + 1.0, x), r);
}

// exp(y log x) is within 9 units of the last place where the exponent is small, and costs half of
// the function that takes care of the rest.
inline vec power_of(vec x, vec y) {
  const vec exponent = y * VARDA_SLEEF(log)(x);
  const mask plain =
      (x >= all(0x1p-1022)) & (x <= all(largest)) & (magnitude(exponent) < all(16.0));
  const unsigned which_plain = which(plain);
  if (which_plain == 0) return VARDA_SLEEF(pow)(x, y);
  const vec fast = VARDA_SLEEF(exp)(exponent);
  return which_plain == every_lane ? fast : choose(plain, fast, VARDA_SLEEF(pow)(x, y));
}

// A positive number's logarithm to base 2 with the mantissa taken for linear, and its inverse: 9 %
// off at most, and the same on all machines.
inline vec rough_log2(vec x) {
  const vec shifted = number_of((bits_of(x) >> 20) | bits_of(all(0x1p52))) - 0x1p52;
  return shifted * 0x1p-32 - 1023.0;
}
inline vec rough_exp2(vec y) {
  const vec shifted = (y + 1023.0) * 0x1p32 + 0x1p52;
  return number_of((bits_of(shifted) & (bits{} + 0x000fffffffffffffU)) << 20);
}

template <class Function>
inline void each(double* out, const double* a, std::size_t lanes, Function f) {
  for (std::size_t i = 0; i < lanes; i += lane_quantum) {
    VARDA_UNROLL for (std::size_t k = 0; k < lane_quantum; k += width)
        store(out + i + k, f(load(a + i + k)));
  }
}
template <class Function>
inline void each(double* out, const double* a, const double* b, std::size_t lanes, Function f) {
  for (std::size_t i = 0; i < lanes; i += lane_quantum) {
    VARDA_UNROLL for (std::size_t k = 0; k < lane_quantum; k += width)
        store(out + i + k, f(load(a + i + k), load(b + i + k)));
  }
}
template <class Function>
inline void each(double* out, const double* a, const double* b, const double* c, std::size_t lanes,
                 Function f) {
  for (std::size_t i = 0; i < lanes; i += lane_quantum) {
    VARDA_UNROLL for (std::size_t k = 0; k < lane_quantum; k += width)
        store(out + i + k, f(load(a + i + k), load(b + i + k), load(c + i + k)));
  }
}

#include "varda/model/lanes/gamma_body.h"

// Below, with the density of observations.
inline vec log_normal_probability(vec z);
inline vec log_normal_probability(vec lower, vec upper);

void run(const lane_operation* operations, std::size_t count, double* const* registers,
         std::size_t n) {
  const vec zero{};
  for (const lane_operation* o = operations; o != operations + count; ++o) {
    double* out = registers[o->out];
    const double* a = registers[o->a];
    const double* b = registers[o->b];
    const double* c = registers[o->c];
    switch (o->code) {
      case lane_code::copy:
        each(out, a, n, [](vec x) { return x; });
        break;
      case lane_code::negate:
        each(out, a, n, [](vec x) { return -x; });
        break;
      case lane_code::add:
        each(out, a, b, n, [](vec x, vec y) { return x + y; });
        break;
      case lane_code::subtract:
        each(out, a, b, n, [](vec x, vec y) { return x - y; });
        break;
      case lane_code::multiply:
        each(out, a, b, n, [](vec x, vec y) { return x * y; });
        break;
      case lane_code::divide:
        each(out, a, b, n, [](vec x, vec y) { return x / y; });
        break;
      case lane_code::multiply_add:
        each(out, a, b, c, n, [](vec x, vec y, vec z) { return x * y + z; });
        break;
      case lane_code::multiply_subtract:
        each(out, a, b, c, n, [](vec x, vec y, vec z) { return x * y - z; });
        break;
      case lane_code::subtract_multiply:
        each(out, a, b, c, n, [](vec x, vec y, vec z) { return z - x * y; });
        break;
      case lane_code::less:
        each(out, a, b, n, [](vec x, vec y) { return one_where(x < y); });
        break;
      case lane_code::less_equal:
        each(out, a, b, n, [](vec x, vec y) { return one_where(x <= y); });
        break;
      case lane_code::equal:
        each(out, a, b, n, [](vec x, vec y) { return one_where(x == y); });
        break;
      case lane_code::not_equal:
        each(out, a, b, n, [](vec x, vec y) { return one_where(x != y); });
        break;
      case lane_code::both:
        each(out, a, b, n, [=](vec x, vec y) { return one_where((x != zero) & (y != zero)); });
        break;
      case lane_code::either:
        each(out, a, b, n, [=](vec x, vec y) { return one_where((x != zero) | (y != zero)); });
        break;
      case lane_code::select:
        each(out, a, b, c, n, [=](vec x, vec y, vec z) { return choose(x == zero, z, y); });
        break;
      case lane_code::minimum:
        each(out, a, b, n, [](vec x, vec y) { return choose((x <= y) | (x != x), x, y); });
        break;
      case lane_code::maximum:
        each(out, a, b, n, [](vec x, vec y) { return choose((x >= y) | (x != x), x, y); });
        break;
      case lane_code::power:
        each(out, a, b, n, power_of);
        break;
      case lane_code::exponential:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(exp)(x); });
        break;
      case lane_code::expm1:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(expm1)(x); });
        break;
      case lane_code::logarithm:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(log)(x); });
        break;
      case lane_code::log1p:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(log1p)(x); });
        break;
      case lane_code::log2:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(log2)(x); });
        break;
      case lane_code::log10:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(log10)(x); });
        break;
      case lane_code::square_root:
        each(out, a, n, root);
        break;
      case lane_code::absolute:
        each(out, a, n, magnitude);
        break;
      case lane_code::floor:
        each(out, a, n, floor_of);
        break;
      case lane_code::ceiling:
        each(out, a, n, ceiling_of);
        break;
      case lane_code::sine:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(sin)(x); });
        break;
      case lane_code::cosine:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(cos)(x); });
        break;
      case lane_code::tangent:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(tan)(x); });
        break;
      case lane_code::arctangent:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(atan)(x); });
        break;
      case lane_code::tanh:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(tanh)(x); });
        break;
      case lane_code::error_function:
        each(out, a, n, [](vec x) { return VARDA_SLEEF(erf)(x); });
        break;
      case lane_code::log_gamma:
        each(out, a, n, log_gamma);
        break;
      case lane_code::digamma:
        each(out, a, n, digamma);
        break;
      case lane_code::log_gamma_ratio:
        each(out, a, b, n, log_gamma_ratio);
        break;
      case lane_code::normal_cdf:
        each(out, a, n, normal_probability);
        break;
      case lane_code::log_normal_cdf:
        each(out, a, n, [](vec x) { return log_normal_probability(x); });
        break;
      case lane_code::log_normal_share:
        each(out, a, b, n, [](vec x, vec y) { return log_normal_probability(x, y); });
        break;
    }
  }
}

// Sums of so many terms that the compiler knows the number: copies of pointers and coefficients in
// registers make the difference.
template <std::size_t Terms>
struct weighted_sum {
  explicit weighted_sum(const lane_terms& terms) {
    VARDA_UNROLL for (std::size_t j = 0; j < Terms; ++j) {
      weight[j] = terms.coefficients[j];
      block[j] = terms.blocks[j];
    }
  }
  vec operator()(std::size_t at) const {
    vec sum = weight[0] * load(block[0] + at);
    VARDA_UNROLL for (std::size_t j = 1; j < Terms; ++j) sum =
        sum + weight[j] * load(block[j] + at);
    return sum;
  }
  double weight[Terms];
  const double* block[Terms];
};

template <std::size_t Terms>
void combine_some(double* out, const double* x, const double* h, const lane_terms& terms,
                  const lane_shape& shape) {
  const weighted_sum<Terms> sum(terms);
  for (std::size_t row = 0; row < shape.rows; ++row) {
    const std::size_t first = row * shape.stride;
    for (std::size_t i = 0; i < shape.lanes; i += width)
      store(out + first + i, load(x + first + i) + load(h + i) * sum(first + i));
  }
}

template <std::size_t Terms>
void measure_some(const lane_clocks& clocks, const double* h, const lane_terms& terms,
                  const double* x, const double* next, const lane_tolerance& tolerance,
                  const lane_shape& shape) {
  const weighted_sum<Terms> sum(terms);
  for (std::size_t i = 0; i < shape.lanes; i += width) {
    const vec step = load(h + i);
    vec error{};
    mask bad{};
    for (std::size_t row = 0; row < shape.rows; ++row) {
      const std::size_t at = row * shape.stride + i;
      const vec after = load(next + at);
      const vec size = larger(magnitude(load(x + at)), magnitude(after));
      const vec ratio =
          magnitude(step * sum(at)) / (tolerance.absolute + tolerance.relative * size);
      // An infinite state has an infinite tolerance, which would accept anything.
      bad |= not_finite(ratio) | not_finite(after);
      error = larger(error, ratio);
    }
    store(clocks.error + i, choose(bad, all(__builtin_nan("")), error));
  }
}

template <std::size_t Terms>
void near_limit_of_some(double* out, const double* one, const double* other,
                        const lane_terms& terms, const double* x, double limit,
                        const lane_tolerance& tolerance, const lane_shape& shape) {
  const weighted_sum<Terms> sum(terms);
  for (std::size_t i = 0; i < shape.lanes; i += width) {
    vec slopes{};
    vec states{};
    for (std::size_t row = 0; row < shape.rows; ++row) {
      const std::size_t at = row * shape.stride + i;
      const vec weight = tolerance.absolute + tolerance.relative * magnitude(load(x + at));
      const vec slope = (load(one + at) - load(other + at)) / weight;
      const vec state = sum(at) / weight;
      slopes += slope * slope;
      states += state * state;
    }
    store(out + i, one_where(slopes > (limit * limit) * states));
  }
}

template <template <std::size_t> class Loop, class... Arguments>
void dispatch(std::size_t terms, const Arguments&... arguments) {
  switch (terms) {
    case 1:
      return Loop<1>::run(arguments...);
    case 2:
      return Loop<2>::run(arguments...);
    case 3:
      return Loop<3>::run(arguments...);
    case 4:
      return Loop<4>::run(arguments...);
    case 5:
      return Loop<5>::run(arguments...);
    case 6:
      return Loop<6>::run(arguments...);
    case 7:
      return Loop<7>::run(arguments...);
    case 8:
      return Loop<8>::run(arguments...);
    case 9:
      return Loop<9>::run(arguments...);
    default:
      return;
  }
}

template <std::size_t Terms>
struct combine_loop {
  static constexpr auto run = combine_some<Terms>;
};
template <std::size_t Terms>
struct measure_loop {
  static constexpr auto run = measure_some<Terms>;
};
template <std::size_t Terms>
struct limit_loop {
  static constexpr auto run = near_limit_of_some<Terms>;
};

void combine(double* out, const double* x, const double* h, const lane_terms& terms,
             const lane_shape& shape) {
  dispatch<combine_loop>(terms.count, out, x, h, terms, shape);
}

void measure_errors(const lane_clocks& clocks, const double* h, const lane_terms& terms,
                    const double* x, const double* next, const lane_tolerance& tolerance,
                    const lane_shape& shape) {
  dispatch<measure_loop>(terms.count, clocks, h, terms, x, next, tolerance, shape);
}

void near_limit(double* out, const double* one, const double* other, const lane_terms& terms,
                const double* x, double limit, const lane_tolerance& tolerance,
                const lane_shape& shape) {
  dispatch<limit_loop>(terms.count, out, one, other, terms, x, limit, tolerance, shape);
}

void first_steps(const lane_clocks& clocks, const double* x, const double* slope,
                 const lane_tolerance& tolerance, double share, const lane_shape& shape) {
  for (std::size_t i = 0; i < shape.lanes; i += width) {
    const vec known = load(clocks.step + i);
    if (which(known == vec{}) == 0) continue;
    vec state{};
    vec change{};
    for (std::size_t row = 0; row < shape.rows; ++row) {
      const std::size_t at = row * shape.stride + i;
      const vec size = magnitude(load(x + at));
      const vec weight = tolerance.absolute + tolerance.relative * size;
      state = larger(state, size / weight);
      change = larger(change, magnitude(load(slope + at)) / weight);
    }
    const vec span = load(clocks.stop + i) - load(clocks.time + i);
    const vec moving =
        choose((state > vec{}) & (change > vec{}), share * state / change, 1e-3 * span);
    const vec step = choose(not_finite(moving), span, smaller(span, moving));
    store(clocks.step + i, choose(known == vec{}, step, known));
  }
}

// A step that would leave next to nothing is stretched; rounding could not tell it apart.
inline mask is_last(vec left, vec step) {
  return left <= 1.01 * step;
}

void choose_steps(const lane_clocks& clocks, std::size_t lanes) {
  for (std::size_t i = 0; i < lanes; i += width) {
    const vec left = load(clocks.stop + i) - load(clocks.time + i);
    const vec step = load(clocks.step + i);
    store(clocks.taken + i, choose(is_last(left, step), left, step));
  }
}

void finish_steps(const lane_clocks& clocks, double* x, const double* next,
                  const lane_control& control, const lane_shape& shape, std::uint8_t* events) {
  for (std::size_t i = 0; i < shape.lanes; i += lane_quantum) {
    unsigned flags = 0;
    for (std::size_t k = 0; k < lane_quantum; k += width) {
      const std::size_t at = i + k;
      const vec time = load(clocks.time + at);
      const vec stop = load(clocks.stop + at);
      const vec taken = load(clocks.taken + at);
      const vec step = load(clocks.step + at);
      const vec error = load(clocks.error + at);
      const vec tries = load(clocks.tries + at) + 1.0;
      const mask last = is_last(stop - time, step);
      const mask accepted = error <= all(1.0);
      const vec wanted = 0.9 * rough_exp2(control.error_exponent * rough_log2(error));
      const vec factor =
          choose(error == error, smaller(all(5.0), larger(all(0.2), wanted)), all(0.2));
      const vec scaled = taken * factor;
      // A step cut short by the end says little about the length that would do.
      const vec proposed = choose(accepted & last, larger(step, scaled), scaled);
      const vec now = choose(accepted, choose(last, stop, time + taken), time);
      const vec least = (4.0 * epsilon) * larger(magnitude(time), magnitude(stop));
      store(clocks.time + at, now);
      store(clocks.step + at, proposed);
      store(clocks.tries + at, tries);
      const mask stuck = ~accepted & (proposed <= least);
      const mask arrived = accepted & last;
      const mask tired = tries >= all(control.most_tries);
      flags |= which(arrived | stuck | tired) << k;
      if (which(accepted) == every_lane) {
        for (std::size_t row = 0; row < shape.rows; ++row)
          store(x + row * shape.stride + at, load(next + row * shape.stride + at));
      } else {
        for (std::size_t row = 0; row < shape.rows; ++row) {
          const std::size_t place = row * shape.stride + at;
          store(x + place, choose(accepted, load(next + place), load(x + place)));
        }
      }
    }
    events[i / lane_quantum] = static_cast<std::uint8_t>(flags);
  }
}

// A block of the exponential's matrix: rows of A dt, and the column of the input after them. The
// row below, zeros and a 1 in the end, is left out.
template <std::size_t N, bool Input>
struct flow {
  static constexpr std::size_t columns = N + (Input ? 1 : 0);
  vec at[N][columns];

  // The left factor's column does not matter: it meets a row of zeros.
  friend flow operator*(const flow& a, const flow& b) {
    flow c;
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      VARDA_UNROLL for (std::size_t j = 0; j < columns; ++j) {
        vec sum = a.at[i][0] * b.at[0][j];
        VARDA_UNROLL for (std::size_t k = 1; k < N; ++k) sum = sum + a.at[i][k] * b.at[k][j];
        c.at[i][j] = sum;
      }
    }
    return c;
  }
  void add(double weight, const flow& b) {
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      VARDA_UNROLL for (std::size_t j = 0; j < columns; ++j) at[i][j] =
          at[i][j] + weight * b.at[i][j];
    }
  }
  void add_identity(double weight) {
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) at[i][i] = at[i][i] + weight;
  }
};

// Taylor's polynomial of degree 12 by Paterson and Stockmeyer's scheme (SIAM J. Comput. 2, 1973)
// of a matrix whose norm is at most 0.3, where the rest is below the rounding; then squared as
// often as the lane was halved.
template <std::size_t N, bool Input>
void propagate_some(const linear_lanes& system, double* x, const double* time, const double* stop,
                    const lane_shape& shape) {
  constexpr double largest_norm = 0.3;
  constexpr double f2 = 2.0, f3 = 6.0, f4 = 24.0, f5 = 120.0, f6 = 720.0, f7 = 5040.0, f8 = 40320.0,
                   f9 = 362880.0, f10 = 3628800.0, f11 = 39916800.0, f12 = 479001600.0;
  const double* a[N * N];
  VARDA_UNROLL for (std::size_t k = 0; k < N * N; ++k) a[k] = system.a[k];
  for (std::size_t lane = 0; lane < shape.lanes; lane += width) {
    const vec dt = load(stop + lane) - load(time + lane);
    flow<N, Input> b;
    vec norm{};
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      vec sum{};
      VARDA_UNROLL for (std::size_t j = 0; j < N; ++j) {
        b.at[i][j] = a[i * N + j] == nullptr ? vec{} : load(a[i * N + j] + lane) * dt;
        sum = sum + magnitude(b.at[i][j]);
      }
      if constexpr (Input) b.at[i][N] = load(system.input + i * shape.stride + lane) * dt;
      norm = larger(norm, sum);
    }
    // 2^halvings is the norm over the largest or more.
    const bits exponent = bits_of(norm * (1.0 / largest_norm)) >> 52;
    const vec halvings = smaller(
        all(60.0), larger(vec{}, number_of(exponent | bits_of(all(0x1p52))) - 0x1p52 - 1022.0));
    const vec scale = number_of(bits_of((1023.0 - halvings) + 0x1p52) << 52);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      VARDA_UNROLL for (std::size_t j = 0; j < flow<N, Input>::columns; ++j) b.at[i][j] =
          b.at[i][j] * scale;
    }

    const flow<N, Input> b2 = b * b;
    const flow<N, Input> b3 = b2 * b;
    const flow<N, Input> b4 = b2 * b2;
    flow<N, Input> e{};
    e.add(1.0 / f12, b4);
    e.add(1.0 / f11, b3);
    e.add(1.0 / f10, b2);
    e.add(1.0 / f9, b);
    e.add_identity(1.0 / f8);
    e = e * b4;
    e.add(1.0 / f7, b3);
    e.add(1.0 / f6, b2);
    e.add(1.0 / f5, b);
    e.add_identity(1.0 / f4);
    e = e * b4;
    e.add(1.0 / f3, b3);
    e.add(1.0 / f2, b2);
    e.add(1.0, b);
    e.add_identity(1.0);
    for (double k = 0.0;; k += 1.0) {
      const mask again = halvings > all(k);
      if (which(again) == 0) break;
      flow<N, Input> square = e * e;
      if constexpr (Input) {
        VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) square.at[i][N] =
            square.at[i][N] + e.at[i][N];
      }
      VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
        VARDA_UNROLL for (std::size_t j = 0; j < flow<N, Input>::columns; ++j) e.at[i][j] =
            choose(again, square.at[i][j], e.at[i][j]);
      }
    }

    vec before[N];
    VARDA_UNROLL for (std::size_t j = 0; j < N; ++j) before[j] = load(x + j * shape.stride + lane);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      vec sum = e.at[i][0] * before[0];
      VARDA_UNROLL for (std::size_t j = 1; j < N; ++j) sum = sum + e.at[i][j] * before[j];
      if constexpr (Input) sum = sum + e.at[i][N];
      store(x + i * shape.stride + lane, sum);
    }
  }
}

template <bool Input>
void propagate_one(const linear_lanes& system, double* x, const double* time, const double* stop,
                   const lane_shape& shape) {
  for (std::size_t lane = 0; lane < shape.lanes; lane += width) {
    const vec dt = load(stop + lane) - load(time + lane);
    const vec z = system.a[0] == nullptr ? vec{} : load(system.a[0] + lane) * dt;
    vec after = load(x + lane) * VARDA_SLEEF(exp)(z);
    if constexpr (Input) {
      const vec mean = choose(z == vec{}, all(1.0), VARDA_SLEEF(expm1)(z) / z);
      after = after + load(system.input + lane) * dt * mean;
    }
    store(x + lane, after);
  }
}

void propagate(const linear_lanes& system, double* x, const double* time, const double* stop,
               const lane_shape& shape) {
  using loop =
      void (*)(const linear_lanes&, double*, const double*, const double*, const lane_shape&);
  static constexpr loop loops[linear_lanes::most_states][2] = {
      {propagate_one<false>, propagate_one<true>},
      {propagate_some<2, false>, propagate_some<2, true>},
      {propagate_some<3, false>, propagate_some<3, true>},
      {propagate_some<4, false>, propagate_some<4, true>}};
  loops[system.size - 1][system.input == nullptr ? 0 : 1](system, x, time, stop, shape);
}

#include "varda/model/lanes/closed_forms_body.h"
#include "varda/model/lanes/products_body.h"
#include "varda/model/lanes/residuals_body.h"

}  // namespace

extern const lane_kernel VARDA_KERNEL;
constinit const lane_kernel VARDA_KERNEL = {
    kernel_name,  run,
    combine,      first_steps,
    choose_steps, measure_errors,
    finish_steps, near_limit,
    propagate,    {closed_forms<1>, closed_forms<2>, closed_forms<3>},
    residuals,    exponentials,
    add_products, weigh_products};

}  // namespace varda
