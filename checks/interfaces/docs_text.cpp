// SPDX-License-Identifier: Apache-2.0
//
// The page of the shared state.
#include <map>

#include "checks/interfaces/text.h"

namespace interfaces {

namespace {

const std::map<std::string, std::string> headers = {
    {"global_variables", "statsubs/state/global_variables.h"},
    {"qrpemlocalvariables", "statsubs/state/qrpemlocalvariables.h"},
    {"standarderrorvariables", "statsubs/state/standarderrorvariables.h"},
    {"saveearlyvars", "statsubs/state/saveearlyvars.h"},
    {"bdsobl", "statsubs/sequences/bdsobl.h"}};

const std::map<std::string, std::string> types = {{"integer", "integer"},
                                                  {"real", "real"},
                                                  {"integer_vector", "vector of integers"},
                                                  {"real_vector", "vector of reals"},
                                                  {"real_matrix", "matrix of reals"},
                                                  {"real_cube", "cube of reals"},
                                                  {"name_vector", "vector of names"},
                                                  {"dimension_vector", "vector of integers"},
                                                  {"initial_matrix", "matrix of integers"},
                                                  {"direction_matrix", "matrix of integers"}};

const char* const opening =
    R"(<!-- Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md. -->

# The shared state

The library's routines and the host share their state in five modules, which are namespaces of `statsubs` in
C++. There is one copy per process. A routine's header lists what it reads and what it writes.

Integers are `int`, reals `double`; a name has 100 characters, padded with blanks, without a
terminating zero. Arrays are column-major and their subscripts count from 1. An array belongs to the
host, which binds its storage before the first routine that uses it (usually in
[allocateglobalarrays](callables/allocateglobalarrays.md)) and keeps it valid; arrays marked as the
library's storage, and everything in `bdsobl`, are not bound. [Linking](linking.md) shows how C and Fortran
reach the variables.
)";

std::string row(const shared_variable& v) {
  return "| `" + v.name + "` | " + types.at(v.kind) + " | " + v.extent + " | " + v.meaning + " | " +
         v.writer + " |\n";
}

}  // namespace

std::string shared_state_page(const std::vector<shared_variable>& variables) {
  std::string text = opening;
  std::string module;
  for (const shared_variable& v : variables) {
    if (v.module != module)
      text += "\n## " + v.module + "\n\n`" + headers.at(v.module) +
              "`\n\n| name | type | extent | meaning | written by |\n|---|---|---|---|---|\n";
    module = v.module;
    text += row(v);
  }
  return text;
}

}  // namespace interfaces
