// SPDX-License-Identifier: Apache-2.0
//
// Linear compartments in lanes: a part of kernel_body.h. A subject's history is the same for all
// lanes of a vector but for what parameters shift, lag times and durations; of that a list is kept,
// and what each entry of it has brought by a given time is added up. Nothing needs an order in
// which the entries come, since the system is linear.

// From here on 1 - exp(-x) loses less than three binary digits to the subtraction.
constexpr double plain_difference = 0.125;

// log(2) in two parts, the leading one with so few bits that its product with a whole number is
// exact.
constexpr double log_2_high = 0x1.62e42fee00000p-1;
constexpr double log_2_low = 0x1.a39ef35793c76p-33;

// The exponential of less counts as 0.
constexpr double smallest_exponent = -708.0;

// What decay() is made of.
struct decay_numbers {
  // Adding the shift rounds to a whole number and leaves it in the lowest bits.
  vec shift = every(0x1.8p52);
  vec log2_e = every(0x1.71547652b82fep+0);
  vec log_high = every(log_2_high);
  vec log_low = every(log_2_low);
  vec one = every(1.0);
  vec smallest = every(smallest_exponent);
  vec c[10] = {every(0x1.0000000000001p-1),  every(0x1.5555555555556p-3),
               every(0x1.5555555553d68p-5),  every(0x1.11111111109b5p-7),
               every(0x1.6c16c17889f3cp-10), every(0x1.a01a01a7c2f2cp-13),
               every(0x1.a019b914881bap-16), every(0x1.71de0db2eb873p-19),
               every(0x1.28917c9f3a495p-22), every(0x1.af389eea54156p-26)};
};
constexpr decay_numbers numbers_of_decay;

// The same where the compiler does not see their values, of which it would copy one into a register
// before each use: instructions can take them from memory.
inline const decay_numbers& unseen_numbers_of_decay() {
  const decay_numbers* here = &numbers_of_decay;
  __asm__("" : "+r"(here));
  return *here;
}

// exp(x) for smallest_exponent <= x <= 0, by reduction to half an octave (Cody and Waite, Software
// Manual for the Elementary Functions, 1980) and a polynomial, without a branch and so short that
// the exponentials of several observations overlap. The polynomial is that of degree 9 that meets
// (exp(r) - 1 - r) / r^2 at the Chebyshev nodes of |r| <= log(2) / 2, computed by mpmath; with it
// the truncation error is 1.6e-17, and that of the result below one unit in the last place.
[[gnu::always_inline]] inline vec decay_above_smallest(vec x, const decay_numbers& with) {
  const vec shifted = x * with.log2_e + with.shift;
  const vec whole = shifted - with.shift;
  const vec r = (x - whole * with.log_high) - whole * with.log_low;
  const vec r2 = r * r;
  const vec r4 = r2 * r2;
  const vec c0 = with.c[0] + r * with.c[1];
  const vec c2 = with.c[2] + r * with.c[3];
  const vec c4 = with.c[4] + r * with.c[5];
  const vec c6 = with.c[6] + r * with.c[7];
  const vec c8 = with.c[8] + r * with.c[9];
  const vec q = (c0 + r2 * c2) + r4 * ((c4 + r2 * c6) + r4 * c8);
  const vec fraction = with.one + (r + r2 * q);
  return number_of(bits_of(fraction) + (bits_of(shifted) << 52));
}

// exp(x) for x <= 0, 0 below 3.3e-308.
inline vec decay(vec x, const decay_numbers& with) {
  return number_of(bits_of(decay_above_smallest(x, with)) & ~bits_of(x < with.smallest));
}
inline vec decay(vec x) {
  return decay(x, numbers_of_decay);
}

// (1 - exp(-x)) / x for 0 <= x <= plain_difference: the sum of (-x)^k / (k + 1)!, whose first term
// left out is below 1e-17.
inline vec mean_decay(vec x) {
  constexpr double over[] = {1.0,          1.0 / 2,       1.0 / 6,       1.0 / 24,
                             1.0 / 120,    1.0 / 720,     1.0 / 5040,    1.0 / 40320,
                             1.0 / 362880, 1.0 / 3628800, 1.0 / 39916800};
  vec sum = all(over[10]);
  VARDA_UNROLL for (std::size_t k = 10; k-- > 0;) sum = over[k] - x * sum;
  return sum;
}

