// SPDX-License-Identifier: Apache-2.0
//
// What the C and Fortran interfaces are made from: the public routines and the host callables as
// their headers declare them, and the rows of the shared modules' tables.
#pragma once

#include <string>
#include <vector>

namespace interfaces {

struct parameter {
  std::string type;  // int, double, bool or char
  bool constant;
  bool array;  // a pointer rather than a reference
  std::string name;
};

struct routine {
  std::string header;  // path from the top of the tree; empty for a host callable
  std::string comment;
  std::string result;  // void, int or double
  std::string name;
  std::vector<parameter> parameters;
};

struct shared_variable {
  std::string module;
  std::string kind;
  std::string name;
  std::string extent;
  std::string meaning;
  std::string writer;
};

// The whole of a file; throws std::runtime_error when it cannot be read.
std::string contents(const std::string& path);

// The routines that a header's text declares STATSUBS_API, in its order. Throws std::runtime_error
// for a declaration that has the shape of a public routine (every argument a reference or a pointer
// to a plain type) and is not marked, or is marked and has not: such a routine would be missing
// from every interface.
std::vector<routine> declared_routines(const std::string& header, const std::string& text);

// The routines of all public headers below `source`/statsubs, by header. The folders support
// (private), c and fortran (made from what is found here) and the host interface in state do not
// count.
std::vector<routine> public_routines(const std::string& source);

// The rows of STATSUBS_HOST_CALLABLES, their comments included.
std::vector<routine> host_callables(const std::string& source);

std::vector<shared_variable> shared_variables();

}  // namespace interfaces
