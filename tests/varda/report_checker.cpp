// SPDX-License-Identifier: Apache-2.0
//
// Holds a report to the tables of its run: report_checker FOLDER. Prints what is wrong.
#include <cmath>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using nlohmann::json;

int failures = 0;

void expect(bool holds, const std::string& what) {
  if (holds) return;
  std::cout << "FAILED: " << what << "\n";
  ++failures;
}

std::string text_of(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::size_t count(const std::string& text, const std::string& what) {
  std::size_t found = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++found;
  return found;
}

// What a browser takes for the element's text: all up to the next end tag.
json data_of(const std::string& page) {
  const std::string begin = "<script type=\"application/json\" id=\"data\">";
  expect(count(page, begin) == 1, "one element with the data");
  const std::size_t from = page.find(begin) + begin.size();
  return json::parse(page.substr(from, page.find("</script", from) - from));
}

// Fields of a table without quotes, by column.
std::map<std::string, std::vector<std::string>> columns_of(const std::string& path) {
  std::istringstream lines(text_of(path));
  std::string line;
  std::vector<std::string> names;
  std::map<std::string, std::vector<std::string>> columns;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string field;
    for (std::size_t k = 0; std::getline(fields, field, ','); ++k)
      if (names.size() <= k && columns.size() == names.size() && columns[field].empty())
        names.push_back(field);
      else
        columns[names.at(k)].push_back(field);
  }
  return columns;
}

void check_rows(const json& report, const std::string& folder) {
  const auto columns = columns_of(folder + "/rows.csv");
  const json& rows = report.at("rows");
  const std::map<std::string, std::string> same = {{"time", "TIME"},   {"dv", "DV"},
                                                   {"pred", "PRED"},   {"ipred", "IPRED"},
                                                   {"iwres", "IWRES"}, {"npde", "NPDE"}};
  const std::size_t n = columns.at("ID").size();
  expect(n == 132, "132 rows");
  for (const auto& [name, column] : same) {
    expect(rows.at(name).size() == n, name + " of every row");
    for (std::size_t k = 0; k < n; ++k)
      expect(rows.at(name).at(k) == std::stod(columns.at(column).at(k)), name + " as in rows.csv");
  }
  for (std::size_t k = 0; k < n; ++k) {
    const json& who = report.at("subjects").at(rows.at("subject").at(k).get<std::size_t>());
    expect(who.at("id") == columns.at("ID").at(k), "the subject of a row");
    // One dose at time 0.
    expect(rows.at("tad").at(k) == rows.at("time").at(k), "time after the dose");
  }
}

// The smooth curves are computed anew; at the observations they must be what the run predicted.
void check_curves(const json& report) {
  const json& rows = report.at("rows");
  const auto near = [](double a, double b) {
    return std::abs(a - b) <= 1e-5 * (1.0 + std::abs(b));
  };
  for (std::size_t k = 0; k < rows.at("time").size(); ++k) {
    const json& who = report.at("subjects").at(rows.at("subject").at(k).get<std::size_t>());
    const json& curve = who.at("curves").at(0);
    expect(curve.at("time").size() > 100, "a curve is smooth");
    bool found = false;
    for (std::size_t j = 0; j < curve.at("time").size(); ++j) {
      if (!near(curve.at("time").at(j), rows.at("time").at(k))) continue;
      found = found || (near(curve.at("ipred").at(j), rows.at("ipred").at(k)) &&
                        near(curve.at("pred").at(j), rows.at("pred").at(k)));
      expect(curve.at("lower").at(j) <= curve.at("upper").at(j), "the band's ends are in order");
    }
    expect(found, "the curve meets the predictions of row " + std::to_string(k));
  }
}

}  // namespace

int main(int, char** arguments) {
  const std::string folder = arguments[1];
  const std::string page = text_of(folder + "/report.html");
  expect(page.size() < 2'000'000, "at most 2 MB");
  expect(count(page, "<script>alert") == 0, "a name is no markup");
  expect(count(page, "http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'") == 1,
         "the page may load nothing");
  const json report = data_of(page);
  const json fit = json::parse(text_of(folder + "/fit.json"));
  for (const char* key : {"parameters", "omega", "residual", "minus2ll", "criteria", "warnings",
                          "reason", "converged"})
    expect(report.at("results").at(key) == fit.at(key), std::string(key) + " as in fit.json");
  expect(report.at("subjects").at(6).at("id") == "<script>alert(7)</script>", "the name itself");
  expect(report.at("model").at("structure").at(1) == "dA₁/dt = ka × A₀ − (CL / V) × A₁",
         "the structure in equations");
  check_rows(report, folder);
  check_curves(report);
  int binned = 0;
  for (const json& bin : report.at("vpc").at("plain").at(0).at("bins")) {
    binned += bin.at("observations").get<int>();
    const json& middle = bin.at("percentiles").at(1);
    expect(middle.at("lower") <= middle.at("median") && middle.at("median") <= middle.at("upper"),
           "the interval of a percentile holds its median");
  }
  expect(binned == 132, "every observation is in a bin");
  return failures > 0 ? 1 : 0;
}
