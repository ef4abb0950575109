// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace statsubs {

// Incomplete gamma ratios of shape f/2 for a whole number f of degrees of freedom, 2 <= f < 40:
// sums of tabulated coefficients times powers of x, without a division.

// Q(f/2, x) as a finite sum, 0 < x <= 700 (so that exp(-x) is not too small to carry it).
double whole_freedom_upper(int f, double x);

// P(f/2, x) by its series about 0, 0 < x <= f/2.
double whole_freedom_lower(int f, double x);

}  // namespace statsubs
