// SPDX-License-Identifier: Apache-2.0
//
// What a fit is worth, by means that share nothing with the program that made it: the exact -2
// log-likelihood at the estimates of a fit.json, the gain that still lies ahead of them, the
// nearest maximum and the standard errors there.
//
//   exact STRUCTURE DATA.csv FIT.json [--nodes N] [--center COLUMN=VALUE] [--maximise] [--verify]
//         [--rest GAIN] [--check-points N] [--json FILE] [--verbose]
//
// STRUCTURE: one-compartment-bolus, one-compartment-oral, two-compartment-bolus,
// two-compartment-oral, or growth (a logistic curve A / (1 + exp((t50 - t) / s))). Power covariate
// effects are known by their default names.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "exact_likelihood.h"

namespace {

using namespace exact;
using json = nlohmann::ordered_json;

struct options {
  std::string structure, data, fit, json_file;
  std::map<std::string, double> centers;
  settings chosen;
  bool maximise = false, verify = false, verbose = false;
};

options read_options(int count, char** words) {
  options o;
  std::vector<std::string> plain;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    const auto next = [&] {
      if (++i == count) throw std::runtime_error(word + " needs a value");
      return std::string(words[i]);
    };
    if (word == "--nodes") {
      o.chosen.nodes = std::stoi(next());
    } else if (word == "--check-points") {
      o.chosen.check_points = std::stoi(next());
    } else if (word == "--rest") {
      o.chosen.rest = std::stod(next());
    } else if (word == "--center") {
      const std::string text = next();
      const size_t equals = text.find('=');
      if (equals == std::string::npos) throw std::runtime_error("--center COLUMN=VALUE");
      o.centers[text.substr(0, equals)] = std::stod(text.substr(equals + 1));
    } else if (word == "--json") {
      o.json_file = next();
    } else if (word == "--maximise") {
      o.maximise = true;
    } else if (word == "--verify") {
      o.verify = true;
    } else if (word == "--verbose") {
      o.verbose = true;
    } else if (word.starts_with("--")) {
      throw std::runtime_error("unknown option " + word);
    } else {
      plain.push_back(word);
    }
  }
  if (plain.size() != 3) throw std::runtime_error("usage: exact STRUCTURE DATA.csv FIT.json ...");
  o.structure = plain[0];
  o.data = plain[1];
  o.fit = plain[2];
  return o;
}

using table = std::vector<std::map<std::string, std::string>>;

table read_csv(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  const auto split = [](std::string line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::vector<std::string> fields;
    std::istringstream stream(line);
    for (std::string field; std::getline(stream, field, ',');) fields.push_back(field);
    return fields;
  };
  std::string line;
  std::getline(in, line);
  const std::vector<std::string> names = split(line);
  table rows;
  while (std::getline(in, line)) {
    const std::vector<std::string> fields = split(line);
    if (fields.empty()) continue;
    auto& row = rows.emplace_back();
    for (size_t i = 0; i < names.size() && i < fields.size(); ++i) row[names[i]] = fields[i];
  }
  return rows;
}

double number(const std::map<std::string, std::string>& row, const std::string& column) {
  const auto at = row.find(column);
  if (at == row.end() || at->second.empty() || at->second == ".") return 0;
  return std::stod(at->second);
}

// Covariates are those in force at the subject's first record.
std::vector<subject> make_subjects(const table& rows, const std::vector<std::string>& columns,
                                   const std::map<std::string, double>& centers) {
  std::vector<subject> subjects;
  for (const auto& row : rows) {
    for (const char* column : {"RATE", "DUR", "SS", "ADDL", "CENS"})
      if (number(row, column) != 0)
        throw std::runtime_error(std::string(column) + " is beyond this program");
    if (subjects.empty() || subjects.back().id != row.at("ID")) {
      subject& s = subjects.emplace_back();
      s.id = row.at("ID");
      for (const std::string& column : columns) {
        const auto center = centers.find(column);
        s.covariates.push_back(
            std::log(number(row, column) / (center == centers.end() ? 1 : center->second)));
      }
    }
    subject& s = subjects.back();
    const double time = number(row, "TIME");
    if (number(row, "AMT") > 0)
      s.doses.push_back({time, number(row, "AMT")});
    else if (number(row, "MDV") == 0 && number(row, "EVID") == 0)
      s.observations.push_back({time, number(row, "DV"), static_cast<int>(s.doses.size())});
  }
  return subjects;
}

