// SPDX-License-Identifier: Apache-2.0
//
// The tables against the result that they stand for, and prediction errors against their
// distribution: a predictive distribution function by quadrature, and data that the model made.
#include "varda/report/reports.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <iterator>
#include <sstream>

#include "tests/varda/theophylline.h"
#include "varda/report/matrix_tables.h"
#include "varda/diagnostics/npde.h"

namespace varda {
namespace {

double normal_probability(double z) {
  return 0.5 * std::erfc(-z / std::sqrt(2.0));
}

TEST(Npde, IsTheNormalScoreOfASingleObservation) {
  const population_model whole = test::theophylline([](model_specification& file) {
    for (const std::size_t k : {1U, 2U}) file.parameters[k].law = distribution::none;
    file.omega.resize(1);
  });
  dataset data = whole.data();
  for (std::size_t i = 0; i < data.subjects.size(); ++i) {
    subject& who = data.subjects[i];
    const observation kept = who.observations[1 + i % 8];
    who.observations.clear();
    std::erase_if(who.timeline, [](const event& e) { return e.kind == event_kind::observation; });
    append(who, kept);
  }
  const population_model model(whole.specification(), data);
  const Eigen::VectorXd theta = model.start_theta();
  const Eigen::MatrixXd omega = model.start_omega();
  for (int i = 0; i < model.subjects(); ++i) {
    const double y = data.subjects[static_cast<std::size_t>(i)].observations.front().value;
    double below = 0.0;
    constexpr double step = 0.01;
    for (double z = -8.0; z < 8.0; z += step) {
      const double phi = std::log(theta(0)) + std::sqrt(omega(0, 0)) * z;
      Eigen::Vector3d p;
      double f = 0.0;
      model.individual_parameters(i, theta.data(), &phi, p.data());
      model.predict(i, p.data(), &f);
      below += step * std::exp(-0.5 * z * z) / std::sqrt(2.0 * M_PI) *
               normal_probability((y - f) / theta(3));
    }
    const double score = npde(model, i, theta, omega, 20000, 1)(0);
    EXPECT_NEAR(normal_probability(score), below, 4.0 * std::sqrt(below * (1.0 - below) / 20000.0))
        << i;
  }
}

TEST(Npde, IsStandardNormalForDataThatTheModelMade) {
  for (const double limit : {0.0, 4.0}) {
    const population_model model = test::simulated(test::theophylline(), 10, 3, limit);
    double sum = 0.0;
    double squares = 0.0;
    double n = 0.0;
    for (int i = 0; i < model.subjects(); ++i) {
      const Eigen::VectorXd errors =
          npde(model, i, model.start_theta(), model.start_omega(), 500, 1);
      sum += errors.sum();
      squares += errors.squaredNorm();
      n += static_cast<double>(errors.size());
    }
    EXPECT_NEAR(sum / n, 0.0, 4.0 / std::sqrt(n)) << limit;
    EXPECT_NEAR(squares / n, 1.0, 4.0 * std::sqrt(2.0 / n)) << limit;
  }
}

// Rows by their first column, each by the names of the columns.
using table = std::map<std::string, std::map<std::string, double>>;

table parsed(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line.rfind("TABLE NO.", 0), 0U);
  std::getline(lines, line);
  std::istringstream header(line);
  const std::vector<std::string> names(std::istream_iterator<std::string>(header), {});
  table result;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::vector<std::string> row(std::istream_iterator<std::string>(fields), {});
    EXPECT_EQ(row.size(), names.size()) << line;
    for (std::size_t k = 1; k < row.size(); ++k) result[row[0]][names[k]] = std::stod(row[k]);
  }
  return result;
}