// 1 - exp(-x) for x >= 0, given exp(-x).
inline vec saturation(vec x, vec decayed) {
  const mask close = x <= all(plain_difference);
  const vec plain = 1.0 - decayed;
  return which(close) == 0 ? plain : choose(close, x * mean_decay(x), plain);
}

// The integral of exp(-k s) over s from 0 to t, given exp(-k t).
inline vec exposure(vec k, vec t, vec decayed) {
  const vec x = k * t;
  const mask close = x <= all(plain_difference);
  const vec plain = (1.0 - decayed) / k;
  return which(close) == 0 ? plain : choose(close, t * mean_decay(x), plain);
}

// (exp(-k t) - exp(-ka t)) / (ka - k), given both exponentials and 1 / (ka - k): what stands at
// time t in the second of two compartments in a row, per unit of rate and amount in the first. With
// the slower rate s and d = |ka - k| it is exp(-s t) (1 - exp(-d t)) / d, which cannot overflow and
// has a limit where the rates are equal.
inline vec bateman(vec ka, vec k, vec t, vec decayed_ka, vec decayed_k, vec per_difference) {
  const vec d = magnitude(ka - k);
  const vec x = d * t;
  const mask close = x <= all(plain_difference);
  const vec plain = (decayed_k - decayed_ka) * per_difference;
  if (which(close) == 0) return plain;
  return choose(close, choose(ka < k, decayed_ka, decayed_k) * (t * mean_decay(x)), plain);
}

inline vec bateman(vec ka, vec k, vec t) {
  return bateman(ka, k, t, decay(-ka * t), decay(-k * t), 1.0 / (ka - k));
}

// The integral of bateman(ka, k, s) over s from 0 to t: t^2 times the second divided difference of
// exp at 0, -ka t and -k t. Over the two nodes that lie farthest apart it is a difference that
// cancels only where all three are close; there its Taylor series, the sum of
// (-1)^n h_n(x, y) / (n + 2)! with the complete homogeneous polynomials h_n, whose terms fall at
// least as fast as 1 / n!.
inline vec bateman_exposure(vec ka, vec k, vec t) {
  const vec x = smaller(ka, k) * t;
  const vec y = larger(ka, k) * t;
  const mask far = y > all(1.0);
  vec result{};
  if (which(far) != 0) {
    const vec slow = decay(-x);
    const vec plain = exposure(x, all(1.0), slow);
    result = t * t * (plain - bateman(x, y, all(1.0), slow, decay(-y), 1.0 / (x - y))) / y;
  }
  if (which(far) == every_lane) return result;
  vec sum{};
  vec h = all(1.0);
  vec power = all(1.0);
  double factor = 0.5;
  for (int n = 0; n < 20; ++n) {
    sum = sum + factor * h;
    power = power * y;
    h = x * h + power;
    factor /= -(n + 3);
  }
  return choose(far, result, t * t * sum);
}

// The sum of exp(-k (age + j interval)) over j = 0, 1, ..., for 0 <= age <= interval, and that of
// bateman(ka, k, age + j interval): the difference of two geometric sums over their common
// denominator, which leaves positive terms alone.
inline vec decay_sum(vec k, vec age, vec interval) {
  const vec x = k * interval;
  return decay(-k * age) / saturation(x, decay(-x));
}
inline vec bateman_sum(vec ka, vec k, vec age, vec interval) {
  const vec numerator =
      bateman(ka, k, age) + decay(-(ka + k) * age) * bateman(ka, k, interval - age);
  const vec xa = ka * interval;
  const vec x = k * interval;
  return numerator / (saturation(xa, decay(-xa)) * saturation(x, decay(-x)));
}

// The motion of amounts A' = -M A of a mammillary system taken apart. With the scale s (1 for the
// central compartment, sqrt(to / from) for a peripheral one) the matrix of A / s is symmetric, so
// that its eigenvectors are orthogonal and stay well conditioned where eigenvalues are close.
// Jacobi's rotations (Golub and Van Loan, Matrix Computations, 8.5) are exact after one for two
// compartments, and for a positive definite matrix they keep small eigenvalues to high relative
// accuracy (Demmel and Veselic, SIAM J. Matrix Anal. Appl. 13, 1992).
template <std::size_t N>
struct spectrum {
  vec rate[N];
  vec vector[N][N];  // [compartment][eigenvalue]
  vec scale[N];
};

