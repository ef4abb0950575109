// SPDX-License-Identifier: Apache-2.0
#include "statsubs/mstep/itmapnp.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "statsubs/state/entry_check.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/output_units.h"
#include "statsubs/support/array.h"
#include "statsubs/support/engine_log.h"
#include "statsubs/support/parallel.h"
#include "statsubs/support/record.h"

namespace statsubs {

namespace gv = statsubs::global_variables;

namespace {

using support::record;

// What idengine shows the host during the rounds.
constexpr int mapnp_engine = 6;

// Lines of the root process; on the others every call does nothing. The log is open for as long as
// the object lives.
class root_report {
 public:
  explicit root_report(bool root) {
    if (root) log_.emplace(support::engine_log::position::append);
  }
  void to_output(const record& line) const {
    if (log_) write_line(standard_output_unit, line.line());
  }
  bool to_log(const record& line) { return log_ && log_->write(line.line()); }
  void to_both(const record& line) {
    to_output(line);
    to_log(line);
  }

 private:
  std::optional<support::engine_log> log_;
};

// The odd spelling is what these lines are known and searched by.
void report_start(root_report& report) {
  const record start = record().text("MAP-NP start reqested with iterations=").value(gv::ngetmapnp);
  report.to_output(record());
  report.to_output(start);
  if (report.to_log(record())) report.to_log(start);
}

void report_mean(root_report& report, int iteration, vector_view<const double> vmean) {
  report.to_both(record());
  report.to_both(record().text("MAP-NP iteration").value(iteration));
  report.to_both(record().text("MAP mean=").values(vmean));
}

record theta_record(std::string_view heading) {
  return record().text(heading).values({gv::theta.data(), gv::ntheta});
}

void report_theta(root_report& report) {
  report.to_both(theta_record("New MAP-NP thetas="));
  report.to_output(record());
}

void report_objective(root_report& report, double objval) {
  report.to_both(record().text("-LL obj from estblups=").value(objval));
  report.to_both(record());
}

void report_end(root_report& report) {
  report.to_both(theta_record("Final MAP-NP theta="));
  report.to_both(record());
  report.to_both(record().text("Regular iterations now proceed from final MAP-NP theta"));
  report.to_both(record().text("and original Omegas and eps"));
  report.to_both(record());
}

// The mean over the subjects of the first vmean.size() rows. Terms are scaled before they are
// added, in the order of the subjects.
void subject_mean(matrix_view<const double> etas, vector_view<double> vmean) {
  const double weight = 1.0 / etas.columns();
  std::fill(vmean.begin(), vmean.end(), 0.0);
  for (int isub = 1; isub <= etas.columns(); ++isub)
    for (int j = 1; j <= vmean.size(); ++j) vmean(j) += etas(j, isub) * weight;
}

void centre(matrix_view<double> etas, vector_view<const double> vmean) {
  for (int isub = 1; isub <= etas.columns(); ++isub)
    for (int j = 1; j <= vmean.size(); ++j) etas(j, isub) -= vmean(j);
}

// The first pass runs with the caller's iflathess, the others with 1, whatever the host does to it.
void estimate_fixed_effects(double& objval) {
  for (int pass = 1; pass <= 3; ++pass) {
    host::estflattheta(objval);
    gv::iflathess = 1;
  }
}

void put_back_residual_deviation(double sigma) {
  if (gv::freesigmafound == 0) return;
  gv::theta(gv::ntheta) = sigma;
  gv::sigmalchol = sigma;
  gv::sigmasq = sigma * sigma;
}

// The columns of etatable that belong to subjects.
matrix_view<double> subject_etas() {
  entry_check("itmapnp").holds("etatable", gv::etatable, gv::etatable.rows(), gv::nsub);
  return {gv::etatable.data(), gv::etatable.rows(), gv::nsub, gv::etatable.leading()};
}

// Shows the host the rounds' engine, and puts the caller's back on every way out, with iflathess:
// the caller's until `flathess` is told otherwise.
class engine_keeper {
 public:
  engine_keeper() : flathess(gv::iflathess), engine_(gv::idengine) { gv::idengine = mapnp_engine; }
  ~engine_keeper() {
    gv::idengine = engine_;
    gv::iflathess = flathess;
  }
  engine_keeper(const engine_keeper&) = delete;
  engine_keeper& operator=(const engine_keeper&) = delete;

  int flathess;

 private:
  int engine_;
};

// Returns iflathess as the last round found it.
int run_rounds(int neta, root_report& report) {
  const double sigma = gv::sigmalchol;
  double objval = 0.0;
  int flathess = gv::iflathess;
  vector<double> vmean("population mean of the random effects", neta);
  for (int iteration = 1; iteration <= gv::ngetmapnp; ++iteration) {
    const matrix_view<double> etas = subject_etas();
    subject_mean(etas, vmean);
    report_mean(report, iteration, vmean);
    centre(etas, vmean);
    flathess = gv::iflathess;
    estimate_fixed_effects(objval);
    put_back_residual_deviation(sigma);
    report_theta(report);
    host::estblups(1, objval);
    report_objective(report, objval);
    host::globalblups2();
  }
  return flathess;
}

// The rounds between their first and last lines. Returns what run_rounds does.
int reported_rounds(int neta) {
  root_report report(gv::myid == 0);
  report_start(report);
  support::barrier(gv::numprocs);
  const int flathess = run_rounds(neta, report);
  report_end(report);
  return flathess;
}

void check_entry(int neta, const double* etaout) {
  const entry_check check("itmapnp");
  check.at_least("ngetmapnp", gv::ngetmapnp, 1);
  check.at_least("nsub", gv::nsub, 1);
  check.at_least("neta", neta, 0);
  check.at_least("ntheta", gv::ntheta, gv::freesigmafound == 0 ? 0 : 1);
  check.job();
  check.holds("theta", gv::theta, gv::ntheta);
  check.holds("etatable", gv::etatable, neta, gv::nsub);
  check.given("etaout", etaout, neta);
}

void clear(matrix_view<double> table) {
  for (int j = 1; j <= table.columns(); ++j)
    std::fill(table.column(j).begin(), table.column(j).end(), 0.0);
}

}  // namespace

void itmapnp(const int& neta, double* etaout) {
  check_entry(neta, etaout);
  support::barrier(gv::numprocs);
  host::globalblups2();

  engine_keeper keeper;
  // The fixed effects are first estimated with every random effect at zero.
  clear(gv::etatable);
  keeper.flathess = reported_rounds(neta);
  support::barrier(gv::numprocs);

  const matrix_view<const double> etas = subject_etas();
  const matrix_view<double> result(etaout, neta, gv::nsub);
  for (int isub = 1; isub <= gv::nsub; ++isub)
    std::copy_n(etas.column(isub).begin(), neta, result.column(isub).begin());
}

}  // namespace statsubs
