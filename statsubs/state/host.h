// SPDX-License-Identifier: Apache-2.0
//
// The host interface: everything that the library asks of the engine that uses it. The list below
// is written once and gives the table of function pointers, the typed wrappers host::fcnxeta(...)
// and, for hosts that link by name, install_host_by_name().
//
// Arguments go by reference; `in` and `out` below are the library's view. Vectors are contiguous,
// matrices column-major with the leading dimension equal to their order unless a line says
// otherwise; counts and subscripts start at 1 except in getsaemcmatrix. docs/callables has a page
// per callable: when it is called, what it may change, what happens when it fails.
#pragma once

#include "statsubs/export.h"

// clang-format off
#define STATSUBS_HOST_CALLABLES(X)                                                                          \
  /* The model */                                                                                           \
  /* selects the subject of later evaluations */                                                            \
  X(void, setisub, (const int& isub), (isub))                                                               \
  /* eta(leneta): the random effects of the next evaluation */                                              \
  X(void, seteta, (const double* eta), (eta))                                                               \
  /* theta(ntheta): the fixed effects of the next evaluation */                                             \
  X(void, settheta, (const double* theta), (theta))                                                         \
  /* f out: negative log joint density of the selected subject at eta(n); leaves zscoresub */               \
  X(void, fcnxeta, (const int& n, const double* eta, double& f), (n, eta, f))                               \
  /* the same at the eta that seteta set; the quadrature's evaluation */                                    \
  X(void, fcneta, (const int& n, const double* eta, double& f), (n, eta, f))                                \
  /* the residual standard deviation of the next evaluation */                                              \
  X(void, setmainstdev, (const double& sd), (sd))                                                           \
  /* cmatrix out: the C matrix of subject isub0 (from 0), (nrowbase + nextra) x ncolc */                    \
  X(void, getsaemcmatrix, (const int& isub0, double* cmatrix), (isub0, cmatrix))                            \
  /* Stopping */                                                                                            \
  /* nonzero when a stop of the run is asked for */                                                         \
  X(int, stoprequested, (), ())                                                                             \
  /* told the answer of stoprequested; sets globalstop alike on every process */                            \
  X(void, checkforstop, (int& flag), (flag))                                                                \
  /* Helpers with a default */                                                                              \
  /* 1 when x is an ordinary finite number, 0 otherwise */                                                  \
  X(int, isgoodr8, (const double& x), (x))                                                                  \
  /* next uniform number in (0, 1); state is in/out and starts at 1 */                                      \
  X(double, dran3, (int& state), (state))                                                                   \
  /* x raised to the power y */                                                                             \
  X(double, pow, (const double& x, const double& y), (x, y))                                                \
  /* d(n x n) out: the diagonal of a(n x n), zero elsewhere */                                              \
  X(void, diag_2d, (const int& n, const double* a, double* d), (n, a, d))                                   \
  /* solves L b' = b with the lower triangle of a(m x m); b is overwritten */                               \
  X(void, forward_substitution, (const int& m, const double* a, double* b), (m, a, b))                      \
  /* first position of value in values(n), 0 when absent */                                                 \
  X(int, findloc1ddim1_i32, (const int* values, const int& n, const int& value), (values, n, value))        \
  /* Collective: every process, same order */                                                               \
  /* vector(length) becomes its sum over all processes */                                                   \
  X(void, globalvec, (double* vector, const int& length), (vector, length))                                 \
  /* makes the per-subject estimates of all processes available in etatable */                              \
  X(void, globalblups2, (), ())                                                                             \
  /* mode finding for every subject; objval out: minus log-likelihood */                                    \
  X(void, estblups, (const int& mode, double& objval), (mode, objval))                                      \
  /* estimation of the fixed effects with the random effects of etatable */                                 \
  X(void, estflattheta, (double& objval), (objval))                                                         \
  /* Parameters and storage */                                                                              \
  /* packs theta, an omega-shaped matrix and the residual deviation into x; count out: entries */           \
  X(void, packparameters1, (const double* theta, const double* omega, const double& sigma, double* x,       \
                            const int& leneta, int& count), (theta, omega, sigma, x, leneta, count))        \
  /* allocates the host's shared arrays */                                                                  \
  X(void, allocateglobalarrays, (const int& hessiandimension, const int& leneta, const int& ntheta,         \
                                 const int& nsub), (hessiandimension, leneta, ntheta, nsub))                \
  /* marks ibtight for theta(ntheta); work(ntheta) is zeroed scratch */                                     \
  X(void, boundmap, (const int& ntheta, const double* theta, double* work), (ntheta, theta, work))          \
  /* Names and counts of the model; a name is 100 characters, blank-filled before the call */               \
  X(int, getntheta, (), ())                                                                                 \
  X(void, getfixefname, (const int& itheta, char* name), (itheta, name))                                    \
  X(void, getranef5name, (const int& ieta, char* name), (ieta, name))                                       \
  /* map(ntheta) out: the fixed effect behind each fixed-effect error */                                    \
  X(void, getfixeferrtothetamap, (int* map), (map))                                                         \
  /* number of observed variables */                                                                        \
  X(int, getobscount, (), ())                                                                               \
  /* observations of the observed variable iobs */                                                          \
  X(int, getobsvaluecount, (const int& iobs), (iobs))                                                       \
  /* name of the residual standard deviation of the observed variable iobs */                               \
  X(void, getobsstdevname, (const int& iobs, char* name), (iobs, name))                                     \
  /* observations of subject isub */                                                                        \
  X(int, getnobs1, (const int& isub), (isub))                                                               \
  /* Settings of the run, asked once */                                                                     \
  X(int, getisample, (), ())                                                                                \
  X(int, getpresample, (), ())                                                                              \
  X(int, getmapnp, (), ())                                                                                  \
  X(int, getsirsamp, (), ())                                                                                \
  X(int, getrunfromui, (), ())                                                                              \
  X(int, getpemrunall, (), ())                                                                              \
  X(int, getmapassist, (), ())                                                                              \
  X(int, getmcpem, (), ())                                                                                  \
  X(double, getaccratio, (), ())                                                                            \
  X(int, getimpsampdof, (), ())                                                                             \
  X(int, getburnin, (), ())                                                                                 \
  X(int, nonomegaburn, (), ())                                                                              \
  X(int, getscramble, (), ())                                                                               \
  /* may override settings in the shared state, for a run without a user interface */                       \
  X(void, getqrpemflags, (), ())                                                                            \
  X(void, readflags0, (), ())                                                                               \
  /* optional, null for none: n times seteta, settheta, fcnxeta; etas(leneta x n), f(n), z(n) out */        \
  X(void, fcnxetas, (const int& leneta, const int& n, const double* etas, double* f, double* z),            \
                    (leneta, n, etas, f, z))
