// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/dzror.h"

#include "statsubs/distributions/zero_finder.h"

namespace statsubs {

namespace {

zero_finder finder;

}  // namespace

void dstzr(const double& xlo, const double& xhi, const double& abstol, const double& reltol) {
  finder.set_bracket(xlo, xhi, abstol, reltol);
}

void dzror(int& status, double& x, const double& fval, double& xlo, double& xhi, bool& atlow,
           bool& fhigh) {
  finder.advance(status, x, fval, xlo, xhi, atlow, fhigh);
}

}  // namespace statsubs