struct problem {
  population at;
  std::vector<std::string> names;  // structural parameters
  std::vector<std::string> effects, columns;
  std::vector<bool> logarithmic;
  std::vector<deviation> deviations;
  std::vector<std::string> residual_names;
  json fit;
};

problem read_fit(const std::string& path, const table& rows) {
  problem p;
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  p.fit = json::parse(in);
  using kind = quantity::kind;
  for (const json& entry : p.fit.at("parameters")) {
    const std::string name = entry.at("name"), distribution = entry.at("distribution");
    const double estimate = entry.at("estimate");
    const bool fixed = entry.value("fixed", false);
    if (distribution != "covariate effect") {
      if (distribution == "logit-normal") throw std::runtime_error("no logit-normal parameters");
      const bool logarithmic =
          distribution == "log-normal" || (distribution == "none" && estimate > 0);
      const int index = static_cast<int>(p.names.size());
      p.names.push_back(name);
      p.logarithmic.push_back(logarithmic);
      p.at.typical.push_back(logarithmic ? std::log(estimate) : estimate);
      if (!fixed) p.at.free.push_back({name, kind::typical, index});
      continue;
    }
    bool found = false;
    for (size_t i = 0; i < p.names.size() && !found; ++i) {
      if (!name.starts_with(p.names[i] + "_")) continue;
      const std::string column = name.substr(p.names[i].size() + 1);
      if (rows.empty() || rows.front().count(column) == 0) continue;
      if (!p.logarithmic[i]) throw std::runtime_error("effects on logarithms only: " + name);
      found = true;
      const int effect = static_cast<int>(p.effects.size());
      p.effects.push_back(name);
      p.columns.push_back(column);
      p.at.effects.push_back(estimate);
      p.at.effect_parameter.push_back(static_cast<int>(i));
      if (!fixed) p.at.free.push_back({name, kind::effect, static_cast<int>(i), 0, effect});
    }
    if (!found) throw std::runtime_error("cannot make out the effect " + name);
  }
  const json& omega = p.fit.at("omega");
  for (const json& name : omega.at("names")) {
    const auto at = std::find(p.names.begin(), p.names.end(), name.get<std::string>());
    if (at == p.names.end()) throw std::runtime_error("no parameter " + name.get<std::string>());
    p.at.random.push_back(static_cast<int>(at - p.names.begin()));
  }
  const auto d = static_cast<Eigen::Index>(p.at.random.size());
  Eigen::MatrixXd& l = p.at.factor = Eigen::MatrixXd::Zero(d, d);
  for (Eigen::Index a = 0; a < d; ++a) {
    const json& row = omega.at("matrix")[static_cast<size_t>(a)];
    for (Eigen::Index b = 0; b <= a; ++b) {
      const double variance = row[static_cast<size_t>(b)];
      const double rest = variance - l.row(a).head(b).dot(l.row(b).head(b));
      // What a singular matrix loses to rounding comes back as next to nothing.
      l(a, b) = a == b ? std::sqrt(std::max(rest, 1e-12 * variance)) : rest / l(b, b);
      const double estimated =
          omega.at("estimated")[static_cast<size_t>(a)][static_cast<size_t>(b)];
      if (estimated == 0) continue;
      const std::string name =
          "omega(" + p.names[p.at.random[a]] + "," + p.names[p.at.random[b]] + ")";
      p.at.free.push_back({name, a == b ? kind::diagonal : kind::entry, p.at.random[a],
                           static_cast<int>(a), static_cast<int>(b)});
    }
  }
  for (const json& entry : p.fit.at("residual")) {
    const std::string name = entry.at("name");
    const int index = static_cast<int>(p.deviations.size());
    if (name == "additive")
      p.deviations.push_back(deviation::additive);
    else if (name == "proportional")
      p.deviations.push_back(deviation::proportional);
    else if (name == "log_normal" || name == "log-normal")
      p.deviations.push_back(deviation::log_normal);
    else
      throw std::runtime_error("residual " + name);
    p.residual_names.push_back(name);
    p.at.log_deviations.push_back(std::log(entry.at("estimate").get<double>()));
    if (!entry.value("fixed", false))
      p.at.free.push_back({name, kind::residual, static_cast<int>(p.names.size()) + index, index});
  }
  return p;
}

