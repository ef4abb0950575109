// SPDX-License-Identifier: Apache-2.0
//
// No switch has a default, so that an enumerator without its word does not compile.
#include "varda/model/words.h"

namespace varda {

const char* name_of(parametrisation by) {
  switch (by) {
    case parametrisation::clearance:
      return "clearance";
    case parametrisation::rate_constant:
      return "rate-constant";
  }
  return nullptr;
}

const char* name_of(distribution law) {
  switch (law) {
    case distribution::log_normal:
      return "log-normal";
    case distribution::normal:
      return "normal";
    case distribution::logit_normal:
      return "logit-normal";
    case distribution::none:
      return "none";
  }
  return nullptr;
}

const char* name_of(solver_method method) {
  switch (method) {
    case solver_method::automatic:
      return "automatic";
    case solver_method::non_stiff:
      return "non-stiff";
    case solver_method::stiff:
      return "stiff";
  }
  return nullptr;
}

const char* name_of(effect_form form) {
  switch (form) {
    case effect_form::power:
      return "power";
    case effect_form::exponential:
      return "exponential";
    case effect_form::linear:
      return "linear";
    case effect_form::categorical:
      return "categorical";
  }
  return nullptr;
}

const char* name_of(endpoint_kind kind) {
  switch (kind) {
    case endpoint_kind::normal:
      return "normal";
    case endpoint_kind::poisson:
      return "poisson";
    case endpoint_kind::negative_binomial:
      return "negative-binomial";
    case endpoint_kind::zero_inflated_poisson:
      return "zero-inflated-poisson";
    case endpoint_kind::zero_inflated_negative_binomial:
      return "zero-inflated-negative-binomial";
    case endpoint_kind::binary:
      return "binary";
    case endpoint_kind::ordinal:
      return "ordinal";
    case endpoint_kind::event:
      return "event";
    case endpoint_kind::log_likelihood:
      return "log-likelihood";
  }
  return nullptr;
}

const char* name_of(link_kind kind) {
  switch (kind) {
    case link_kind::logit:
      return "logit";
    case link_kind::probit:
      return "probit";
  }
  return nullptr;
}

const char* name_of(error_kind kind) {
  switch (kind) {
    case error_kind::additive:
      return "additive";
    case error_kind::proportional:
      return "proportional";
    case error_kind::combined:
      return "combined";
    case error_kind::combined_sd:
      return "combined-sd";
    case error_kind::power:
      return "power";
    case error_kind::log_normal:
      return "log-normal";
    case error_kind::box_cox:
      return "box-cox";
  }
  return nullptr;
}

const char* name_of(residual_distribution law) {
  switch (law) {
    case residual_distribution::normal:
      return "normal";
    case residual_distribution::student_t:
      return "student-t";
  }
  return nullptr;
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
      return "mixture3";
  }
  return nullptr;
}

const char* name_of(point_kind kind) {
  switch (kind) {
    case point_kind::sobol:
      return "sobol";
    case point_kind::random:
      return "random";
  }
  return nullptr;
}

const char* name_of(start_kind kind) {
  switch (kind) {
    case start_kind::map:
      return "map";
    case start_kind::presample:
      return "presample";
  }
  return nullptr;
}

const char* name_of(method_kind kind) {
  switch (kind) {
    case method_kind::newton:
      return "newton";
    case method_kind::em:
      return "em";
  }
  return nullptr;
}

const char* name_of(likelihood_kind kind) {
  switch (kind) {
    case likelihood_kind::sampling:
      return "sampling";
    case likelihood_kind::agq:
      return "agq";
  }
  return nullptr;
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
      return "none";
  }
  return nullptr;
}

}  // namespace varda