// Rotates coordinates P < Q so that a[P][Q] vanishes, and returns in which lanes there was anything
// to do. Only the upper triangle of `a` is kept.
template <std::size_t N, std::size_t P, std::size_t Q>
inline mask rotate(vec (&a)[N][N], vec (&vector)[N][N]) {
  constexpr double negligible = 8.0 * epsilon;
  const vec b = a[P][Q];
  const mask wanted = b * b > (negligible * negligible) * magnitude(a[P][P] * a[Q][Q]);
  if (which(wanted) == 0) return wanted;
  const vec h = a[Q][Q] - a[P][P];
  const vec r = root(h * h + 4.0 * (b * b));
  const vec angle = signed_like(all(2.0), h) * b / (magnitude(h) + r);
  const vec t = choose(wanted, angle, vec{});
  const vec c = choose(wanted, 1.0 / root(1.0 + t * t), all(1.0));
  const vec s = t * c;
  a[P][P] = a[P][P] - t * b;
  a[Q][Q] = a[Q][Q] + t * b;
  a[P][Q] = choose(wanted, vec{}, b);
  const auto turn = [&](vec& x, vec& y) {
    const vec old = x;
    x = choose(wanted, c * old - s * y, x);
    y = choose(wanted, s * old + c * y, y);
  };
  if constexpr (N == 3) {
    constexpr std::size_t K = 3 - P - Q;
    turn(K < P ? a[K][P] : a[P][K], K < Q ? a[K][Q] : a[Q][K]);
  }
  VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) turn(vector[i][P], vector[i][Q]);
  return wanted;
}

// Starts from the eigenvector of the largest eigenvalue, by a few Newton steps, which leaves one
// full rotation and small corrections instead of some nine rotations. A poor start would still be
// turned into the right answer, but the small eigenvalues of a matrix of wide range would lose
// digits.
inline void start_from_fastest(vec (&a)[3][3], vec (&vector)[3][3]) {
  const vec p = a[0][0], q = a[1][1], r = a[2][2];
  const vec b = a[0][1], c = a[0][2];
  const vec high = larger(q, r);
  const vec half = 0.5 * (p - high);
  // With both peripheral rates at the higher one: not below the eigenvalue, and close to it.
  vec fastest = high + half + root(half * half + (b * b + c * c));
  mask good = fastest < 1e4 * smaller(q, r);
  const vec trace = p + q + r;
  const vec minors = p * (q + r) + q * r - b * b - c * c;
  const vec determinant = (p * q - b * b) * r - c * c * q;
  for (int step = 0; step < 3; ++step) {
    const vec slope = (3.0 * fastest - 2.0 * trace) * fastest + minors;
    fastest = fastest - (((fastest - trace) * fastest + minors) * fastest - determinant) / slope;
  }
  good &= fastest - high > 1e-6 * fastest;
  if (which(good) == 0) return;

  // The reflection I - w w' / g that takes the first axis to the eigenvector v.
  vec w[3] = {all(1.0), b / (fastest - q), c / (fastest - r)};
  const vec inverse = 1.0 / root(1.0 + w[1] * w[1] + w[2] * w[2]);
  VARDA_UNROLL for (std::size_t i = 0; i < 3; ++i) w[i] = w[i] * inverse;
  w[0] = w[0] + 1.0;
  const vec per_g = 1.0 / w[0];
  const vec u[3] = {p * w[0] + b * w[1] + c * w[2], b * w[0] + q * w[1], c * w[0] + r * w[2]};
  const vec twist = 0.5 * per_g * (w[0] * u[0] + w[1] * u[1] + w[2] * u[2]);
  VARDA_UNROLL for (std::size_t i = 0; i < 3; ++i) {
    VARDA_UNROLL for (std::size_t j = i; j < 3; ++j) {
      const vec turn = w[i] * w[j] * per_g;
      const vec change = per_g * (u[i] * w[j] + w[i] * u[j]) - 2.0 * twist * turn;
      a[i][j] = choose(good, a[i][j] - change, a[i][j]);
      vector[i][j] = choose(good, vector[i][j] - turn, vector[i][j]);
      if (i != j) vector[j][i] = choose(good, vector[j][i] - turn, vector[j][i]);
    }
  }
  rotate<3, 1, 2>(a, vector);
}