std::unique_ptr<individual_density> make_density(const std::string& structure, const problem& p) {
  std::unique_ptr<individual_density> made;
  if (structure == "one-compartment-bolus")
    made = std::make_unique<density_of<bolus_one>>(p.logarithmic, p.deviations);
  else if (structure == "one-compartment-oral")
    made = std::make_unique<density_of<oral_one>>(p.logarithmic, p.deviations);
  else if (structure == "two-compartment-bolus")
    made = std::make_unique<density_of<bolus_two>>(p.logarithmic, p.deviations);
  else if (structure == "two-compartment-oral")
    made = std::make_unique<density_of<oral_two>>(p.logarithmic, p.deviations);
  else if (structure == "growth")
    made = std::make_unique<density_of<growth>>(p.logarithmic, p.deviations);
  else
    throw std::runtime_error("unknown structure " + structure);
  if (made->structural() != static_cast<int>(p.names.size()))
    throw std::runtime_error("the fit has another number of structural parameters");
  return made;
}

json matrix_json(const Eigen::MatrixXd& m) {
  json rows = json::array();
  for (Eigen::Index a = 0; a < m.rows(); ++a) {
    rows.push_back(json::array());
    for (Eigen::Index b = 0; b < m.cols(); ++b)
      rows.back().push_back(std::isnan(m(a, b)) ? json(nullptr) : json(m(a, b)));
  }
  return rows;
}

// The layout of a fit.json, so that the result can be read again; with standard errors by the
// observed information on the natural scale where the Hessian is positive definite.
json estimates_json(const problem& p, const population& at, const surface& there) {
  const auto n = static_cast<Eigen::Index>(at.free.size());
  const auto d = at.factor.rows();
  const Eigen::LLT<Eigen::MatrixXd> root(there.hessian / 2);
  const bool definite = root.info() == Eigen::Success && newton_step(there).least_eigenvalue > 1e-9;
  Eigen::MatrixXd covariance;
  if (definite) covariance = root.solve(Eigen::MatrixXd::Identity(n, n));
  const auto error = [&](const Eigen::VectorXd& slope) {
    return definite ? json(std::sqrt(slope.dot(covariance * slope))) : json(nullptr);
  };
  const auto error_of = [&](const std::string& name, double slope) {
    for (Eigen::Index i = 0; i < n; ++i)
      if (at.free[static_cast<size_t>(i)].name == name)
        return error(slope * Eigen::VectorXd::Unit(n, i));
    return json(nullptr);
  };
  json result = p.fit;
  const std::vector<std::string> kept = {"parameters", "omega", "residual"};
  for (auto it = result.begin(); it != result.end();)
    it = std::find(kept.begin(), kept.end(), it.key()) == kept.end() ? result.erase(it)
                                                                     : std::next(it);
  for (json& entry : result["parameters"]) {
    const std::string name = entry["name"];
    const auto effect = std::find(p.effects.begin(), p.effects.end(), name);
    double value = 0, slope = 1;
    if (effect != p.effects.end()) {
      value = at.effects[static_cast<size_t>(effect - p.effects.begin())];
    } else {
      const auto i =
          static_cast<size_t>(std::find(p.names.begin(), p.names.end(), name) - p.names.begin());
      value = p.logarithmic[i] ? std::exp(at.typical[i]) : at.typical[i];
      if (p.logarithmic[i]) slope = value;
    }
    entry = {{"name", name},
             {"estimate", value},
             {"distribution", entry["distribution"]},
             {"fixed", entry.value("fixed", false)},
             {"se", error_of(name, slope)}};
  }
  json& omega = result["omega"];
  json errors = json::array();
  for (Eigen::Index a = 0; a < d; ++a) {
    errors.push_back(json::array());
    for (Eigen::Index b = 0; b < d; ++b) {
      if (omega["estimated"][static_cast<size_t>(a)][static_cast<size_t>(b)] == 0) {
        errors.back().push_back(nullptr);
        continue;
      }
      // omega = L L', so d omega(a, b) = dL(a, .) L(b, .)' + L(a, .) dL(b, .)'
      Eigen::VectorXd slope = Eigen::VectorXd::Zero(n);
      for (Eigen::Index i = 0; i < n; ++i) {
        const quantity& q = at.free[static_cast<size_t>(i)];
        if (q.what != quantity::kind::diagonal && q.what != quantity::kind::entry) continue;
        const double by = q.what == quantity::kind::diagonal ? at.factor(q.row, q.row) : 1;
        if (q.row == a) slope(i) += by * at.factor(b, q.column);
        if (q.row == b) slope(i) += by * at.factor(a, q.column);
      }
      errors.back().push_back(error(slope));
    }
  }
  omega = {{"names", omega["names"]},
           {"matrix", matrix_json(at.factor * at.factor.transpose())},
           {"estimated", omega["estimated"]},
           {"se", errors}};
  for (size_t r = 0; r < p.residual_names.size(); ++r) {
    const double value = std::exp(at.log_deviations[r]);
    result["residual"][r] = {{"name", p.residual_names[r]},
                             {"estimate", value},
                             {"fixed", p.fit["residual"][r].value("fixed", false)},
                             {"se", error_of(p.residual_names[r], value)}};
  }
  return result;
}

