// SPDX-License-Identifier: Apache-2.0
#include "varda/report/words.h"

namespace varda {

const char* name_of(distribution law) {
  switch (law) {
    case distribution::log_normal:
      return "log-normal";
    case distribution::normal:
      return "normal";
    case distribution::logit_normal:
      return "logit-normal";
    case distribution::none:
      break;
  }
  return "none";
}

const char* name_of(proposal_family family) {
  switch (family) {
    case proposal_family::normal:
      return "normal";
    case proposal_family::population:
      return "population";
    case proposal_family::t:
      return "t";
    case proposal_family::laplace:
      return "laplace";
    case proposal_family::mixture2:
      return "mixture2";
    case proposal_family::mixture3:
      break;
  }
  return "mixture3";
}

const char* name_of(standard_error_kind kind) {
  switch (kind) {
    case standard_error_kind::information:
      return "information";
    case standard_error_kind::score:
      return "score";
    case standard_error_kind::sandwich:
      return "sandwich";
    case standard_error_kind::none:
      break;
  }
  return "none";
}

}  // namespace varda