TEST(MatrixTables, SayWhatTheResultSays) {
  const population_model model = test::theophylline([](model_specification& f) {
    f.omega = {{{"ka", "CL"}, {0.3, 0.02, 0.02, 0.1}, false}, {{"V"}, {0.02}, true}};
  });
  const fit_result result = test::fit(model);
  const auto same = [](double field, double value) {
    EXPECT_NEAR(field, value, 1e-5 * std::fabs(value));
  };
  const std::vector<estimate_error>& errors = result.errors.chosen();

  table ext = parsed(ext_table(model, result));
  same(ext["-1000000000"]["THETA2"], result.theta(1));
  same(ext["-1000000000"]["OMEGA(2,1)"], result.omega(1, 0));
  EXPECT_EQ(ext["-1000000000"]["OBJ"], test::minus2ll(result));
  EXPECT_EQ(ext["-1000000000"]["SIGMA(1,1)"], 1.0);
  same(ext["-1000000001"]["THETA4"], errors[3].se);
  same(ext["-1000000001"]["OMEGA(2,1)"], errors[5].se);
  EXPECT_EQ(ext["-1000000001"]["OMEGA(3,3)"], 1e10);
  EXPECT_EQ(ext["-1000000006"]["OMEGA(3,3)"], 1.0);
  EXPECT_EQ(ext["-1000000006"]["OMEGA(2,2)"], 0.0);
  same(ext["2"]["THETA3"], result.iterations[1].theta(2));

  table phi = parsed(phi_table(model, result));
  const subject_integral& third = result.likelihood.subjects[2];
  same(phi["3"]["PHI(2)"], std::log(result.theta(1)) + third.mean(1));
  same(phi["3"]["PHC(3,1)"], third.covariance(2, 0));
  double total = 0.0;
  for (auto& [subject, row] : phi) total += row["OBJ"];
  EXPECT_NEAR(total, test::minus2ll(result), 0.01);

  table cov = parsed(cov_table(model, result));
  table cor = parsed(cor_table(model, result));
  same(cov["THETA3"]["THETA3"], errors[2].se * errors[2].se);
  same(cor["THETA3"]["THETA3"], errors[2].se);
  same(cor["OMEGA(2,1)"]["THETA1"], result.errors.correlation(5, 0));
  same(cov["THETA1"]["OMEGA(2,1)"], result.errors.correlation(5, 0) * errors[0].se * errors[5].se);
  EXPECT_EQ(cov["OMEGA(3,3)"]["OMEGA(3,3)"], 0.0);
  EXPECT_THAT(legend_csv(model), testing::HasSubstr("\"OMEGA(2,1)\",\"omega(CL,ka)\",0\n"));
}

TEST(Rows, HoldThePredictionsOfEachObservation) {
  const population_model model = test::simulated(test::theophylline(), 1, 1, 2.0);
  const fit_result result = test::evaluate(model);
  std::istringstream lines(rows_csv(model, result));
  std::string line;
  std::getline(lines, line);
  EXPECT_EQ(line, "ID,TIME,DV,DVID,CENS,LIMIT,PRED,IPRED,RES,IWRES,NPDE,ka,CL,V");
  int rows = 0;
  for (; std::getline(lines, line); ++rows) {
    std::vector<double> v;
    std::istringstream fields(line);
    for (std::string cell; std::getline(fields, cell, ',');)
      v.push_back(cell.empty() ? NAN : std::stod(cell));
    const double ka = v[11];
    const double k = v[12] / v[13];
    const subject& who = model.data().subjects[static_cast<std::size_t>(rows / 11)];
    EXPECT_NEAR(
        v[7],
        who.doses[0].amount * ka / v[13] / (ka - k) * (std::exp(-k * v[1]) - std::exp(-ka * v[1])),
        1e-9);
    EXPECT_EQ(std::isnan(v[9]), v[4] == 1.0) << line;
    if (v[4] == 0.0) {
      EXPECT_NEAR(v[9], v[2] - v[7], 1e-9);  // the deviation is 1
    }
    EXPECT_TRUE(std::isfinite(v[10]));
  }
  EXPECT_EQ(rows, 132);
}

}  // namespace
}  // namespace varda