// Central differences of the value and of the gradient, at steps that suit errors of 1e-12.
json verify(exact_likelihood& likelihood, population at) {
  const surface center = likelihood.evaluate(at, true);
  const Eigen::VectorXd psi = at.packed();
  double gradient = 0, hessian = 0;
  for (Eigen::Index i = 0; i < psi.size(); ++i) {
    const auto moved = [&](double step) {
      at.unpack(psi + step * Eigen::VectorXd::Unit(psi.size(), i));
      return likelihood.evaluate(at, false);
    };
    const double h = 1e-3;
    const surface up = moved(h), down = moved(-h), up2 = moved(2 * h), down2 = moved(-2 * h);
    const double slope =
        (8 * (up.minus2ll - down.minus2ll) - (up2.minus2ll - down2.minus2ll)) / (12 * h);
    const Eigen::VectorXd column =
        (8 * (up.gradient - down.gradient) - (up2.gradient - down2.gradient)) / (12 * h);
    gradient = std::max(gradient, std::abs(slope - center.gradient(i)));
    hessian = std::max(hessian, (column - center.hessian.col(i)).cwiseAbs().maxCoeff());
  }
  return {{"gradient", gradient},
          {"hessian", hessian},
          {"largest_hessian", center.hessian.cwiseAbs().maxCoeff()}};
}

// The diagonals of L that are small beside their rows, or alone and small: log L has false
// stationary points there, so each is tried again from well inside.
std::vector<const quantity*> nearly_singular(const problem& p, const population& at) {
  std::vector<const quantity*> small;
  for (const quantity& q : at.free) {
    if (q.what != quantity::kind::diagonal) continue;
    const double length = at.factor.row(q.row).norm(), diagonal = at.factor(q.row, q.row);
    const double unit = p.logarithmic[q.coordinate] ? 1 : std::abs(at.typical[q.coordinate]);
    if (diagonal < 0.1 * length || diagonal < 0.02 * unit) small.push_back(&q);
  }
  return small;
}

surface maximise_from_inside(exact_likelihood& likelihood, const problem& p, population& at,
                             bool verbose) {
  surface best = maximise(likelihood, at, verbose);
  for (const quantity* q : nearly_singular(p, at)) {
    population inside = at;
    const double unit = p.logarithmic[q->coordinate] ? 1 : std::abs(at.typical[q->coordinate]);
    const double length = std::max(at.factor.row(q->row).norm(), 0.1 * unit);
    const double rest = at.factor.row(q->row).head(q->row).norm();
    if (rest > 0) inside.factor.row(q->row).head(q->row) *= std::sqrt(0.75) * length / rest;
    inside.factor(q->row, q->row) = rest > 0 ? length / 2 : length;
    if (verbose) std::fprintf(stderr, "from inside: %s\n", q->name.c_str());
    surface there = maximise(likelihood, inside, verbose);
    if (there.finite && there.minus2ll < best.minus2ll - 1e-7) {
      best = there;
      at = inside;
    }
  }
  return best;
}

json surface_json(const population& at, const surface& s) {
  const promise ahead = newton_step(s);
  json gradient = json::object();
  for (size_t i = 0; i < at.free.size(); ++i)
    gradient[at.free[i].name] = s.gradient(static_cast<Eigen::Index>(i));
  return {{"minus2ll", s.minus2ll},
          {"error", s.error},
          {"ahead", ahead.gain},
          {"least_eigenvalue", ahead.least_eigenvalue},
          {"gradient", gradient}};
}

