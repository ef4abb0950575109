/* SPDX-License-Identifier: Apache-2.0
 *
 * One E- and M-step of y_ij = theta + eta_i + e_ij, eta_i ~ N(0, omega), e_ij ~ N(0, sigma^2). */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "statsubs/c/statsubs.h"

#define SUBJECTS 4
#define SAMPLES 3000
#define OBSERVATIONS 11
static const double y[OBSERVATIONS] = {4.1, 5.3, 4.6, 6.8, 7.4, 3.9, 3.1, 4.4, 2.7, 5.6, 5.1};
/* Subject i has observations first(i) .. first(i+1) - 1. */
static int first[SUBJECTS + 1] = {1, 4, 6, 10, 12};
static double theta = 5.0, omega_factor = 1.2, omega_inverse_factor, centre, mean, covariance;
static double proposal_factor = 1.2, sigma = 0.8;
static int position = 1, type = 1, subject;

/* The negative joint log density of a subject's observations and its random effect, constants
 * included; zscoresub is the sum of its squared scaled residuals. */
static void objective(const int* leneta, const double* eta, double* f) {
  const int n = first[subject] - first[subject - 1];
  double squares = 0.0;
  for (int j = first[subject - 1]; j < first[subject]; ++j)
    squares += pow((y[j - 1] - theta - eta[0]) / sigma, 2);
  statsubs_set_zscoresub(squares);
  *f = 0.5 * squares + n * log(sigma) + 0.5 * pow(eta[0] / omega_factor, 2) + log(omega_factor) +
       0.5 * (n + *leneta) * 1.8378770664093454836;
}

static void select_subject(const int* isub) { subject = *isub; }
static void nothing_to_set(const double* values) { (void)values; }
static int go_on(void) { return 0; }
static void set_globalstop(int* stop) { statsubs_set_globalstop(*stop); }
static void c_matrix(const int* isub0, double* cmatrix) { *cmatrix = *isub0 >= 0 ? 1.0 : 0.0; }
static void no_record(void* context, const char* line, int n) {
  (void)context, (void)line, (void)n;
}

static void check(int status) {
  if (status == STATSUBS_OK) return;
  fprintf(stderr, "%s\n", statsubs_last_error());
  exit(EXIT_FAILURE);
}

static void install_host(void) {
  const statsubs_host_table host = {
      .size = sizeof host, .version = STATSUBS_HOST_VERSION,
      .setisub = select_subject, .seteta = nothing_to_set, .settheta = nothing_to_set,
      .fcnxeta = objective, .stoprequested = go_on, .checkforstop = set_globalstop,
      .getsaemcmatrix = c_matrix};
  check(statsubs_install_host(&host));
  check(statsubs_take_unit(6, no_record, NULL)); /* the library's own records */
}

static void set_shared_state(void) {
  statsubs_set_leneta(1);
  statsubs_set_ntheta(1);
  statsubs_set_numprocs(1);
  statsubs_set_nsub(SUBJECTS);
  statsubs_set_accratio(0.5);
  check(statsubs_bind_theta(&theta, 1));
  check(statsubs_bind_newsub(first, SUBJECTS + 1));
  check(statsubs_bind_omegalchol(&omega_factor, 1, 1));
  check(statsubs_bind_omegalcholinv(&omega_inverse_factor, 1, 1));
  check(statsubs_bind_xmusub(&centre, 1));
  check(statsubs_bind_omegacholsub(&proposal_factor, 1, 1));
  check(statsubs_bind_xmusubnew(&mean, 1));
  check(statsubs_bind_omegasubnew(&covariance, 1, 1));
  check(statsubs_bind_iseqtheta(&position, 1));
  check(statsubs_bind_itypetheta(&type, 1));
}

int main(void) {
  static double drawn[SAMPLES], weights[SAMPLES];
  double point, loglik, sum = 0.0, squares = 0.0, means[SUBJECTS], variances[SUBJECTS];
  double estimate, omega = 0.0;
  bool ok[2];
  int quality;
  install_host();
  set_shared_state();
  check(statsubs_poly_vinit_define());
  check(statsubs_insobl(ok, 1, (1 << 30) - 1, &quality, &point, 30, 1));
  for (int i = 1; i <= SUBJECTS; ++i) {
    check(statsubs_fgintegrate(i, SAMPLES, drawn, weights, &loglik));
    sum += loglik;
    squares += statsubs_get_wtsumzscore() * (first[i] - first[i - 1]);
    means[i - 1] = theta + mean;
    variances[i - 1] = covariance;
  }
  check(statsubs_lrtheta(1, &estimate, means, NULL, NULL, 1, 0, 1, &position));
  for (int i = 0; i < SUBJECTS; ++i)
    omega += (variances[i] + pow(means[i] - estimate, 2)) / SUBJECTS;
  printf("%-20s%10.4f\n%-20s%10.4f\n", "-2 log-likelihood", -2.0 * sum, "theta", estimate);
  printf("%-20s%10.4f\n%-20s%10.4f\n", "omega", omega, "sigma",
         sigma * sqrt(squares / OBSERVATIONS));
  return 0;
}
