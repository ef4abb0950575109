// SPDX-License-Identifier: Apache-2.0
#include "varda/host/engine_host.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <numeric>

#include "statsubs/state/getworkingstoragesizes.h"
#include "statsubs/state/global_variables.h"
#include "statsubs/state/host.h"
#include "statsubs/state/qrpemlocalvariables.h"
#include "statsubs/state/saveearlyvars.h"
#include "statsubs/state/standarderrorvariables.h"
#include "varda/support/stop.h"

namespace varda {

namespace gv = statsubs::global_variables;
namespace qv = statsubs::qrpemlocalvariables;
namespace se = statsubs::standarderrorvariables;
namespace sv = statsubs::saveearlyvars;

namespace {

engine_host* the_host = nullptr;

// The method code of the quasi-random EM.
constexpr int qrpem_engine = 1;

// A fixed effect this close to a bound, relative to the larger of the two, is held by it.
constexpr double nearness = 1e-4;

void copy_name(const std::string& name, char* to) {
  std::copy_n(name.begin(), std::min<std::size_t>(name.size(), statsubs::name_length), to);
}

int proposal_code(const estimation_settings& s) {
  switch (s.proposal) {
    case proposal_family::normal:
      return 0;
    case proposal_family::population:
      return 2;
    case proposal_family::t:
      return s.t_df;
    case proposal_family::laplace:
      return 1;
    case proposal_family::mixture2:
      return -2;
    case proposal_family::mixture3:
      return -3;
  }
  return 0;
}

}  // namespace

engine_host& engine_host::current() {
  assert(the_host != nullptr);
  return *the_host;
}

bool engine_host::stopped() {
  return sv::globalstop != 0;
}

bool engine_host::stop_requested() noexcept {
  return varda::stop_requested();
}

// From then on every process has been asked itself.
bool engine_host::note_stop(bool asked) {
  if (asked) request_stop();
  sv::globalstop = asked ? 1 : 0;
  return asked;
}

bool engine_host::agree_on_stop() {
  return note_stop(current().peers_.any(stop_requested() || stopped()));
}

bool engine_host::share(Eigen::MatrixXd& by_subject) {
  assert(by_subject.cols() == current().model().subjects());
  return !note_stop(current().peers_.gather(by_subject.data(), by_subject.rows(), by_subject.cols(),
                                            stop_requested() || stopped()));
}

bool engine_host::share(Eigen::MatrixXd& by_subject, const std::vector<int>& subjects) {
  return !note_stop(current().peers_.gather(by_subject.data(), by_subject.rows(), subjects,
                                            stop_requested() || stopped()));
}

void engine_host::request_stop() noexcept {
  varda::request_stop();
}

engine_host::engine_host(const population_model& model, const job& peers)
    : density_(model),
      peers_(peers),
      scratch_(model),
      costly_(model.specification().structure.name == equation_structure) {
  assert(the_host == nullptr);
  the_host = this;
  withdraw_stop();
  sv::globalstop = 0;
  // Processes share subjects: each has the library to itself.
  gv::myid = 0;
  gv::numprocs = 1;

  const int effects = model.random_effects();
  eta_.setZero(effects);
  phi_.setZero(effects);
  means_.setZero(effects);
  install();
  int fixed_size = 0;
  int pack_size = 0;
  statsubs::getworkingstoragesizes(qrpem_engine, effects, effects, model.subjects(), 0, fixed_size,
                                   pack_size);

  set_theta(model.start_theta());
  [[maybe_unused]] const bool definite = set_omega(model.start_omega());
  assert(definite);  // the model file was checked for it
  omega_mask_ = model.omega_mask();
  select_every_column();
  const estimation_settings& chosen = model.specification().estimation;
  points_.emplace(effects, chosen.seed, chosen.scramble, chosen.points);
}

engine_host::~engine_host() {
  statsubs::installed_host() = statsubs::default_host();
  the_host = nullptr;
}

void engine_host::install() {
  statsubs::host_table& table = statsubs::installed_host();
  table = statsubs::default_host();

  table.setisub = [](const int& isub) { current().subject_ = isub - 1; };
  table.seteta = [](const double* eta) {
    engine_host& me = current();
    std::copy_n(eta, me.eta_.size(), me.eta_.data());
  };
  table.settheta = [](const double* theta) {
    engine_host& me = current();
    if (theta != me.theta_.data()) std::copy_n(theta, me.theta_.size(), me.theta_.data());
  };
  table.fcnxeta = [](const int&, const double* eta, double& f) { current().evaluate(eta, f); };
  table.fcneta = [](const int&, const double*, double& f) {
    engine_host& me = current();
    me.evaluate(me.eta_.data(), f);
  };
  table.fcnxetas = [](const int&, const int& n, const double* etas, double* f, double* z) {
    current().evaluate_block(n, etas, f, z);
  };
  table.setmainstdev = [](const double& sd) {
    engine_host& me = current();
    if (me.sigma_position() < 0) return;
    me.theta_(me.sigma_position()) = sd;
    gv::sigmalchol = sd;
    gv::sigmasq = sd * sd;
  };
  table.getsaemcmatrix = [](const int& isub0, double* cmatrix) {
    const engine_host& me = current();
    const int effects = me.model().random_effects();
    const auto columns = static_cast<Eigen::Index>(me.selected_columns_.size());
    Eigen::Map<Eigen::MatrixXd> c(cmatrix, effects, columns);
    c.setZero();
    for (Eigen::Index k = 0; k < columns; ++k) {
      const int column = me.selected_columns_[static_cast<std::size_t>(k)];
      c(me.model().columns()[static_cast<std::size_t>(column)].eta, k) =
          me.model().design(isub0, column);
    }
  };

  table.stoprequested = [] { return varda::stop_requested() ? 1 : 0; };
  table.checkforstop = [](int& flag) { sv::globalstop = flag != 0 ? 1 : 0; };
  table.dran3 = [](int& state) { return current().uniform(state); };

  // The library's one process owns every subject.
  table.globalvec = [](double*, const int&) {};
  table.globalblups2 = [] {};

  table.packparameters1 = [](const double* theta, const double* omega, const double& sigma,
                             double* x, const int& leneta, int& count) {
    const engine_host& me = current();
    const int thetas = static_cast<int>(me.model().thetas().size());
    std::copy_n(theta, thetas, x);
    const int position = me.sigma_position();
    if (gv::freesigmafound != 0 && position >= 0) x[position] = sigma;
    count = thetas;
    const Eigen::Map<const Eigen::MatrixXd> matrix(omega, leneta, leneta);
    for (int i = 0; i < leneta; ++i)
      for (int j = 0; j <= i; ++j)
        if (me.model().omega_mask()(i, j) != 0.0) x[count++] = matrix(i, j);
  };
  table.boundmap = [](const int& ntheta, const double* theta, double*) {
    const engine_host& me = current();
    for (int k = 0; k < ntheta; ++k) {
      const fixed_effect& t = me.model().thetas()[static_cast<std::size_t>(k)];
      const auto near = [&](double bound) {
        const double scale = std::max(std::fabs(bound), std::fabs(theta[k]));
        return std::isfinite(bound) && std::fabs(theta[k] - bound) <= nearness * scale;
      };
      gv::ibtight(k + 1) = !t.fixed && (near(t.lower) || near(t.upper)) ? 1 : 0;
    }
  };
  table.allocateglobalarrays = [](const int& hessian_dimension, const int&, const int&,
                                  const int&) { current().allocate(hessian_dimension); };

  table.getntheta = [] { return static_cast<int>(current().model().thetas().size()); };
  table.getfixefname = [](const int& itheta, char* name) {
    copy_name(current().model().thetas()[static_cast<std::size_t>(itheta - 1)].name, name);
  };
  table.getranef5name = [](const int& ieta, char* name) {
    copy_name(current().model().effects()[static_cast<std::size_t>(ieta - 1)].name, name);
  };
  table.getfixeferrtothetamap = [](int* map) {
    const int thetas = static_cast<int>(current().model().thetas().size());
    for (int k = 0; k < thetas; ++k) map[k] = k + 1;
  };
  table.getobscount = [] { return 1; };
  table.getobsvaluecount = [](const int&) { return current().model().data().observations(); };
  table.getobsstdevname = [](const int&, char* name) {
    const engine_host& me = current();
    const int sigma = me.sigma_position();
    copy_name(sigma < 0 ? "" : me.model().thetas()[static_cast<std::size_t>(sigma)].name, name);
  };
  table.getnobs1 = [](const int& isub) { return current().model().observations(isub - 1); };

  static const auto settings = []() -> const estimation_settings& {
    return current().model().specification().estimation;
  };
  table.getisample = [] { return settings().samples; };
  // 1 leaves presampling off.
  table.getpresample = [] {
    return settings().start == start_kind::presample ? settings().presamples : 1;
  };
  table.getmapnp = [] { return settings().map_np; };
  table.getsirsamp = [] { return settings().resamples; };
  table.getrunfromui = [] { return 1; };
  table.getpemrunall = [] { return settings().run_all ? 1 : 0; };
  table.getmapassist = [] { return settings().map_assist; };
  table.getmcpem = [] { return settings().points == point_kind::random ? 1 : 0; };
  table.getaccratio = [] { return settings().acceptance_ratio; };
  table.getimpsampdof = [] { return proposal_code(settings()); };
  table.getburnin = [] { return settings().burn_in; };
  table.nonomegaburn = [] { return settings().freeze_omega ? 1 : 0; };
  table.getscramble = [] { return settings().scramble; };
}

void engine_host::allocate(int hessian_dimension) {
  const int thetas = static_cast<int>(model().thetas().size());
  const int effects = model().random_effects();
  const int subjects = model().subjects();
  const int columns = static_cast<int>(model().columns().size());
  const auto bind_vector = [](auto& shared, Eigen::VectorXd& storage, int n) {
    storage.setZero(n);
    shared.bind(storage.data(), n);
  };
  const auto bind_matrix = [](auto& shared, Eigen::MatrixXd& storage, int rows, int cols) {
    storage.setZero(rows, cols);
    shared.bind(storage.data(), rows, cols);
  };
  const auto bind_integers = [](auto& shared, std::vector<int>& storage, int n, int value) {
    storage.assign(static_cast<std::size_t>(n), value);
    shared.bind(storage.data(), n);
  };

  bind_vector(gv::theta, theta_, thetas);
  bind_vector(gv::thetalo, theta_lower_, thetas);
  bind_vector(gv::thetahi, theta_upper_, thetas);
  bind_matrix(gv::omega, omega_, effects, effects);
  bind_matrix(gv::omegainv, omega_inverse_, effects, effects);
  bind_matrix(gv::omegalchol, omega_factor_, effects, effects);
  bind_matrix(gv::omegalcholinv, omega_factor_inverse_, effects, effects);
  bind_matrix(gv::omegamask, omega_mask_, effects, effects);
  bind_vector(gv::xmusub, centre_, effects);
  bind_matrix(gv::omegacholsub, proposal_factor_, effects, effects);
  bind_vector(gv::xmusubnew, mean_, effects);
  bind_matrix(gv::omegasubnew, covariance_, effects, effects);
  bind_matrix(gv::etatable, eta_table_, effects, subjects);
  bind_matrix(gv::cholsub, curvature_, effects * (effects + 1) / 2, subjects);
  bind_vector(gv::stddeveta, eta_deviations_, effects);
  bind_vector(gv::scorevec, score_, thetas);
  bind_vector(gv::scorevec_expanded, expanded_score_, thetas + effects * (effects + 1) / 2);
  bind_vector(se::xbase, variances_, hessian_dimension);
  proposal_factors_.assign(
      static_cast<std::size_t>(effects * effects) * static_cast<std::size_t>(subjects), 0.0);
  qv::choleskyfactor.bind(proposal_factors_.data(), effects, effects, subjects);
  c_matrices_.assign(
      static_cast<std::size_t>(effects * columns) * static_cast<std::size_t>(subjects), 0.0);

  bind_integers(gv::newsub, first_observation_, subjects + 1, 1);
  for (int i = 0; i < subjects; ++i)
    gv::newsub(i + 2) = gv::newsub(i + 1) + model().observations(i);
  bind_integers(gv::muetamap, mu_map_, effects, 0);
  for (int e = 1; e <= model().subject_effects(); ++e) gv::muetamap(e) = e;
  bind_integers(gv::ibtight, tight_, thetas, 0);
  bind_integers(gv::ibaccolislog, column_is_log_, columns, 0);
  bind_integers(qv::iseqtheta, column_theta_, columns, 0);
  bind_integers(qv::itypetheta, theta_type_, thetas, 1);
  bind_integers(qv::itypetheta_etamap, theta_effect_, thetas, -99);

  for (int k = 1; k <= thetas; ++k) {
    const fixed_effect& t = model().thetas()[static_cast<std::size_t>(k - 1)];
    gv::thetalo(k) = t.lower;
    gv::thetahi(k) = t.upper;
    // Class 0 sends a fixed effect to the score of a covariate coefficient.
    if (t.role == theta_role::covariate_effect) qv::itypetheta(k) = 0;
  }
  for (int e = 0; e < model().subject_effects(); ++e)
    qv::itypetheta_etamap(model().effects()[static_cast<std::size_t>(e)].parameter + 1) = e + 1;
  const int sigma = sigma_position();
  gv::freesigmafound = sigma < 0 || model().thetas()[static_cast<std::size_t>(sigma)].fixed ? 0 : 1;
}

// The library's own residual deviation is the last entry of theta, where that is one.
int engine_host::sigma_position() const {
  const bool deviation = model().thetas().back().role == theta_role::residual_deviation;
  return deviation ? static_cast<int>(model().thetas().size()) - 1 : -1;
}

void engine_host::set_theta(const Eigen::VectorXd& theta) {
  assert(theta.size() == theta_.size());
  theta_ = theta;
  // A model without residual errors has none; what another model left there is not to be seen.
  gv::sigmalchol = sigma_position() >= 0 ? theta_(sigma_position()) : 1.0;
  gv::sigmasq = gv::sigmalchol * gv::sigmalchol;
}

bool engine_host::set_omega(const Eigen::MatrixXd& omega) {
  random_effect_density prior(omega);
  if (!prior.is_definite()) return false;
  prior_ = std::move(prior);
  omega_ = omega;
  omega_factor_ = prior_.factor();
  omega_inverse_ = prior_.precision();
  eta_deviations_ = omega.diagonal().cwiseSqrt();
  return true;
}

void engine_host::select_columns(const std::vector<int>& columns) {
  selected_columns_ = columns;
  const int effects = model().random_effects();
  const int count = static_cast<int>(columns.size());
  qv::cmatrix_3d.bind(c_matrices_.data(), effects, count, model().subjects());
  for (int k = 0; k < count; ++k) {
    const design_column& column =
        model().columns()[static_cast<std::size_t>(columns[static_cast<std::size_t>(k)])];
    qv::iseqtheta(k + 1) = column.theta + 1;
    const fixed_effect& t = model().thetas()[static_cast<std::size_t>(column.theta)];
    gv::ibaccolislog(k + 1) = t.law == distribution::log_normal ? 1 : 0;
  }
  for (int i = 0; i < model().subjects(); ++i)
    if (count > 0) statsubs::host::getsaemcmatrix(i, qv::cmatrix_3d.slice(i + 1).data());
}

void engine_host::select_every_column() {
  std::vector<int> every(model().columns().size());
  std::iota(every.begin(), every.end(), 0);
  select_columns(every);
}

double engine_host::objective(int subject, const double* eta) {
  subject_ = subject;
  double f = 0.0;
  evaluate(eta, f);
  return f;
}

void engine_host::refresh_means() {
  const auto bytes = static_cast<std::size_t>(theta_.size()) * sizeof(double);
  const bool current_theta = means_theta_.size() == theta_.size() &&
                             std::memcmp(means_theta_.data(), theta_.data(), bytes) == 0;
  if (subject_ == means_subject_ && current_theta) return;
  model().means(subject_, theta_.data(), means_.data());
  means_theta_ = theta_;
  means_subject_ = subject_;
}

void engine_host::evaluate(const double* eta, double& f) {
  ++evaluations_;
  refresh_means();
  for (Eigen::Index i = 0; i < phi_.size(); ++i) phi_(i) = means_(i) + eta[i];
  double score = 0.0;
  f = density_.of_data(subject_, theta_.data(), phi_, score, scratch_) + prior_.negative_log(eta);
  gv::zscoresub = score;
}

void engine_host::evaluate_block(int n, const double* etas, double* f, double* scores) {
  evaluations_ += n;
  refresh_means();
  const Eigen::Map<const Eigen::MatrixXd> eta(etas, phi_.size(), n);
  block_phi_ = eta.colwise() + means_;
  if (costly_ && peers_.threads().size() > 1) {
    evaluate_in_parts(n);
  } else {
    density_.predict(subject_, theta_.data(), block_phi_, block_predictions_, scratch_);
    density_.of_data(subject_, theta_.data(), block_predictions_, block_objective_, block_score_);
  }
  prior_.negative_logs(eta, block_prior_);
  for (Eigen::Index j = 0; j < n; ++j) {
    f[j] = block_objective_(j) + block_prior_(j);
    scores[j] = block_score_(j);
  }
}

// An individual's figures do not depend on those that it is computed with.
void engine_host::evaluate_in_parts(int n) {
  constexpr int least_part = 16;
  constexpr int parts_a_thread = 2;
  const thread_team& threads = peers_.threads();
  while (static_cast<int>(block_parts_.size()) < threads.size()) block_parts_.emplace_back(model());
  // Whole multiples of what individuals are computed in together.
  const int parts = parts_a_thread * threads.size();
  const int size = std::max((n / parts + least_part - 1) / least_part, 1) * least_part;
  block_predictions_.resize(n, model().observations(subject_));
  block_objective_.resize(n);
  block_score_.resize(n);
  threads.for_each((n + size - 1) / size, [&](int part, int worker) {
    block_part& own = block_parts_[static_cast<std::size_t>(worker)];
    const int first = part * size;
    const int count = std::min(size, n - first);
    density_.predict(subject_, theta_.data(), block_phi_.middleCols(first, count), own.predictions,
                     own.scratch);
    density_.of_data(subject_, theta_.data(), own.predictions, own.objective, own.score);
    block_predictions_.middleRows(first, count) = own.predictions;
    block_objective_.segment(first, count) = own.objective;
    block_score_.segment(first, count) = own.score;
  });
}

void engine_host::place_points(const point_pass& pass, int subject, int samples) {
  points_->place(pass, subject, samples);
  stream_ = address_of(model().specification().estimation.seed, pass, subject);
}

// The library restarts `state` at 1 for every subject; the address of the subject's points is mixed
// in, so that subjects and passes draw apart.
double engine_host::uniform(int& state) const {
  const auto counter = static_cast<std::uint32_t>(state);
  state = static_cast<int>(counter + 1);
  return uniform_at(stream_, counter);
}

}  // namespace varda