json comparison_json(const comparison& c) {
  return {{"minus2ll", c.minus2ll},
          {"error", c.error},
          {"worst_ratio", c.worst},
          {"worst_subject", c.worst_subject}};
}

int run(const options& o) {
  const table rows = read_csv(o.data);
  problem p = read_fit(o.fit, rows);
  exact_likelihood likelihood(make_subjects(rows, p.columns, o.centers),
                              make_density(o.structure, p), o.chosen);
  const comparison compared = likelihood.check(p.at);
  const surface here = likelihood.evaluate(p.at, true);
  if (!here.finite) throw std::runtime_error("the likelihood is not finite at the estimates");
  json result = surface_json(p.at, here);
  json sampled = json::array(), several = json::array(), values = json::object();
  for (size_t i = 0; i < likelihood.subjects().size(); ++i) {
    const std::string& id = likelihood.subjects()[i].id;
    if (likelihood.sampled(i)) sampled.push_back(id);
    if (here.modes[i] > 1) several.push_back(id);
    values[id] = here.subjects[i];
  }
  result["several_modes"] = several;
  result["sampled"] = sampled;
  result["importance_sampling"] = comparison_json(compared);
  result["subjects"] = values;
  std::printf("exact -2LL          %.8f   error %.2g\n", here.minus2ll, here.error);
  std::printf("gain ahead          %.3g   least scaled eigenvalue %.3g\n",
              result["ahead"].get<double>(), result["least_eigenvalue"].get<double>());
  std::printf("importance sampling %.4f   error %.2g   worst subject %s: %.1f errors\n",
              compared.minus2ll, compared.error, compared.worst_subject.c_str(), compared.worst);
  if (!several.empty()) std::printf("several modes       %s\n", several.dump().c_str());
  if (!sampled.empty()) std::printf("sampled             %s\n", sampled.dump().c_str());
  if (o.verify) {
    result["differences"] = verify(likelihood, p.at);
    std::printf("against differences %s\n", result["differences"].dump().c_str());
  }
  if (o.maximise) {
    population top = p.at;
    surface there = maximise_from_inside(likelihood, p, top, o.verbose);
    const size_t before = sampled.size();
    const comparison at_top = likelihood.check(top);
    if (likelihood.sampled() > before) there = maximise(likelihood, top, o.verbose);
    json maximum = surface_json(top, there);
    maximum["importance_sampling"] = comparison_json(at_top);
    maximum["gain"] = here.minus2ll - there.minus2ll + maximum["ahead"].get<double>();
    json singular = json::array();
    for (const quantity* q : nearly_singular(p, top)) singular.push_back(q->name);
    maximum["singular"] = singular;
    maximum["estimates"] = estimates_json(p, top, there);
    std::printf("nearest maximum     %.8f   gain %.6g   ahead of it %.2g\n", there.minus2ll,
                maximum["gain"].get<double>(), maximum["ahead"].get<double>());
    if (!singular.empty()) std::printf("singular            %s\n", singular.dump().c_str());
    for (const char* part : {"parameters", "residual"})
      for (const json& entry : maximum["estimates"][part])
        std::printf("  %-16s %.9g  se %s\n", entry["name"].get<std::string>().c_str(),
                    entry["estimate"].get<double>(), entry["se"].dump().c_str());
    const json& omega = maximum["estimates"]["omega"];
    for (size_t a = 0; a < omega["names"].size(); ++a)
      for (size_t b = 0; b <= a; ++b)
        if (omega["estimated"][a][b] != 0)
          std::printf("  omega(%s,%s) %.9g  se %s\n", omega["names"][a].get<std::string>().c_str(),
                      omega["names"][b].get<std::string>().c_str(),
                      omega["matrix"][a][b].get<double>(), omega["se"][a][b].dump().c_str());
    result["maximum"] = maximum;
  } else {
    result["estimates"] = estimates_json(p, p.at, here);
  }
  if (!o.json_file.empty()) {
    std::ofstream out(o.json_file);
    out << result.dump(1) << '\n';
    if (!out.flush()) throw std::runtime_error("cannot write " + o.json_file);
  }
  return 0;
}

}  // namespace

int main(int count, char** words) {
  try {
    return run(read_options(count, words));
  } catch (const std::exception& e) {
    std::cerr << "exact: " << e.what() << '\n';
    return 1;
  }
}
