// SPDX-License-Identifier: Apache-2.0
#include "varda/selftest/problems.h"

namespace varda {

namespace {

const std::string head = R"([data]
file = "theophylline.csv"
[model]
structure = "one-compartment oral"
[parameters]
ka = { start = 1.2 }
CL = { start = 3.0 }
V = { start = 35.0 }
)";

const std::string equations = R"([data]
file = "theophylline.csv"
[model]
structure = "equations"
[model.derivatives]
depot = "-ka * depot"
central = "ka * depot - CL / V * central"
[model.outputs]
concentration = "central / V"
[model.solver]
method = "non-stiff"
[parameters]
ka = { start = 1.2 }
CL = { start = 3.0 }
V = { start = 35.0 }
)";

const std::string diagonal = R"([omega]
ka = 0.3
CL = 0.3
V = 0.3
)";

const std::string full = R"([omega]
blocks = [{ parameters = ["ka", "CL", "V"], matrix = [[0.3], [0, 0.1], [0, 0, 0.1]] }]
)";

const std::string additive = R"([residual]
error = "additive"
additive = 1.0
)";

const std::string combined = R"([residual]
error = "combined"
additive = 0.5
proportional = 0.2
)";

// Rounded estimates at which the likelihood is known.
const std::string round_values = R"([data]
file = "theophylline.csv"
[model]
structure = "one-compartment oral"
[parameters]
ka = { start = 1.58 }
CL = { start = 2.75 }
V = { start = 31.6 }
[omega]
ka = 0.40
CL = 0.07
V = 0.0185
[residual]
error = "additive"
additive = 0.70
)";

}  // namespace

const std::vector<reference_problem>& reference_problems() {
  static const std::vector<exact_estimate> of_additive = {
      {"ka", 1.582966798, 0.30544462},
      {"CL", 2.750182703, 0.23174271},
      {"V", 31.6218978, 1.4623686},
      {"omega(ka,ka)", 0.4050944074, 0.19217116},
      {"omega(CL,CL)", 0.07031499077, 0.035200862},
      {"omega(V,V)", 0.01848553116, 0.010870026},
      {"additive", 0.6959106537, 0.049736707}};
  static const std::vector<reference_problem> problems = {
      {"Fit: one compartment, additive error", task::fit, head + diagonal + additive, 360.70070947,
       of_additive},
      {"Fit: the same as differential equations", task::fit, equations + diagonal + additive,
       360.70070947, of_additive},
      {"Fit: combined error",
       task::fit,
       head + diagonal + combined,
       347.10237974,
       {{"ka", 1.498517844, 0.29005353},
        {"CL", 2.757696746, 0.21415498},
        {"V", 31.81730382, 1.4316651},
        {"omega(ka,ka)", 0.3998951541, 0.19332506},
        {"omega(CL,CL)", 0.06520536788, 0.030100054},
        {"omega(V,V)", 0.01503222438, 0.010194408},
        {"additive", 0.2611098337, 0.064551689},
        {"proportional", 0.1368893904, 0.016222923}}},
      {"Fit: full omega, combined error",
       task::fit,
       head + full + combined,
       336.76694723,
       {{"ka", 1.507397177, 0.30207795},
        {"CL", 2.773952901, 0.20865279},
        {"V", 31.85025779, 1.426249},
        {"omega(ka,ka)", 0.4329989143, 0.20698372},
        {"omega(CL,ka)", 0.03001369179, 0.052530331},
        {"omega(CL,CL)", 0.06115435439, 0.027538351},
        {"omega(V,ka)", 0.03136680732, 0.032163798},
        {"omega(V,CL)", 0.02828767117, 0.013940302},
        {"omega(V,V)", 0.01496912491, 0.010014596},
        {"additive", 0.2650332967, 0.069339882},
        {"proportional", 0.1351455169, 0.016705789}}},
      {"Evaluation at rounded values", task::evaluate, round_values, 360.708327, {}},
  };
  return problems;
}

}  // namespace varda