// clang-format on

namespace statsubs {

// The table. `size` and `version` come first so that a host built against an older table is told
// apart from one built against this.
struct host_table {
  static constexpr int current_version = 1;
  int size;
  int version;
#define STATSUBS_MEMBER(result, name, parameters, arguments) result(*name) parameters;
  STATSUBS_HOST_CALLABLES(STATSUBS_MEMBER)
#undef STATSUBS_MEMBER
};

// The table that the wrappers below call through; a caller may replace single entries. At load the
// helpers (isgoodr8, dran3, pow, diag_2d, forward_substitution, findloc1ddim1_i32) have their
// defaults, fcnxetas, which is optional, is a null pointer, and every other entry ends the process
// with a message that names the callable.
STATSUBS_API host_table& installed_host();

// The table as it stands at load.
STATSUBS_API host_table default_host();

// Fills the table from functions with C linkage that the program defines under the callables' names
// (`extern "C" void fcnxeta(const int&, const double*, double&)`). Those that the program does not
// define keep their defaults; pow does always, its name is the C library's. Defined in the object
// library statsubs::host_by_name, for programs that ask for it.
void install_host_by_name();

namespace host {
#define STATSUBS_WRAPPER(result, name, parameters, arguments) \
  inline result name parameters {                             \
    return installed_host().name arguments;                   \
  }
STATSUBS_HOST_CALLABLES(STATSUBS_WRAPPER)
#undef STATSUBS_WRAPPER
}  // namespace host

}  // namespace statsubs
