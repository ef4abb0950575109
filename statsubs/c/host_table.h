/* SPDX-License-Identifier: Apache-2.0
 *
 * The host table: what the library asks of the engine that uses it. Arguments go by reference.
 * docs/callables has a page per callable.
 * Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.
 */
/* clang-format off */
#ifndef STATSUBS_C_HOST_TABLE_H
#define STATSUBS_C_HOST_TABLE_H

#define STATSUBS_HOST_VERSION 1

/* `size` is sizeof(statsubs_host_table) and `version` STATSUBS_HOST_VERSION as the host was
 * compiled. A callable that is a null pointer keeps its default. */
typedef struct statsubs_host_table {
  int size;
  int version;
  /* selects the subject of later evaluations */
  void (*setisub)(const int* isub);
  /* eta(leneta): the random effects of the next evaluation */
  void (*seteta)(const double* eta);
  /* theta(ntheta): the fixed effects of the next evaluation */
  void (*settheta)(const double* theta);
  /* f out: negative log joint density of the selected subject at eta(n); leaves zscoresub */
  void (*fcnxeta)(const int* n, const double* eta, double* f);
  /* the same at the eta that seteta set; the quadrature's evaluation */
  void (*fcneta)(const int* n, const double* eta, double* f);
  /* the residual standard deviation of the next evaluation */
  void (*setmainstdev)(const double* sd);
  /* cmatrix out: the C matrix of subject isub0 (from 0), (nrowbase + nextra) x ncolc */
  void (*getsaemcmatrix)(const int* isub0, double* cmatrix);
  /* nonzero when a stop of the run is asked for */
  int (*stoprequested)(void);
  /* told the answer of stoprequested; sets globalstop alike on every process */
  void (*checkforstop)(int* flag);
  /* 1 when x is an ordinary finite number, 0 otherwise */
  int (*isgoodr8)(const double* x);
  /* next uniform number in (0, 1); state is in/out and starts at 1 */
  double (*dran3)(int* state);
  /* x raised to the power y */
  double (*pow)(const double* x, const double* y);
  /* d(n x n) out: the diagonal of a(n x n), zero elsewhere */
  void (*diag_2d)(const int* n, const double* a, double* d);
  /* solves L b' = b with the lower triangle of a(m x m); b is overwritten */
  void (*forward_substitution)(const int* m, const double* a, double* b);
  /* first position of value in values(n), 0 when absent */
  int (*findloc1ddim1_i32)(const int* values, const int* n, const int* value);
  /* vector(length) becomes its sum over all processes */
  void (*globalvec)(double* vector, const int* length);
  /* makes the per-subject estimates of all processes available in etatable */
  void (*globalblups2)(void);
  /* mode finding for every subject; objval out: minus log-likelihood */
  void (*estblups)(const int* mode, double* objval);
  /* estimation of the fixed effects with the random effects of etatable */
  void (*estflattheta)(double* objval);
  /* packs theta, an omega-shaped matrix and the residual deviation into x; count out: entries */
  void (*packparameters1)(const double* theta, const double* omega, const double* sigma, double* x,
      const int* leneta, int* count);
  /* allocates the host's shared arrays */
  void (*allocateglobalarrays)(const int* hessiandimension, const int* leneta, const int* ntheta,
      const int* nsub);
  /* marks ibtight for theta(ntheta); work(ntheta) is zeroed scratch */
  void (*boundmap)(const int* ntheta, const double* theta, double* work);
  /* Names and counts of the model; a name is 100 characters, blank-filled before the call */
  int (*getntheta)(void);
  void (*getfixefname)(const int* itheta, char* name);
  void (*getranef5name)(const int* ieta, char* name);
  /* map(ntheta) out: the fixed effect behind each fixed-effect error */
  void (*getfixeferrtothetamap)(int* map);
  /* number of observed variables */
  int (*getobscount)(void);
  /* observations of the observed variable iobs */
  int (*getobsvaluecount)(const int* iobs);
  /* name of the residual standard deviation of the observed variable iobs */
  void (*getobsstdevname)(const int* iobs, char* name);
  /* observations of subject isub */
  int (*getnobs1)(const int* isub);
  /* Settings of the run, asked once */
  int (*getisample)(void);
  int (*getpresample)(void);
  int (*getmapnp)(void);
  int (*getsirsamp)(void);
  int (*getrunfromui)(void);
  int (*getpemrunall)(void);
  int (*getmapassist)(void);
  int (*getmcpem)(void);
  double (*getaccratio)(void);
  int (*getimpsampdof)(void);
  int (*getburnin)(void);
  int (*nonomegaburn)(void);
  int (*getscramble)(void);
  /* may override settings in the shared state, for a run without a user interface */
  void (*getqrpemflags)(void);
  void (*readflags0)(void);
  /* optional, null for none: n times seteta, settheta, fcnxeta; etas(leneta x n), f(n), z(n) out */
  void (*fcnxetas)(const int* leneta, const int* n, const double* etas, double* f, double* z);
} statsubs_host_table;

#endif
