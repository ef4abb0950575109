// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "varda/data/csv.h"
#include "varda/data/dataset.h"
#include "varda/model/model_file.h"
#include "varda/support/finding.h"

namespace varda {
namespace {

using testing::DoubleEq;
using testing::ElementsAre;
using testing::HasSubstr;

std::string path_of(const std::string& name) {
  return testing::TempDir() + "input_test_" + name;
}

std::string file_with(const std::string& text, const std::string& name) {
  const std::string path = path_of(name);
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

struct bad_data {
  std::string text;
  std::string code;
  int row = 0;
  std::string column{};
  std::string subject{};
};

void expect_refusals(const std::vector<bad_data>& cases, data_source source) {
  source.file = path_of("bad.csv");
  for (const bad_data& c : cases) {
    file_with(c.text, "bad.csv");
    const finding found = refusal([&](findings& w) { read_dataset(source, w); });
    EXPECT_EQ(found.code, c.code) << c.text << found.message;
    EXPECT_EQ(found.file, source.file) << c.text;
    EXPECT_EQ(found.row, c.row) << c.text;
    EXPECT_EQ(found.column, c.column) << c.text;
    EXPECT_EQ(found.subject, c.subject) << c.text;
  }
}

TEST(Dataset, RefusesTablesThatAreNoTables) {
  for (const std::string name : {"none/data.csv", ""}) {  // no such file, and a folder
    const data_source source = source_of(testing::TempDir() + name);
    EXPECT_EQ(refusal([&](findings& w) { read_dataset(source, w); }).code, "E-DATA-FILE");
  }
  expect_refusals({{"", "E-DATA-EMPTY"},
                   {"\n \r\n", "E-DATA-EMPTY"},
                   {"ID,TIME,DV,AMT\n", "E-DATA-EMPTY"},
                   {"ID,TIME,DV,AMT\n1,0,.,9\n", "E-DATA-EMPTY"},  // nothing observed
                   {"ID,TIME,DV,amt,AMT\n", "E-DATA-HEADER", 1, "AMT"},
                   {"ID,TIMES,DV\n1,0,1\n", "E-DATA-COLUMN", 1, "TIME"},
                   {"# a note\nID,TIME,DV,AMOUNT\n1,0,.,9\n", "E-DATA-COLUMN", 2, "AMT"},
                   {std::string("I\0D\0,\0", 6), "E-DATA-FILE"},  // two bytes a character
                   {"ID,TIME,DV,AMT\n1,0,.,9\n\n1,1,5\n", "E-DATA-ROW", 4},
                   {"ID,TIME,DV,AMT\n1,0,.,9,8\n", "E-DATA-ROW", 2},
                   {"ID,TIME,DV,AMT\n\"1,0,.,9\n", "E-DATA-ROW", 2}},
                  {});
}

TEST(Dataset, RefusesRecordsThatMakeNoSense) {
  const std::string head = "ID,TIME,DV,AMT,EVID,MDV,CMT,RATE\nA,0,.,9,1,.,1,.\n";
  const auto with = [&](const std::string& line) { return head + line + "\n"; };
  data_source source;
  source.compartments = 2;
  expect_refusals({{with("A,1,high,.,0,0,.,."), "E-DATA-NUMBER", 3, "DV", "A"},
                   {with("A,1,inf,.,0,0,.,."), "E-DATA-NUMBER", 3, "DV", "A"},
                   {with("A,1e,5,.,0,0,.,."), "E-DATA-NUMBER", 3, "TIME", "A"},
                   {with("A,1,+-5,.,0,0,.,."), "E-DATA-NUMBER", 3, "DV", "A"},
                   {with("A,1,5,.,0.5,0,.,."), "E-DATA-NUMBER", 3, "EVID", "A"},
                   {with(".,1,5,.,0,0,.,."), "E-DATA-MISSING", 3, "ID", "."},
                   {with("A,NA,5,.,0,0,.,."), "E-DATA-MISSING", 3, "TIME", "A"},
                   {with("A,1,.,.,0,0,.,."), "E-DATA-MISSING", 3, "DV", "A"},
                   {with("A,-1,5,.,0,0,.,."), "E-DATA-TIME", 3, "TIME", "A"},
                   {with("A,1,.,-9,1,.,1,."), "E-DATA-DOSE", 3, "AMT", "A"},
                   {with("A,1,.,0,1,.,1,."), "E-DATA-DOSE", 3, "AMT", "A"},
                   {with("A,1,.,.,1,.,1,."), "E-DATA-DOSE", 3, "AMT", "A"},
                   {with("A,1,5,9,0,0,.,."), "E-DATA-DOSE", 3, "AMT", "A"},
                   {with("A,1,.,9,2,.,.,."), "E-DATA-DOSE", 3, "AMT", "A"},
                   {with("A,1,.,9,1,.,0,."), "E-DATA-DOSE", 3, "CMT", "A"},
                   {with("A,1,.,9,1,.,3,."), "E-DATA-DOSE", 3, "CMT", "A"},
                   {with("B,1,5,.,0,0,.,."), "E-DATA-DOSE", 3, "", "B"},
                   {with("B,1,5,.,0,1,.,."), "E-DATA-DOSE", 3, "", "B"},  // not one dose
                   {with("A,1,5,.,5,0,.,."), "E-DATA-EVENT", 3, "EVID", "A"},
                   {with("A,1,5,.,-1,0,.,."), "E-DATA-EVENT", 3, "EVID", "A"},
                   {with("A,1,5,.,0,2,.,."), "E-DATA-EVENT", 3, "MDV", "A"},
                   {with("A,1,.,.,3,.,.,."), "E-DATA-UNSUPPORTED", 3, "EVID", "A"},
                   {with("A,1,.,9,4,.,1,."), "E-DATA-UNSUPPORTED", 3, "EVID", "A"},
                   {with("A,1,.,9,1,.,1,-2"), "E-DATA-UNSUPPORTED", 3, "RATE", "A"},
                   {"ID,TIME,DV,AMT,DVID\nA,0,.,9,0\nA,1,5,.,1\nA,1,70,.,2\n", "E-DATA-UNSUPPORTED",
                    4, "DVID", "A"},
                   {with("B,0,.,9,1,.,1,.\nA,1,5,.,0,0,.,."), "E-DATA-SUBJECT", 4, "ID", "A"}},
                  source);
}

TEST(Dataset, HoldsColumnsAndCovariatesToWhatTheModelAsksFor) {
  expect_refusals(
      {{"ID,TIME,DV,AMT,WT\n1,0,.,9,70\n1,1,5,.,71\n", "E-DATA-COVARIATE", 3, "WT", "1"},
       {"ID,TIME,DV,AMT,WT\n1,0,.,9,70\n1,1,5,.,70\n2,0,.,9,.\n2,1,5,.,NA\n", "E-DATA-COVARIATE", 4,
        "WT", "2"},
       {"ID,TIME,DV,AMT\n1,0,.,9\n", "E-DATA-COLUMN", 1, "WT"}},
      source_of("", {"WT"}));
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
      for (const char* end : {"\n", "\r\n", " \r\n"}) {
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
  const csv_table quoted = read_csv(file_with("\"a\" , b\n\" x,\"\"y\"\"\" , z", "quoted.csv"));
  EXPECT_THAT(quoted.header, ElementsAre("a", "b"));
  EXPECT_THAT(quoted.records[0].fields, ElementsAre(" x,\"y\"", "z"));
  // Separators in a column name, columns without a name, remarks.
  const csv_table odd = read_csv(file_with(";\"b, c, d\";e,f;\n# a note\n1;2;3;4\n#", "odd.csv"));
  EXPECT_THAT(odd.header, ElementsAre("", "b, c, d", "e,f", ""));
  ASSERT_EQ(odd.records.size(), 1U);
  EXPECT_EQ(odd.records[0].line, 3);
}

TEST(Dataset, UnderstandsEventsInFileOrder) {
  data_source source = source_of(file_with("subject,time,conc,AMT,EVID,MDV,CMT,WT\n"
                                           "x,0,,100,1,1,2,\n"
                                           "x,0,7.5,0,0,0,2,70\n"
                                           "x,0,3,50,1,1,NA,70\n"
                                           "x,0,8.5,.,0,.,2,70\n"
                                           "x,1,.,.,0,1,2,70\n"
                                           "x,2,.,.,2,1,2,70\n"
                                           "y,0,.,1,.,.,.,60\n",
                                           "events.csv"),
                                 {"wt"});
  source.columns = {{"ID", "Subject"}, {"DV", "CONC"}};
  findings warnings;
  const dataset data = read_dataset(source, warnings);
  ASSERT_EQ(data.subjects.size(), 2U);
  const subject& x = data.subjects[0];
  ASSERT_EQ(x.doses.size(), 2U);
  EXPECT_EQ(x.doses[0].compartment, 2);
  EXPECT_EQ(x.doses[1].compartment, 1);
  ASSERT_EQ(x.observations.size(), 2U);
  EXPECT_EQ(x.observations[0].preceding_doses, 1);
  EXPECT_EQ(x.observations[1].preceding_doses, 2);
  EXPECT_EQ(x.observations[1].row, 5);
  EXPECT_THAT(x.covariates, ElementsAre(70.0));
  EXPECT_EQ(data.subjects[1].doses.size(), 1U);  // without EVID an amount makes a dose
  EXPECT_EQ(data.records, 7);
  EXPECT_EQ(data.excluded, 1);
  std::vector<std::string> codes;
  for (const finding& w : warnings) codes.push_back(w.code);
  EXPECT_THAT(codes, ElementsAre("W-DATA-EXCLUDED", "W-DATA-NO-OBSERVATION", "W-DATA-DV-ON-DOSE"));
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

model_file read_model(const std::vector<std::pair<int, std::string>>& changes) {
  findings warnings;
  return read_model_file(file_with(text_with(changes), "model.toml"), warnings);
}

struct bad_model {
  int line = 0;      // that is replaced
  std::string text;  // by this
  std::string code;
  int row = 0;
  std::string key{};
  std::string remedy{};  // a part of it
};

void expect_refusals(const std::vector<bad_model>& cases) {
  for (const bad_model& c : cases) {
    const std::string path = file_with(text_with({{c.line, c.text}}), "model.toml");
    const finding found = refusal([&](findings& w) { read_model_file(path, w); });
    EXPECT_EQ(found.code, c.code) << c.text << ": " << found.message;
    EXPECT_EQ(found.file, path) << c.text;
    EXPECT_EQ(found.row, c.row) << c.text;
    EXPECT_EQ(found.column, c.key) << c.text;
    EXPECT_THAT(found.remedy, HasSubstr(c.remedy)) << c.text;
  }
}

TEST(ModelFile, RefusesWhatItDoesNotKnow) {
  const finding none = refusal([](findings& w) { read_model_file("none.toml", w); });
  EXPECT_EQ(none.code, "E-MODEL-FILE");
  expect_refusals({
      {7, "CL = { start = ", "E-MODEL-SYNTAX", 7, "16"},
      {2, "fiel = \"d.csv\"", "E-MODEL-KEY", 2, "data.fiel", "mean file?"},
      {2, "", "E-MODEL-MISSING", 1, "data.file"},
      {5, "[paramters]", "E-MODEL-KEY", 5, "paramters", "mean parameters?"},
      {15, "[estimaton]", "E-MODEL-KEY", 15, "estimaton", "mean estimation?"},
      {4, "structure = \"one-compartment orl\"", "E-MODEL-WORD", 4, "model.structure",
       "mean \"one-compartment oral\"?"},
      {7, "Cl_ = { start = 3 }", "E-MODEL-KEY", 7, "parameters.Cl_", "mean CL?"},
      {7, "", "E-MODEL-MISSING", 5, "parameters.CL"},
      {7, "CL = { strat = 3 }", "E-MODEL-KEY", 7, "parameters.CL.strat", "mean start?"},
      {7, "CL = { start = 3, fix = true }", "E-MODEL-KEY", 7, "parameters.CL.fix"},
      {7, "CL = { start = 3, distribution = \"lognormal\" }", "E-MODEL-WORD", 7,
       "parameters.CL.distribution", "mean \"log-normal\"?"},
      {16, "proposal = \"gamma\"", "E-MODEL-WORD", 16, "estimation.proposal", "it can be"},
      {2, "file = 7", "E-MODEL-TYPE", 2, "data.file"},
      {7, "CL = 3", "E-MODEL-TYPE", 7, "parameters.CL"},
      {7, "CL = { start = \"3\" }", "E-MODEL-TYPE", 7, "parameters.CL.start"},
      {7, "CL = { start = inf }", "E-MODEL-TYPE", 7, "parameters.CL.start"},
      {7, "CL = { start = 3, fixed = 1 }", "E-MODEL-TYPE", 7, "parameters.CL.fixed"},
      {16, "samples = 300.0", "E-MODEL-TYPE", 16, "estimation.samples"},
  });
}

TEST(ModelFile, RefusesValuesOutOfRange) {
  expect_refusals({
      {7, "CL = { start = 0 }", "E-MODEL-RANGE", 7, "parameters.CL.start"},
      {7, "CL = { start = 3, lower = 4 }", "E-MODEL-RANGE", 7, "parameters.CL.start"},
      {7, "CL = { start = 3, lower = 4, upper = 4 }", "E-MODEL-RANGE", 7, "parameters.CL.lower"},
      {7, "CL = { start = 1, distribution = \"logit-normal\" }", "E-MODEL-RANGE", 7,
       "parameters.CL.start"},
      {7, "CL = { start = 1, distribution = \"logit-normal\", range = [2, 0] }", "E-MODEL-TYPE", 7,
       "parameters.CL.range"},
      {7, "CL = { start = 1, distribution = \"logit-normal\", range = [0, \"x\", 2] }",
       "E-MODEL-TYPE", 7, "parameters.CL.range"},
      {7, "CL = { start = 1, distribution = \"logit-normal\", range = [0, inf] }", "E-MODEL-TYPE",
       7, "parameters.CL.range"},
      {14, "additive = 0", "E-MODEL-RANGE", 14, "residual.additive"},
      {14, "error = \"combined\"\nadditive = 1", "E-MODEL-MISSING", 13, "residual.proportional"},
      {14, "additive = 1\nproportional = 1", "E-MODEL-KEY", 15, "residual.proportional"},
      {16, "samples = 5", "E-MODEL-RANGE", 16, "estimation.samples"},
      {16, "seed = 0", "E-MODEL-RANGE", 16, "estimation.seed"},
      {16, "seed = 10001", "E-MODEL-RANGE", 16, "estimation.seed"},
      {16, "acceptance_ratio = 1.5", "E-MODEL-RANGE", 16, "estimation.acceptance_ratio"},
      {16, "tolerance = 0", "E-MODEL-RANGE", 16, "estimation.tolerance"},
      {16, "replicates = 1", "E-MODEL-RANGE", 16, "estimation.replicates"},
      {16, "t_df = 2", "E-MODEL-RANGE", 16, "estimation.t_df"},
      {16, "resamples = 29", "E-MODEL-RANGE", 16, "estimation.resamples"},
  });
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
  expect_refusals({
      {11, "CL = 0", "E-MODEL-OMEGA", 11, "omega.CL"},
      {11, "", "E-MODEL-OMEGA", 9, "omega.CL"},
      {11, "CLL = 0.1", "E-MODEL-OMEGA", 11, "omega.CLL", "mean CL?"},
      {11, "CL = { variance = 0.1, fix = true }", "E-MODEL-KEY", 11, "omega.CL.fix"},
      {11, "CL = nan", "E-MODEL-TYPE", 11, "omega.CL"},
      {12, "blocks = [{ parameters = [\"V\"], matrix = [[nan]] }]", "E-MODEL-TYPE", 12, key},
      {12, "V = 0.1\n" + block("[[0.3], [0.1, 0.2]]"), "E-MODEL-OMEGA", 13, "omega.blocks"},
      {7, "CL = { start = 3, distribution = \"none\" }", "E-MODEL-OMEGA", 11, "omega.CL"},
  });
  const std::string fixed = " = { start = 3, distribution = \"none\" }";
  const std::vector<std::pair<int, std::string>> no_effects = {
      {6, "ka" + fixed}, {7, "CL" + fixed}, {8, "V" + fixed}, {9, ""},
      {10, ""},          {11, ""},          {12, ""}};
  EXPECT_EQ(refusal([&](findings&) { read_model(no_effects); }).code, "E-MODEL-NO-RANDOM-EFFECT");
}

TEST(ModelFile, HoldsCovariateEffectsToTheirRules) {
  const auto on = [](const std::string& law, const std::string& effect) {
    return "CL = { start = 3, distribution = \"" + law + "\", covariates = [{ column = \"WT\"" +
           effect + " }] }";
  };
  const std::string effect = "parameters.CL.covariates[1].";
  expect_refusals({
      {7, on("log-normal", ", effect = \"linear\""), "E-MODEL-EFFECT", 7, effect + "effect"},
      {7, on("normal", ", effect = \"power\""), "E-MODEL-EFFECT", 7, effect + "effect"},
      {7, on("log-normal", ", center = 0"), "E-MODEL-RANGE", 7, effect + "center"},
      {7, on("log-normal", ", upper = -1"), "E-MODEL-RANGE", 7, effect + "start"},
      {7, on("log-normal", ", name = \"V\""), "E-MODEL-NAME", 7, "parameters.CL"},
      {7, on("log-normal", ", name = \"additive\""), "E-MODEL-NAME", 7, "parameters.CL"},
      {7, on("log-normal", " }, { column = \"wt\""), "E-MODEL-EFFECT", 7, "parameters.CL"},
      {7, on("log-normal", ", centre = 70"), "E-MODEL-KEY", 7, effect + "centre", "mean center?"},
      {7, on("none", ""), "E-MODEL-EFFECT", 7, "parameters.CL.covariates"},
  });
  const model_file file = read_model({{7, on("log-normal", ", center = 70")},
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
  const model_file file =
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

TEST(ModelFile, TakesTheDefaultsThatItsReferenceStates) {
  const model_file file = read_model({{16, ""}});
  EXPECT_EQ(file.data.file, testing::TempDir() + "d.csv");
  EXPECT_EQ(file.data.compartments, 2);
  EXPECT_EQ(file.parameters[1].law, distribution::log_normal);
  EXPECT_EQ(file.parameters[1].lower, -std::numeric_limits<double>::infinity());
  EXPECT_EQ(file.residual.kind, error_kind::additive);
  const estimation_settings& s = file.estimation;
  EXPECT_EQ(s.samples, 300);
  EXPECT_EQ(s.max_iterations, 500);
  EXPECT_EQ(s.seed, 1);
  EXPECT_EQ(s.points, point_kind::sobol);
  EXPECT_FALSE(s.fresh_points);
  EXPECT_EQ(s.scramble, 1);
  EXPECT_EQ(s.proposal, proposal_family::normal);
  EXPECT_EQ(s.t_df, 5);
  EXPECT_EQ(s.acceptance_ratio, 0.5);
  EXPECT_EQ(s.resamples, 100);
  EXPECT_EQ(s.burn_in, 0);
  EXPECT_FALSE(s.freeze_omega || s.run_all);
  EXPECT_EQ(s.tolerance, 5e-4);
  EXPECT_EQ(s.replicates, 8);
  EXPECT_EQ(s.likelihood_samples, 0);
}

TEST(ModelFile, WordsAndNumbersArriveWhereTheyBelong) {
  findings warnings;
  const std::string text = text_with(
      {{2, "file = \"/d.csv\"\ncolumns = { DV = \"conc\" }"},
       {7, "CL = { start = 3, fixed = true, lower = -inf, upper = 9, distribution = \"normal\" }"},
       {14, "error = \"combined\"\nadditive = { start = 1, fixed = true }\nproportional = 0.1"},
       {16,
        "samples = 301\nsampling = \"random\"\npoints = \"fresh\"\nscramble = \"both\"\n"
        "proposal = \"mixture3\"\nburn_in = 4\nfreeze_omega_in_burn_in = true\nrun_all = true\n"
        "likelihood_samples = 3001"}});
  const model_file file = read_model_file(file_with(text, "model.toml"), warnings);
  EXPECT_EQ(file.data.file, "/d.csv");
  EXPECT_EQ(file.data.columns.at("DV"), "conc");
  EXPECT_EQ(file.parameters[1].law, distribution::normal);
  EXPECT_TRUE(file.parameters[1].fixed);
  EXPECT_EQ(file.parameters[1].upper, 9.0);
  EXPECT_EQ(file.residual.kind, error_kind::combined);
  EXPECT_TRUE(file.residual.additive_fixed);
  EXPECT_EQ(file.residual.proportional, 0.1);
  EXPECT_EQ(file.estimation.points, point_kind::random);
  EXPECT_TRUE(file.estimation.fresh_points);
  EXPECT_EQ(file.estimation.scramble, 3);
  EXPECT_EQ(file.estimation.proposal, proposal_family::mixture3);
  EXPECT_EQ(file.estimation.burn_in, 4);
  EXPECT_TRUE(file.estimation.freeze_omega && file.estimation.run_all);
  EXPECT_EQ(file.estimation.samples, 306);
  EXPECT_EQ(file.estimation.likelihood_samples, 3006);
  ASSERT_EQ(warnings.size(), 2U);
  EXPECT_EQ(warnings[1].code, "W-MODEL-SAMPLES");
  EXPECT_EQ(warnings[1].column, "estimation.likelihood_samples");
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
