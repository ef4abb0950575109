// SPDX-License-Identifier: Apache-2.0
//
// Holds the C and Fortran interfaces and the page of the shared state to the C++ headers:
// interfaces SOURCE_DIR [--write]. Names each file that is not what the headers make of it and
// fails; with --write it brings them up to date.
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "checks/interfaces/text.h"

namespace {

using namespace interfaces;

// A parser that finds nothing, or overlooks what it should refuse, would keep silent.
void check_the_parser() {
  const std::string sound =
      "\nSTATSUBS_API void f(const int& n,\n  const double*, double& r);\nvoid "
      "core(vector_view<double> x);\n";
  const auto found = declared_routines("sound", sound);
  if (found.size() != 1 || found[0].parameters.size() != 3 || found[0].parameters[2].constant)
    throw std::runtime_error("a sound header is not understood");
  for (const char* unsound :
       {"\nint f(const int& n, double* a);\n", "\nSTATSUBS_API void f(int n);\n"}) {
    bool refused = false;
    try {
      declared_routines("unsound", unsound);
    } catch (const std::runtime_error&) {
      refused = true;
    }
    if (!refused) throw std::runtime_error("an unsound header is not refused");
  }
}

std::vector<std::pair<std::string, std::string>> files(const std::string& source) {
  const auto routines = public_routines(source);
  const auto callables = host_callables(source);
  const auto variables = shared_variables();
  return {{"statsubs/c/routines.h", c_routines_header(routines)},
          {"statsubs/c/routines.cpp", c_routines_source(routines)},
          {"statsubs/c/host_table.h", c_host_table(callables)},
          {"statsubs/c/shared_variables.h", c_shared_variables(variables)},
          {"statsubs/fortran/routines.inc", fortran_routines(routines)},
          {"statsubs/fortran/host_table.inc", fortran_host_table(callables)},
          {"statsubs/fortran/shared_variables.inc", fortran_shared_variables(variables)},
          {"statsubs/fortran/by_reference.cpp", by_reference_source(routines)},
          {"docs/shared-state.md", shared_state_page(variables)}};
}

bool up_to_date(const std::string& path, const std::string& text, bool write) {
  if (write) {
    std::ofstream(path) << text;
    return true;
  }
  if (contents(path) == text) return true;
  std::printf("%s is not what the headers make of it: run this program with --write\n",
              path.c_str());
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  try {
    check_the_parser();
    const std::string source = argv[1];
    const bool write = argc > 2 && std::string(argv[2]) == "--write";
    bool all = true;
    for (const auto& [name, text] : files(source))
      all = up_to_date(source + "/" + name, text, write) && all;
    return all ? 0 : 1;
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 1;
  }
}
