// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "statsubs/export.h"

namespace statsubs {

// Set-up of a run, once, before any estimation: records the model's dimensions, fetches the display
// names, has the host count the packed parameters and allocate its arrays, reads the settings of
// the run and allocates the Jacobian's working array. The host's getters are asked in a fixed
// order.
//   engine       in: 1 the quasi-random EM method; 6 a method that needs no random effects; 7 a
//                method with a sample count of its own; other codes name methods of the host
//   nranefnames  in: entries of randomeffectnames; for engine 6 also the columns of modeljacob
//   nraneffects  in: random effects, stored as leneta; columns of modeljacob otherwise
//   nsubjects    in: subjects, stored as nsub
//   nobserved    in: stored as nobs until the subjects' own counts are asked for
//   fixedsize    out: 1000
//   packsize     out: 3 npack^2 for npack packed parameters
// The sample count is rounded up to a multiple of 6; what readflags0 makes of it afterwards stays.
// A model without random effects under a method that needs them is reported, in the engine log
// (which starts afresh) and on the error stream, by the process with myid = 0; the host decides
// what follows.
// Reads: sigmalchol, myid
// Writes: nsub, nobs, ntheta, leneta, fixedeffectnames, randomeffectnames, fixeferrtothetamap,
//   stddevnames, stddevnum, stddevobsnum, nobstotal, nobsmax, totalobsnumber, npackglobal,
//   hessiandimension, nsampset, npresample, ngetmapnp, nchain, iqrpem, itestui, irunall,
//   impmapflag, iflagmcpem, accratio, impsampdof, nqrburn, ifreezeomegaburn, iflagscramble,
//   ipresample, modeljacob
STATSUBS_API void getworkingstoragesizes(const int& engine, const int& nranefnames,
                                         const int& nraneffects, const int& nsubjects,
                                         const int& nobserved, int& fixedsize, int& packsize);

}  // namespace statsubs