template <std::size_t N>
inline spectrum<N> decompose(vec elimination, const vec* to, const vec* from) {
  spectrum<N> found;
  vec a[N][N]{};
  VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
    VARDA_UNROLL for (std::size_t j = 0; j < N; ++j) found.vector[i][j] = all(i == j ? 1.0 : 0.0);
  }
  a[0][0] = elimination;
  found.scale[0] = all(1.0);
  vec determinant = elimination;
  VARDA_UNROLL for (std::size_t j = 1; j < N; ++j) {
    a[0][0] = a[0][0] + to[j - 1];
    a[0][j] = -root(to[j - 1] * from[j - 1]);
    a[j][j] = from[j - 1];
    found.scale[j] = root(to[j - 1] / from[j - 1]);
    determinant = determinant * from[j - 1];
  }
  if constexpr (N == 2) rotate<2, 0, 1>(a, found.vector);
  if constexpr (N == 3) {
    start_from_fastest(a, found.vector);
    constexpr int most_sweeps = 20;
    for (int sweep = 0; sweep < most_sweeps; ++sweep) {
      const mask first = rotate<3, 0, 1>(a, found.vector);
      const mask second = rotate<3, 0, 2>(a, found.vector);
      if (which(rotate<3, 1, 2>(a, found.vector) | first | second) == 0) break;
    }
  }
  VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) found.rate[i] = a[i][i];
  // The smallest eigenvalue carries the rounding errors of the largest; the product does not.
  if constexpr (N > 1) {
    vec least = found.rate[0];
    VARDA_UNROLL for (std::size_t i = 1; i < N; ++i) least = smaller(found.rate[i], least);
    mask taken{};
    mask slowest[N];
    vec exact = determinant;
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      slowest[i] = (found.rate[i] == least) & ~taken;
      taken |= slowest[i];
      exact = choose(slowest[i], exact, exact / found.rate[i]);
    }
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) found.rate[i] =
        choose(slowest[i], exact, found.rate[i]);
  }
  return found;
}

inline mask inadmissible(vec x) {
  return ~((x > vec{}) & (x <= all(largest)));
}
inline mask negative_or_worse(vec x) {
  return ~((x >= vec{}) & (x <= all(largest)));
}

// `left` numbers from `from` on; the lanes beyond them repeat the last.
inline vec take(const double* from, std::size_t left) {
  if (left >= width) return load(from);
  double some[width];
  VARDA_UNROLL for (std::size_t k = 0; k < width; ++k) some[k] = from[k < left ? k : left - 1];
  return load(some);
}
inline void put(double* to, vec v, std::size_t left) {
  if (left >= width) return store(to, v);
  double some[width];
  store(some, v);
  VARDA_UNROLL for (std::size_t k = 0; k < width; ++k) if (k < left) to[k] = some[k];
}

// Over the lanes; those with NaN do not count.
inline double largest_of(vec x, double least) {
  double some[width];
  store(some, x);
  VARDA_UNROLL for (std::size_t k = 0; k < width; ++k) if (some[k] > least) least = some[k];
  return least;
}
inline double smallest_of(vec x) {
  return -largest_of(-x, -largest);
}

// One vector of individuals on its way through a history.
template <std::size_t N>
class closed_walk {
 public:
  closed_walk(const closed_problem& problem, std::size_t lane)
      : problem_(problem),
        waiting_(*problem.waiting),
        lane_(lane),
        left_(problem.individuals - lane),
        now_(problem.begin) {}

  void run() {
    take_up(0);
    const closed_step* const end = problem_.steps + problem_.count;
    for (const closed_step* step = problem_.steps; step != end;) {
      switch (step->what) {
        case closed_step::kind::observe:
          step = observe_all(step, end);
          continue;
        case closed_step::kind::give:
          go_to(*step);
          give(problem_.doses[step->index]);
          break;
        case closed_step::kind::reset:
          reset(step->time);
          break;
        case closed_step::kind::change:
          go_to(*step);
          change(step->index);
          break;
      }
      ++step;
    }
    if (which(bad_) == 0) return;
    const vec nothing = all(__builtin_nan(""));
    for (std::size_t k = 0; k < problem_.observations; ++k) {
      double* const f = line_of(k);
      store(f, choose(bad_, nothing, load(f)));
    }
  }

