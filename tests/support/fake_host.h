// SPDX-License-Identifier: Apache-2.0
//
// A host for tests. Entries are std::functions, so a test states a model as a lambda; what it does
// not state ends the test program with the name of the callable.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "statsubs/state/host.h"

namespace test {

// Installs itself on construction; the default table is back after destruction.
class fake_host {
 public:
  fake_host();
  ~fake_host();
  fake_host(const fake_host&) = delete;
  fake_host& operator=(const fake_host&) = delete;

  // Gives the host fcnxetas: the same evaluations, one call for several.
  void evaluate_together();

  // The table in force, to replace entries that the members below do not cover.
  statsubs::host_table& table();

  std::function<double(int isub, const double* eta)> objective;  // behind fcnxeta and fcneta
  std::function<void(int isub0, double* cmatrix)> cmatrix;       // behind getsaemcmatrix
  std::function<int()> stop = [] { return 0; };                  // behind stoprequested
  std::vector<std::string> calls;  // names of the model callables, in the order of the calls
  std::vector<int> together;       // vectors in each call of fcnxetas
  int subject = 0;                 // set by setisub
};

// The lines that the library writes to a unit while the object lives.
class captured_unit {
 public:
  explicit captured_unit(int unit = 6);
  ~captured_unit();
  captured_unit(const captured_unit&) = delete;
  captured_unit& operator=(const captured_unit&) = delete;
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  int unit_;
  std::vector<std::string> lines_;
};

// The lines of "vardaengine.log" in the working directory, without the file when it is absent.
std::vector<std::string> engine_log_lines();
void remove_engine_log();

}  // namespace test
