// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "varda/data/csv.h"
#include "varda/data/dataset.h"
#include "varda/input/model_file.h"
#include "varda/model/density.h"
#include "varda/model/plausibility.h"
#include "varda/model/population.h"
#include "varda/model/settings_table.h"
#include "varda/support/finding.h"

namespace varda {
namespace {

using testing::DoubleEq;
using testing::ElementsAre;
using testing::HasSubstr;

std::string file_with(const std::string& text, const std::string& name) {
  const std::string path = "input_test_" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// What the reading of bad input finds; an empty finding when nothing is refused.
finding refusal(const std::function<void(findings&)>& read) {
  findings warnings;
  try {
    read(warnings);
  } catch (const bad_input& error) {
    EXPECT_EQ(error.what_found().level, severity::error);
    EXPECT_FALSE(error.what_found().remedy.empty());
    return error.what_found();
  }
  return {};
}

// ---- data sets ----

data_source source_of(const std::string& file, std::vector<std::string> covariates = {}) {
  data_source source;
  source.file = file;
  source.covariates = std::move(covariates);
  return source;
}

dataset read(const std::string& text) {
  findings warnings;
  return read_dataset(source_of(file_with(text, "data.csv")), warnings);
}

// The cases of a file under tests/varda: fields between " | ", escapes taken back.
struct refused_case {
  int line = 0;
  std::vector<std::string> fields;
};

std::string unescaped(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escape = text[i] == '\\' && i + 1 < text.size();
    if (escape && text[i + 1] == 'x') {
      plain += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
      i += 3;
      continue;
    }
    plain += !escape ? text[i] : text[++i] == 'n' ? '\n' : '\r';
  }
  return plain;
}

std::vector<refused_case> refused_cases(const std::string& name, std::size_t fields) {
  std::vector<refused_case> cases;
  std::ifstream file(SOURCE_FOLDER "/tests/varda/" + name);
  std::string text;
  for (int line = 1; std::getline(file, text); ++line) {
    if (text.starts_with("#")) continue;
    refused_case c{line, {}};
    for (std::size_t k = 1; k < fields; ++k) {
      c.fields.push_back(unescaped(text.substr(0, text.find(" | "))));
      text.erase(0, text.find(" | ") + 3);
    }
    c.fields.push_back(unescaped(text));
    cases.push_back(c);
  }
  return cases;
}

void expect_place(const finding& found, const std::string& code, const std::string& file,
                  const std::string& row, const std::string& column) {
  EXPECT_EQ(found.code, code) << found.message;
  EXPECT_EQ(found.file, file);
  EXPECT_EQ(found.row, std::stoi(row));
  EXPECT_EQ(found.column, column);
}

// The head that the cases of a kind in bad_data.txt share.
std::string head_of(const std::string& kind) {
  if (kind == "record") return "ID,TIME,DV,AMT,EVID,MDV,CMT,RATE\nA,0,.,9,1,.,1,.\n";
  if (kind == "dose") return "ID,TIME,DV,AMT,RATE,DUR,II,ADDL,SS,CMT,EVID\n";
  if (kind == "value") return "ID,TIME,DV,AMT,CENS,LIMIT,OCC\nA,0,.,9,.,.,1\n";
  return "";
}

TEST(Dataset, RefusesWhatItCannotUse) {
  const auto cases = refused_cases("bad_data.txt", 6);
  ASSERT_EQ(cases.size(), 71U);
  for (const refused_case& c : cases) {
    SCOPED_TRACE("bad_data.txt, line " + std::to_string(c.line));
    data_source source = source_of(file_with(head_of(c.fields[0]) + c.fields[5], "bad.csv"));
    source.compartments = 2;
    source.modelled_rate = {1};
    source.occasions = c.fields[0] == "value";
    if (c.fields[0] == "weight") source.covariates = {"WT"};
    const finding found = refusal([&](findings& w) { read_dataset(source, w); });
    expect_place(found, c.fields[1], source.file, c.fields[2], c.fields[3]);
    EXPECT_EQ(found.subject, c.fields[4]);
  }
  // No such file, a folder, two bytes a character.
  file_with(std::string("I\0D\0,\0", 6), "wide.csv");
  for (const std::string name : {"none/data.csv", ".", "input_test_wide.csv"}) {
    const data_source source = source_of(name);
    EXPECT_EQ(refusal([&](findings& w) { read_dataset(source, w); }).code, "E-DATA-FILE");
  }
}

TEST(Dataset, SuggestsTheColumnThatWasMeant) {
  data_source renamed = source_of(file_with("ID,TIME,CONC,AMT\n1,0,.,9\n", "renamed.csv"));
  renamed.columns = {{"DV", "CONK"}};
  const finding found = refusal([&](findings& w) { read_dataset(renamed, w); });
  EXPECT_EQ(found.code, "E-DATA-COLUMN");
  EXPECT_EQ(found.column, "CONK");
  EXPECT_EQ(found.remedy, "did you mean CONC?");
  EXPECT_THAT(to_text(found), HasSubstr("renamed.csv, row 1, column CONK: error E-DATA-COLUMN: "));
}

TEST(Dataset, ReadsEveryWayOfWritingIt) {
  const std::string plain = "ID,TIME,DV,AMT\nA 1,-2,.,9\nA 1,0.5,5,.\n";
  for (const char separator : {',', ';', '\t'})
    for (const char* start : {"", "\xEF\xBB\xBF", "\n\n"})
      for (const char* end : {"\n", "\r\n", " \r\n", "\r"}) {
        std::string text = start;
        for (const char c : plain) {
          if (c == '\n')
            text += end;
          else
            text += c == ',' ? separator : c;
        }
        const dataset data = read(text);
        ASSERT_EQ(data.subjects.size(), 1U) << text;
        EXPECT_EQ(data.subjects[0].id, "A 1");
        EXPECT_EQ(data.subjects[0].doses[0].time, -2.0);
        EXPECT_EQ(data.subjects[0].doses[0].row, std::string(start) == "\n\n" ? 4 : 2);
        EXPECT_EQ(data.subjects[0].observations[0].value, 5.0);
      }
  findings rows;
  const csv_table quoted =
      read_csv(file_with("\"a\" , b\n\" x,\"\"y\"\"\" , z", "quoted.csv"), rows);
  EXPECT_THAT(quoted.header, ElementsAre("a", "b"));
  EXPECT_THAT(quoted.at(0).fields, ElementsAre(" x,\"y\"", "z"));
  // Separators in a column name, columns without a name, remarks.
  const csv_table odd =
      read_csv(file_with(";\"b, c, d\";e,f;\n# a note\n1;2;3;4\n#", "odd.csv"), rows);
  EXPECT_THAT(odd.header, ElementsAre("", "b, c, d", "e,f", ""));
  ASSERT_EQ(odd.records(), 1U);
  EXPECT_EQ(odd.at(0).line, 3);
}

std::string covariates_text(const dataset& data, const segment& s) {
  std::string text;
  for (std::size_t k = 0; k < s.covariates.size(); ++k)
    text += fmt::format(" {} {}", data.covariate_names[k], s.covariates[k]);
  return text;
}

std::string dose_text(const dose& d) {
  std::string text = fmt::format("dose {}>{}", d.amount, d.compartment);
  if (d.input == dose_input::infusion) text += fmt::format(" rate {}", d.rate);
  if (d.input == dose_input::modelled_rate) text += " modelled rate";
  if (d.input == dose_input::modelled_duration) text += " modelled duration";
  return d.steady_state ? text + fmt::format(" ss {}", d.interval) : text;
}

std::string observation_text(const observation& o) {
  const char* censored[] = {"", " left", " right", " interval"};
  std::string text = fmt::format("obs {}{}", o.value, censored[static_cast<int>(o.censored)]);
  if (o.censored == censoring::interval) text += fmt::format(" from {}", o.limit);
  if (o.endpoint > 0) text += fmt::format(" endpoint {}", o.endpoint);
  return o.segment > 0 ? text + fmt::format(" in {}", o.segment) : text;
}

std::string event_text(const dataset& data, const subject& who, const event& e) {
  const auto at = static_cast<std::size_t>(e.index);
  if (e.kind == event_kind::dose) return dose_text(who.doses[at]);
  if (e.kind == event_kind::observation) return observation_text(who.observations[at]);
  if (e.kind == event_kind::reset) return "reset";
  const segment& s = who.segments[at];
  EXPECT_EQ(s.begin, e.time);
  return fmt::format("segment {}:{}", at, covariates_text(data, s)) +
         (data.occasions() > 1 ? fmt::format(" occasion {}", s.occasion) : "");
}

// A data set and its warnings in the notation of legal_data.txt.
std::string timelines_text(const dataset& data, const findings& warnings) {
  std::string text;
  for (const subject& who : data.subjects) {
    if (!data.covariate_names.empty())
      text += fmt::format("{} -{}\n", who.id, covariates_text(data, who.segments.front()));
    for (const event& e : who.timeline)
      text += fmt::format("{} {:.6g} {}\n", who.id, e.time, event_text(data, who, e));
  }
  for (const bool varies : data.covariate_varies) text += varies ? "varies\n" : "";
  for (const finding& w : warnings)
    text += fmt::format("{} {} {} {}\n", w.code, std::stoi(w.message), w.row, w.column);
  return text;
}

// Sets what the first line of a case says about the model; false for any other line.
bool set_model(const std::string& line, data_source& source) {
  if (line == "covariates") return source.covariates = {"wt"}, true;
  if (line == "occasions") return source.occasions = true;
  if (line == "endpoints")
    return source.endpoints = {"1", "4"}, source.endpoint_names = {"", ""}, true;
  if (line == "no doses") return source.doses_needed = false, true;
  if (line != "rates") return false;
  source.modelled_rate = {1};
  source.modelled_duration = {2};
  return true;
}

TEST(Dataset, MakesTimelinesOfRecords) {
  std::ifstream file(SOURCE_FOLDER "/tests/varda/legal_data.txt");
  int cases = 0;
  while (file) {
    data_source source;
    std::string written, expected, line;
    std::string* part = &written;
    while (std::getline(file, line) && !line.empty()) {
      if (line == "=>")
        part = &expected;
      else if (!line.starts_with("#") && !set_model(line, source))
        *part += line + "\n";
    }
    if (expected.empty()) continue;
    ++cases;
    SCOPED_TRACE(written);
    source.file = file_with(written, "legal.csv");
    findings warnings;
    const dataset data = read_dataset(source, warnings);
    EXPECT_EQ(timelines_text(data, warnings), expected);
  }
  EXPECT_EQ(cases, 14);
}

TEST(Dataset, IsInspectedToItsEnd) {
  // A refused dose record is not reported again as a subject without a dose.
  const data_source source =
      source_of(file_with("ID,TIME,DV,AMT\n1,0,.,x\n1,1,5,.\n2,0,.,9\n2,1,y,.\n2,2,z,.\n3,0,5,.\n"
                          "1,3,5,.\n",
                          "bad.csv"));
  findings warnings, errors, two;
  inspect_dataset(source, warnings, errors);
  std::vector<int> rows;
  for (const finding& f : errors) rows.push_back(f.row);
  EXPECT_THAT(rows, ElementsAre(2, 5, 7, 8));
  inspect_dataset(source, warnings, two, 2);
  EXPECT_EQ(two.size(), 2U);
}

// ---- model and data together ----

// Everything that is said of a model file with its data: "code row column subject: message;
// remedy".
std::string all_findings(const std::string& model_path) {
  std::string text;
  const auto say = [&](const finding& f) {
    text += fmt::format("{} {} {} {}: {}{}{}\n", f.code, f.row, f.column.empty() ? "-" : f.column,
                        f.subject.empty() ? "-" : f.subject, f.message,
                        f.remedy.empty() ? "" : "; ", f.remedy);
  };
  findings warnings, errors;
  try {
    model_specification file = read_model_file(model_path, warnings);
    dataset data = inspect_dataset(file.data, warnings, errors);
    if (errors.empty()) {
      text += data.left_out > 0 ? fmt::format("left out {}\n", data.left_out) : "";
      const population_model model(std::move(file), std::move(data));
      for (const fixed_effect& t : model.thetas())
        if (t.name.starts_with("CL_")) text += "coefficient " + t.name + "\n";
      const findings odd = implausible(model);
      warnings.insert(warnings.end(), odd.begin(), odd.end());
    }
  } catch (const bad_input& error) {
    errors.push_back(error.what_found());
  }
  for (const finding& f : errors) say(f);
  for (const finding& f : warnings) say(f);
  return text;
}

// The cases of findings.txt: the model file, a line "=>", the data set, a line "=>", what is found.
TEST(Findings, AreTheOnesThatAreMeant) {
  std::ifstream file(SOURCE_FOLDER "/tests/varda/findings.txt");
  std::string line;
  int cases = 0;
  std::vector<std::string> parts(1);
  const auto finish = [&] {
    if (parts.size() != 3) return;
    ++cases;
    SCOPED_TRACE(parts[0] + parts[1]);
    file_with(unescaped(parts[1]), "case.csv");
    std::string model = "[data]\nfile = \"input_test_case.csv\"\n" + parts[0];
    if (model.find("[model]") == std::string::npos)
      model +=
          "[model]\nstructure = \"one-compartment intravenous\"\n[parameters]\n"
          "CL = { start = 1 }\nV = { start = 10 }\n[omega]\nCL = 0.1\nV = 0.1\n";
    if (model.find("[residual") == std::string::npos) model += "[residual]\nadditive = 1\n";
    EXPECT_EQ(all_findings(file_with(model, "case.toml")), parts[2]);
  };
  while (std::getline(file, line)) {
    if (line.starts_with("#")) continue;
    if (line == "=>") {
      parts.emplace_back();
    } else if (line == "----") {
      finish();
      parts.assign(1, "");
    } else {
      parts.back() += line + "\n";
    }
  }
  finish();
  EXPECT_EQ(cases, 28);
}

// Doses in ascending order, each with a lag time and a bioavailability of its own.
struct late_dose {
  double time, lag, share;
};

// Superposed Bateman functions: ka 1.5, CL 3, V 30, 100 each.
double superposed(const std::vector<late_dose>& doses, double t) {
  const double ka = 1.5, k = 0.1;
  double sum = 0.0;
  for (const late_dose& d : doses) {
    const double since = t - d.time - d.lag;
    if (since > 0.0)
      sum +=
          d.share * 100.0 * ka / 30.0 / (ka - k) * (std::exp(-k * since) - std::exp(-ka * since));
  }
  return sum;
}

TEST(AdditionalDoses, TakeTheValuesOfTheirRecord) {
  file_with(
      "ID,TIME,DV,AMT,II,ADDL,X\n1,0,.,100,10,2,1\n1,4,1,.,.,.,1\n1,5,1,.,.,.,2\n"
      "1,12.5,1,.,.,.,2\n1,15,.,100,.,.,2\n1,16,1,.,.,.,2\n1,28,1,.,.,.,2\n",
      "case.csv");
  const std::string parameters =
      "[parameters]\nka = { start = 1.5 }\nCL = { start = 3 }\nV = { start = 30 }\n"
      "Tlag = { start = 1, covariates = [{ column = \"X\", start = 1 }] }\n"
      "F = { start = 0.5, covariates = [{ column = \"X\", start = 1 }] }\n"
      "[omega]\nka = 0.1\nCL = 0.1\nV = 0.1\nTlag = 0.1\nF = 0.1\n[residual]\nadditive = 1\n";
  const std::string closed =
      "structure = \"one-compartment oral\"\nlag_time = true\nbioavailability = true\n";
  const std::string equations =
      "structure = \"equations\"\nderivatives = { depot = \"-ka * depot\", central = \"ka * depot "
      "- "
      "CL / V * central\" }\noutputs = { c = \"central / V\" }\nlag = { depot = \"Tlag\" }\n"
      "bioavailability = { depot = \"F * (t < 5 ? 1 : 0.5)\" }\n";
  for (const bool own : {false, true}) {
    const std::vector<late_dose> doses = {
        {0.0, 1.0, 0.5}, {10.0, 1.0, 0.5}, {15.0, 2.0, own ? 0.5 : 1.0}, {20.0, 1.0, 0.5}};
    findings none;
    model_specification file =
        read_model_file(file_with("[data]\nfile = \"input_test_case.csv\"\n[model]\n" +
                                      (own ? equations : closed) + parameters,
                                  "case.toml"),
                        none);
    dataset data = read_dataset(file.data, none);
    const population_model model(std::move(file), std::move(data));
    const Eigen::VectorXd theta = model.start_theta();
    Eigen::VectorXd mu(model.random_effects());
    model.means(0, theta.data(), mu.data());
    density_workspace scratch(model);
    Eigen::MatrixXd f;
    density(model).predict(0, theta.data(), mu, f, scratch);
    const std::vector<observation>& at = model.data().subjects[0].observations;
    ASSERT_EQ(at.size(), 5U);
    for (std::size_t k = 0; k < at.size(); ++k)
      EXPECT_NEAR(f(0, static_cast<Eigen::Index>(k)), superposed(doses, at[k].time), 1e-9)
          << own << " " << at[k].time;
  }
}

// Each limit has its message, and what it shows of the input is short.
TEST(Limits, AreTold) {
  std::string wide = "ID,TIME,DV,AMT";
  for (int k = 0; k < 100000; ++k) wide += ",c" + std::to_string(k);
  const auto read_wide = [&](const std::string& more) {
    return refusal([&](findings& w) {
      read_dataset(source_of(file_with(wide + more, "wide.csv"), {"weight"}), w);
    });
  };
  EXPECT_EQ(read_wide("\n1,0,.,9\n").code, "E-DATA-ROW");
  EXPECT_EQ(read_wide("\n").code, "E-DATA-COLUMN");
  EXPECT_THAT(read_wide("\n").remedy, HasSubstr("and 99984 more"));
  EXPECT_THAT(read_wide(",C5\n").message, HasSubstr("columns 10 and 100005"));

  const std::string head = "ID,TIME,DV,AMT\n1,0,.,9\n1,1,";
  const auto read_long = [&](std::size_t size) {
    return refusal([&](findings& w) {
      read_dataset(source_of(file_with(head + std::string(size, 'x') + ",.\n", "long.csv")), w);
    });
  };
  EXPECT_EQ(read_long(10000000).code, "E-DATA-ROW");
  EXPECT_EQ(read_long(60000).code, "E-DATA-NUMBER");
  EXPECT_LT(to_text(read_long(60000)).size(), 400U);
  for (const char* device : {"/dev/zero", "/dev/urandom"})
    EXPECT_EQ(refusal([&](findings& w) { read_dataset(source_of(device), w); }).code,
              "E-DATA-FILE");

  std::string deep = "a";
  for (int k = 0; k < 50000; ++k) deep += ".a";
  const std::string list(50000, '[');
  for (const std::string& text : {deep + " = 1", "[" + deep + "]", "[[" + deep + "]]",
                                  "a = { " + deep + " = 1 }", "a = " + list}) {
    const std::string path = file_with("# a.b.c\n" + text + "\n", "deep.toml");
    const finding found = refusal([&](findings& w) { read_model_file(path, w); });
    EXPECT_EQ(found.code, "E-MODEL-SYNTAX") << text.substr(0, 20);
    EXPECT_LT(to_text(found).size(), 400U);
  }
  // Points that part no keys.
  const std::string dots(500, '.');
  for (const std::string& title : {"\"" + dots + "\" # " + dots, "'''\n" + dots + "\n'''"}) {
    const std::string path = file_with("title = " + title + "\n", "dots.toml");
    EXPECT_EQ(refusal([&](findings& w) { read_model_file(path, w); }).code, "E-MODEL-MISSING");
  }
}

// ---- model files ----

// A sound model file, line by line; a case replaces one line.
const std::vector<std::string> sound_lines = {
    "[data]",                                // 1
    "file = \"d.csv\"",                      // 2
    "[model]",                               // 3
    "structure = \"one-compartment oral\"",  // 4
    "[parameters]",                          // 5
    "ka = { start = 1.5 }",                  // 6
    "CL = { start = 3 }",                    // 7
    "V = { start = 30.0 }",                  // 8
    "[omega]",                               // 9
    "ka = 0.3",                              // 10
    "CL = 0.2",                              // 11
    "V = 0.1",                               // 12
    "[residual]",                            // 13
    "additive = 1.0",                        // 14
    "[estimation]",                          // 15
    "samples = 300",                         // 16
};

std::string text_with(const std::vector<std::pair<int, std::string>>& changes) {
  std::vector<std::string> lines = sound_lines;
  for (const auto& [line, text] : changes) lines[static_cast<std::size_t>(line - 1)] = text;
  std::string all;
  for (const std::string& line : lines) all += line + "\n";
  return all;
}

model_specification read_model(const std::vector<std::pair<int, std::string>>& changes) {
  findings warnings;
  return read_model_file(file_with(text_with(changes), "model.toml"), warnings);
}

TEST(ModelFile, RefusesWhatItCannotUse) {
  const finding none = refusal([](findings& w) { read_model_file("none.toml", w); });
  EXPECT_EQ(none.code, "E-MODEL-FILE");
  const auto cases = refused_cases("bad_models.txt", 6);
  ASSERT_EQ(cases.size(), 73U);
  for (const refused_case& c : cases) {
    SCOPED_TRACE("bad_models.txt, line " + std::to_string(c.line));
    const std::string text = text_with({{std::stoi(c.fields[0]), c.fields[5]}});
    const std::string path = file_with(text, "model.toml");
    const finding found = refusal([&](findings& w) { read_model_file(path, w); });
    expect_place(found, c.fields[1], path, c.fields[2], c.fields[3]);
    EXPECT_THAT(found.remedy, HasSubstr(c.fields[4]));
  }
}

TEST(ModelFile, RefusesAnOmegaThatIsNone) {
  const auto block = [](const std::string& matrix) {
    return "blocks = [{ parameters = [\"CL\", \"ka\"], matrix = " + matrix + " }]";
  };
  const std::string key = "omega.blocks[1].matrix";
  for (const std::string matrix : {"[[0.3], [0.4, 0.2]]", "[[0.3, 0.1], [0.2, 0.2]]", "[[0.3]]",
                                   "[[0.3], [0.1, 0.2, 0.3]]", "[[-0.3], [0.1, 0.2]]"}) {
    const std::string path = file_with(text_with({{10, block(matrix)}, {11, ""}}), "model.toml");
    const finding found = refusal([&](findings& w) { read_model_file(path, w); });
    EXPECT_EQ(found.code, "E-MODEL-OMEGA") << matrix << found.message;
    EXPECT_EQ(found.row, 10);
    EXPECT_EQ(found.column, key);
  }
  const std::string fixed = " = { start = 3, distribution = \"none\" }";
  const std::vector<std::pair<int, std::string>> no_effects = {
      {6, "ka" + fixed}, {7, "CL" + fixed}, {8, "V" + fixed}, {9, ""},
      {10, ""},          {11, ""},          {12, ""}};
  EXPECT_EQ(refusal([&](findings&) { read_model(no_effects); }).code, "E-MODEL-NO-RANDOM-EFFECT");
}

TEST(ModelFile, ReadsCovariateEffects) {
  const model_specification file =
      read_model({{7, "CL = { start = 3, covariates = [{ column = \"WT\", center = 70 }] }"},
                  {8,
                   "V = { start = 30, distribution = \"normal\", covariates "
                   "= [{ column = \"WT\" }, { column = \"AGE\" }] }"}});
  EXPECT_THAT(file.data.covariates, ElementsAre("WT", "AGE"));
  const covariate_effect& power = file.parameters[1].effects.at(0);
  EXPECT_EQ(power.name, "CL_WT");
  EXPECT_EQ(power.form, effect_form::power);
  EXPECT_EQ(power.center, 70.0);
  EXPECT_EQ(file.parameters[2].effects.at(0).form, effect_form::linear);
  EXPECT_EQ(file.parameters[2].effects.at(0).center, 0.0);
}

TEST(ModelFile, ReadsOmegaInBlocks) {
  const model_specification file =
      read_model({{10,
                   "blocks = [{ parameters = [\"V\", \"ka\"], matrix = [[0.3, 0.1], [0.1, 0.2]], "
                   "fixed = true }]"},
                  {11, "CL = { variance = 0.25, fixed = true }"},
                  {12, ""}});
  ASSERT_EQ(file.omega.size(), 2U);  // in the order of the parameters that lead them
  EXPECT_THAT(file.omega[0].matrix, ElementsAre(DoubleEq(0.25)));
  EXPECT_TRUE(file.omega[0].fixed);
  EXPECT_THAT(file.omega[1].names, ElementsAre("V", "ka"));
  EXPECT_THAT(file.omega[1].matrix, ElementsAre(0.3, 0.1, 0.1, 0.2));
  EXPECT_TRUE(file.omega[1].fixed);
}

TEST(ModelFile, WordsAndNumbersArriveWhereTheyBelong) {
  const model_specification file = read_model(
      {{2, "file = \"/d.csv\"\ncolumns = { DV = \"conc\" }"},
       {7, "CL = { start = 3, fixed = true, lower = -inf, upper = 9, distribution = \"normal\" }"},
       {14, "error = \"combined\"\nadditive = { start = 1, fixed = true }\nproportional = 0.1"}});
  EXPECT_EQ(file.data.file, "/d.csv");
  EXPECT_EQ(file.data.columns.at("DV"), "conc");
  EXPECT_EQ(file.parameters[1].law, distribution::normal);
  EXPECT_TRUE(file.parameters[1].fixed);
  EXPECT_EQ(file.parameters[1].upper, 9.0);
  EXPECT_EQ(file.endpoints.front().residual.kind, error_kind::combined);
  EXPECT_TRUE(file.endpoints.front().residual.additive_fixed);
  EXPECT_EQ(file.endpoints.front().residual.proportional, 0.1);
}

// A line that gives a setting another value than its default, and that value.
std::pair<std::string, setting_value> line_with_another_value(const setting& row) {
  struct another {
    const estimation_settings defaults{};
    std::pair<std::string, setting_value> operator()(const whole_number_setting& s) const {
      const int value = defaults.*s.member == s.least ? s.most : s.least;
      return {fmt::format("{}", value), value};
    }
    std::pair<std::string, setting_value> operator()(const number_setting& s) const {
      const double value = s.least + 0.75 * std::min(s.most - s.least, 4.0);
      return {fmt::format("{}", value), value};
    }
    std::pair<std::string, setting_value> operator()(const flag_setting& s) const {
      const bool value = !(defaults.*s.member);
      return {fmt::format("{}", value), value};
    }
    std::pair<std::string, setting_value> operator()(const word_setting& s) const {
      return {fmt::format("\"{}\"", s.words.back()), s.words.back()};
    }
  };
  auto [text, value] = std::visit(another{}, row.kind);
  return {row.name + " = " + text, value};
}

TEST(ModelFile, EverySettingArrivesAndMovesNoOther) {
  for (const setting& given : every_setting()) {
    const auto [line, value] = line_with_another_value(given);
    SCOPED_TRACE(line);
    const estimation_settings found = read_model({{16, line}}).estimation;
    for (const setting& row : every_setting())
      EXPECT_EQ(value_of(row, found), &row == &given ? value : value_of(row, estimation_settings{}))
          << row.name;
  }
}

TEST(ModelFile, TheCommandLineWins) {
  const std::string text = text_with({{16, "samples = 600\nseed = 3"}});
  findings warnings;
  const model_specification file =
      read_model_file(file_with(text, "model.toml"), warnings, {{"samples", 900}, {"seed", 7}});
  EXPECT_EQ(file.estimation.samples, 900);
  EXPECT_EQ(file.estimation.seed, 7);
}

TEST(ModelFile, RaisesSamplesToEqualSharesOfAMixture) {
  findings warnings;
  const auto read_with = [&](const std::string& proposal) {
    const std::string text = text_with({{16,
                                         "samples = 256\nlikelihood_samples = 3001\n"
                                         "proposal = \"" +
                                             proposal + "\""}});
    return read_model_file(file_with(text, "model.toml"), warnings).estimation;
  };
  EXPECT_EQ(read_with("laplace").likelihood_samples, 3001);
  EXPECT_TRUE(warnings.empty());
  const estimation_settings raised = read_with("mixture3");
  EXPECT_EQ(raised.samples, 256);  // a power of two
  EXPECT_EQ(raised.likelihood_samples, 3006);
  ASSERT_EQ(warnings.size(), 1U);
  EXPECT_EQ(warnings[0].code, "W-MODEL-SAMPLES");
  EXPECT_EQ(warnings[0].column, "estimation.likelihood_samples");
}

// Three effects of the subject and one in each occasion, 40 at the most.
TEST(PopulationModel, CountsTheEffectsOfAllOccasions) {
  const auto model_with = [](int occasions) {
    std::string records = "ID,TIME,DV,AMT,OCC\n1,0,.,9,1\n";
    for (int o = 1; o <= occasions; ++o) records += fmt::format("1,{0},5,.,{0}\n", o);
    file_with(records, "occasions.csv");
    model_specification file = read_model(
        {{2, "file = \"input_test_occasions.csv\""}, {12, "V = 0.1\noccasion = { ka = 0.1 }"}});
    findings warnings;
    dataset data = read_dataset(file.data, warnings);
    return population_model(std::move(file), std::move(data)).random_effects();
  };
  EXPECT_EQ(model_with(37), 40);
  EXPECT_EQ(refusal([&](findings&) { model_with(38); }).code, "E-MODEL-OMEGA");
}

TEST(DidYouMean, OffersWordsThatAreCloseAndNoOthers) {
  const std::vector<std::string> words = {"ka", "CL", "V", "proposal"};
  EXPECT_EQ(did_you_mean("cl", words), "CL");
  EXPECT_EQ(did_you_mean("porposla", words), "proposal");
  EXPECT_EQ(did_you_mean("k", words), "ka");
  EXPECT_EQ(did_you_mean("Vmax", words), "");
  EXPECT_EQ(did_you_mean("Q", words), "");
}

}  // namespace
}  // namespace varda