 private:
  // What stands in the compartments: orthogonal coordinates of the mammillary system, each of which
  // decays at one rate, and the amount in the depot.
  struct state {
    vec mode[N];
    vec depot;
  };
  // What becomes of a unit of each in a time.
  struct passage {
    vec left[N];
    vec absorbed;
    vec moved[N];  // out of the depot
  };

  vec parameter(const double* row, double otherwise) const {
    return row == nullptr ? all(otherwise) : take(row + lane_, left_);
  }

  void take_up(std::size_t set) {
    const closed_parameters& p = problem_.sets[set];
    const vec volume = parameter(p.volume, 1.0);
    const vec elimination = parameter(p.elimination, 1.0);
    bad_ |= inadmissible(volume) | inadmissible(elimination);
    vec to[2]{}, from[2]{};
    for (std::size_t j = 0; j + 1 < N; ++j) {
      to[j] = parameter(p.to[j], 1.0);
      from[j] = parameter(p.from[j], 1.0);
      bad_ |= inadmissible(to[j]) | inadmissible(from[j]);
    }
    ka_ = parameter(p.absorption, 1.0);
    duration_ = parameter(p.duration, 1.0);
    rate_ = parameter(p.rate, 1.0);
    lag_time_ = parameter(p.lag_time, 0.0);
    bioavailability_ = parameter(p.bioavailability, 1.0);
    may_lag_ = p.lag_time != nullptr;
    bad_ |= inadmissible(ka_) | inadmissible(duration_) | inadmissible(rate_) |
            negative_or_worse(lag_time_) | negative_or_worse(bioavailability_);
    spectrum_ = decompose<N>(elimination, to, from);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      per_volume_[i] = spectrum_.vector[0][i] / volume;
      from_depot_[i] = spectrum_.vector[0][i] * ka_;
      const vec difference = ka_ - spectrum_.rate[i];
      per_difference_[i] = 1.0 / difference;
      // A little longer than in any lane: the lanes look for themselves before then.
      close_until_[i] = largest_of((1.001 * plain_difference) / magnitude(difference), 0.0);
    }
    vec fastest = p.absorption == nullptr ? vec{} : ka_;
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) fastest = larger(fastest, spectrum_.rate[i]);
    whole_until_ = smallest_of(-0.999 * smallest_exponent / fastest);
    for (bool& known : known_) known = false;
  }

  void reset(double time) {
    x_ = state{};
    fed_ = false;
    entries_ = 0;
    now_ = time;
  }

  void find_passage(vec t, passage& way) const {
    if (fed_) way.absorbed = decay(-ka_ * t);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      way.left[i] = decay(-spectrum_.rate[i] * t);
      if (fed_)
        way.moved[i] = from_depot_[i] * bateman(ka_, spectrum_.rate[i], t, way.absorbed,
                                                way.left[i], per_difference_[i]);
    }
  }

  void pass(state& x, const passage& way) const {
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      x.mode[i] = x.mode[i] * way.left[i];
      if (fed_) x.mode[i] = x.mode[i] + x.depot * way.moved[i];
    }
    if (fed_) x.depot = x.depot * way.absorbed;
  }

  // The state at the time of a step, with all that has entered until then.
  void find_state(const closed_step& step, state& x) {
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) x.mode[i] = x_.mode[i];
    x.depot = x_.depot;
    const double t = step.time - now_;
    if (t > 0.0) {
      passage fresh;
      passage& way = step.kept == closed_step::not_kept ? fresh : kept_[step.kept];
      // What was kept before there was anything in the depot lacks what comes out of it.
      if (step.kept == closed_step::not_kept || !known_[step.kept] ||
          kept_fed_[step.kept] != fed_) {
        find_passage(all(t), way);
        if (step.kept != closed_step::not_kept) {
          known_[step.kept] = true;
          kept_fed_[step.kept] = fed_;
        }
      }
      pass(x, way);
    }
    for (std::size_t k = 0; k < entries_; ++k) add_entry(x, waiting_.first[k], all(step.time));
  }

  double* line_of(std::size_t observation) const {
    return problem_.lines + observation * closed_problem::line + lane_ % closed_problem::line;
  }
  void predict(const closed_step& step, vec f) const { store(line_of(step.index), f); }

  // What entries have brought until a time is added to what is there. Where they have brought
  // nothing to a lane it keeps its bits: only other lanes of its vector may need them still.
  vec on_its_way(double time) const {
    state x{};
    for (std::size_t k = 0; k < entries_; ++k) add_entry(x, waiting_.first[k], all(time));
    vec sum{};
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) sum = sum + per_volume_[i] * x.mode[i];
    return sum;
  }

  // Observations one after the other: this is where estimations spend their time.
  const closed_step* observe_all(const closed_step* step, const closed_step* end) const {
    return fed_ ? observe_all<true>(step, end) : observe_all<false>(step, end);
  }
  template <bool Fed>
  const closed_step* observe_all(const closed_step* step, const closed_step* end) const {
    const decay_numbers& numbers = unseen_numbers_of_decay();
    const vec minus_ka = -ka_;
    vec minus_rate[N], own[N], flow[N], plain_flow[N];
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      minus_rate[i] = -spectrum_.rate[i];
      own[i] = per_volume_[i] * x_.mode[i];
      flow[i] = per_volume_[i] * (x_.depot * from_depot_[i]);
      plain_flow[i] = flow[i] * per_difference_[i];
    }
    const auto is_observed = [&] {
      return step != end && step->what == closed_step::kind::observe;
    };
    const auto give_out = [&](vec sum) {
      if (entries_ > 0) sum = sum + on_its_way(step->time);
      predict(*step, sum);
      ++step;
    };
    const auto observe_while = [&](auto goes_on, auto decay_of) {
      while (is_observed()) {
        const double time = step->time - now_;
        if (!goes_on(time)) return;
        const vec t = every(time);
        const vec absorbed = Fed ? decay_of(minus_ka * t) : vec{};
        vec sum{};
        VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
          const vec left = decay_of(minus_rate[i] * t);
          vec part = own[i] * left;
          if constexpr (Fed) {
            vec moved = plain_flow[i] * (left - absorbed);
            if (time <= close_until_[i]) {
              const vec rate = spectrum_.rate[i];
              const vec x = magnitude(ka_ - rate) * t;
              moved = choose(x <= all(plain_difference),
                             flow[i] * (choose(ka_ < rate, absorbed, left) * (t * mean_decay(x))),
                             moved);
            }
            part = part + moved;
          }
          sum = sum + part;
        }
        give_out(sum);
      }
    };
    // At the time of the change itself nothing has moved.
    while (is_observed() && step->time == now_) {
      vec sum{};
      VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) sum = sum + (own[i] + 0.0 * flow[i]);
      give_out(sum);
    }
    observe_while([&](double time) { return time <= whole_until_; },
                  [&](vec x) { return decay_above_smallest(x, numbers); });
    observe_while([](double) { return true; }, [&](vec x) { return decay(x, numbers); });
    return step;
  }

  void go_to(const closed_step& step) {
    if (!(step.time > now_) && entries_ == 0) return;
    state x;
    find_state(step, x);
    x_ = x;
    now_ = step.time;
    const vec now = all(now_);
    std::size_t kept = 0;
    for (std::size_t k = 0; k < entries_; ++k) {
      closed_entry& e = waiting_.first[k];
      const vec begin = load(e.begin);
      const mask over = (e.lasts ? load(e.end) : begin) <= now;
      if (which(over) == every_lane) continue;
      if (e.lasts)
        store(e.begin, larger(begin, now));
      else
        store(e.size, choose(over, vec{}, load(e.size)));
      if (kept != k) waiting_.first[kept] = e;
      ++kept;
    }
    entries_ = kept;
  }

  void add_amount(state& x, std::uint32_t compartment, vec amount) const {
    if (compartment == N) {
      x.depot = x.depot + amount;
      return;
    }
    const std::size_t c = N == 1 ? 0 : compartment;
    const vec scaled = c == 0 ? amount : amount / spectrum_.scale[c];
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) x.mode[i] =
        x.mode[i] + spectrum_.vector[c][i] * scaled;
  }

  // What stands at the end of an input of the length t, of which there was nothing before.
  state brought_in(std::uint32_t compartment, vec rate, vec t) const {
    state x{};
    if (compartment == N) {
      VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) x.mode[i] =
          rate * from_depot_[i] * bateman_exposure(ka_, spectrum_.rate[i], t);
      x.depot = rate * exposure(ka_, t, decay(-ka_ * t));
      return x;
    }
    add_amount(x, compartment, rate);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) x.mode[i] =
        x.mode[i] * exposure(spectrum_.rate[i], t, decay(-spectrum_.rate[i] * t));
    return x;
  }

  void add_entry(state& x, const closed_entry& e, vec time) const {
    const vec begin = load(e.begin);
    const mask on = begin <= time;
    if (which(on) == 0) return;
    const vec size = choose(on, load(e.size), vec{});
    const vec until = e.lasts ? larger(begin, smaller(time, load(e.end))) : begin;
    state brought{};
    if (e.lasts)
      brought = brought_in(e.compartment, size, choose(on, until - begin, vec{}));
    else
      add_amount(brought, e.compartment, size);
    const vec since = choose(on, time - until, vec{});
    if (which(since == vec{}) != every_lane) {
      passage way;
      find_passage(since, way);
      pass(brought, way);
    }
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) x.mode[i] = x.mode[i] + brought.mode[i];
    x.depot = x.depot + brought.depot;
  }

  void expect(std::uint32_t compartment, bool lasts, vec begin, vec end, vec size) {
    if (entries_ == waiting_.capacity) waiting_.grow(waiting_);
    closed_entry& e = waiting_.first[entries_++];
    e.compartment = compartment;
    e.lasts = lasts;
    store(e.begin, begin);
    store(e.end, end);
    store(e.size, size);
  }

  void give(const closed_dose& d) {
    vec own_lag = lag_time_, own_share = bioavailability_, own_duration = duration_,
        own_rate = rate_;
    if (d.set != closed_dose::in_force) {
      const closed_parameters& own = problem_.sets[d.set];
      own_lag = parameter(own.lag_time, 0.0);
      own_share = parameter(own.bioavailability, 1.0);
      own_duration = parameter(own.duration, 1.0);
      own_rate = parameter(own.rate, 1.0);
    }
    const vec lag = d.delayed ? own_lag : vec{};
    const vec amount = d.delayed ? all(d.amount) * own_share : all(d.amount);
    if (d.compartment == N) fed_ = true;
    const bool lasts = d.input != closed_input::at_once;
    vec duration{};
    vec rate{};
    switch (d.input) {
      case closed_input::at_once:
        break;
      case closed_input::at_rate:
        rate = all(d.rate);
        duration = amount / rate;
        break;
      case closed_input::over_parameter:
        duration = own_duration;
        rate = amount / duration;
        break;
      case closed_input::at_parameter:
        rate = own_rate;
        duration = amount / rate;
        break;
    }
    if (d.steady_state && d.interval == 0.0) return end_constant_input(d.compartment, rate, lag);
    const vec size = lasts ? rate : amount;
    if (d.steady_state) give_earlier(d, lag, duration, size);
    if (!lasts && !(d.delayed && may_lag_)) return add_amount(x_, d.compartment, amount);
    const vec begin = all(d.time) + lag;
    expect(d.compartment, lasts, begin, begin + duration, size);
  }

  // All that a steady state's earlier doses, `interval` apart, have left and have yet to bring.
  void give_earlier(const closed_dose& d, vec lag, vec duration, vec size) {
    // So many overlapping doses are a parameter gone astray: each of them is followed on its own.
    constexpr double most_unfinished = 1e5;
    const bool lasts = d.input != closed_input::at_once;
    const vec interval = all(d.interval);
    vec unfinished = floor_of((lag + duration) / interval);
    const mask astray = ~(unfinished <= all(most_unfinished));
    x_.mode[0] = choose(astray, all(__builtin_nan("")), x_.mode[0]);
    unfinished = choose(astray, vec{}, unfinished);
    double counts[width];
    store(counts, unfinished);
    double most = counts[0];
    VARDA_UNROLL for (std::size_t k = 1; k < width; ++k) if (counts[k] > most) most = counts[k];
    for (double k = most; k >= 1.0; k -= 1.0) {
      const vec begin = all(d.time) + (lag - k * interval);
      expect(d.compartment, lasts, begin, begin + duration,
             choose(unfinished >= all(k), size, vec{}));
    }
    const vec age =
        smaller(interval, larger(vec{}, ((unfinished + 1.0) * interval - lag) - duration));
    state one{};
    if (lasts)
      one = brought_in(d.compartment, size, choose(astray, vec{}, duration));
    else
      add_amount(one, d.compartment, size);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) {
      const vec rate = spectrum_.rate[i];
      x_.mode[i] = x_.mode[i] + one.mode[i] * decay_sum(rate, age, interval);
      if (d.compartment == N)
        x_.mode[i] =
            x_.mode[i] + one.depot * from_depot_[i] * bateman_sum(ka_, rate, age, interval);
    }
    if (d.compartment == N) x_.depot = x_.depot + one.depot * decay_sum(ka_, age, interval);
  }

  // An infusion that has run for ever and ends now, or a lag time later: input and elimination
  // balance.
  void end_constant_input(std::uint32_t compartment, vec rate, vec lag) {
    state balanced{};
    add_amount(balanced, compartment == N ? 0 : compartment, rate);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) x_.mode[i] =
        x_.mode[i] + balanced.mode[i] / spectrum_.rate[i];
    if (compartment == N) x_.depot = x_.depot + rate / ka_;
    if (may_lag_) expect(compartment, true, all(now_), all(now_) + lag, rate);
  }

  // The amounts stay where they are when the parameters change.
  void change(std::size_t set) {
    vec amount[N];
    VARDA_UNROLL for (std::size_t c = 0; c < N; ++c) {
      amount[c] = spectrum_.vector[c][0] * x_.mode[0];
      VARDA_UNROLL for (std::size_t i = 1; i < N; ++i) amount[c] =
          amount[c] + spectrum_.vector[c][i] * x_.mode[i];
      amount[c] = amount[c] * spectrum_.scale[c];
    }
    take_up(set);
    VARDA_UNROLL for (std::size_t i = 0; i < N; ++i) x_.mode[i] = vec{};
    VARDA_UNROLL for (std::uint32_t c = 0; c < N; ++c) add_amount(x_, c, amount[c]);
  }

  const closed_problem& problem_;
  closed_entries& waiting_;
  std::size_t entries_ = 0;
  std::size_t lane_;
  std::size_t left_;
  double now_;
  mask bad_{};

  vec ka_, duration_, rate_, lag_time_, bioavailability_;
  bool may_lag_ = false;
  bool fed_ = false;  // whether there may be anything in the depot
  spectrum<N> spectrum_;
  vec per_volume_[N];  // the concentration of a unit of each coordinate
  vec from_depot_[N];  // flow into each coordinate per amount in the depot
  vec per_difference_[N];
  double close_until_[N];  // so long there may be a lane whose exponentials are close
  double whole_until_;     // so long no exponential underflows in any lane
  state x_{};

  // Many histories repeat their intervals.
  passage kept_[closed_problem::most_kept];
  bool known_[closed_problem::most_kept] = {};
  bool kept_fed_[closed_problem::most_kept] = {};
};

// Predictions of different observations may lie a power of two apart, where the cache has place for
// few of them; so each line of memory is written at once.
template <std::size_t N>
void closed_forms(const closed_problem& problem) {
  constexpr std::size_t line = closed_problem::line;
  for (std::size_t lane = 0; lane < problem.individuals; lane += line) {
    const std::size_t count = problem.individuals - lane < line ? problem.individuals - lane : line;
    for (std::size_t k = 0; k < count; k += width) closed_walk<N>(problem, lane + k).run();
    double* to = problem.f + lane;
    for (std::size_t k = 0; k < problem.observations; ++k, to += problem.stride) {
      const double* const from = problem.lines + k * line;
      if (count == line) {
        VARDA_UNROLL for (std::size_t i = 0; i < line; i += width) store(to + i, load(from + i));
      } else {
        for (std::size_t i = 0; i < count; ++i) to[i] = from[i];
      }
    }
  }
}
