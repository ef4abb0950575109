// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// The MAP-NP start-up: ngetmapnp rounds in which the host re-estimates the fixed effects from the
// centred modes of the random effects and then finds the modes again at the new fixed effects.
// Omega and a free residual deviation keep the values of the call; the regular iterations start
// from the fixed effects that are left in theta. Collective: every process makes the same call.
//   neta              in: random effects that are averaged and centred, at most the rows of
//   etatable etaout(neta x nsub)  out: the modes that the last estblups and globalblups2 left in
//   etatable,
//                     one column a subject; not centred again
// A round centres etatable about its mean over the subjects, calls estflattheta three times (with
// the caller's iflathess, then twice with 1), puts a free residual deviation back into
// theta(ntheta), sigmalchol and sigmasq, and calls estblups(1) and globalblups2. The first round
// sees a table of zeros. The host gets one objective value throughout: 0 at first, then what it
// wrote last. idengine is 6 for the host while the rounds last and restored afterwards; iflathess
// is restored after a single round and 1 after more. ngetmapnp <= 0 is a bug of the caller. The
// process with myid = 0 reports the rounds on standard output and in the engine log, which it holds
// open for appending meanwhile; a log that cannot be written costs its lines and nothing else.
// Reads: ngetmapnp, nsub, ntheta, theta, etatable, freesigmafound, sigmalchol, idengine, iflathess,
//   myid, numprocs
// Writes: theta, etatable, sigmalchol, sigmasq, idengine, iflathess
STATSUBS_API void itmapnp(const int& neta, double* etaout);

}  // namespace statsubs
