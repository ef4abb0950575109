// SPDX-License-Identifier: Apache-2.0
//
// The Fortran side: interfaces to the C shells under the routines' own names, and the by-reference
// spelling with a trailing underscore.
#include <map>
#include <set>

#include "checks/interfaces/text.h"

namespace interfaces {

namespace {

const std::string opening =
    "! SPDX-License-Identifier: Apache-2.0\n"
    "! Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.\n";

std::string fortran_type(const std::string& type) {
  static const std::map<std::string, std::string> types = {{"int", "integer(c_int)"},
                                                           {"double", "real(c_double)"},
                                                           {"bool", "logical(c_bool)"},
                                                           {"char", "character(kind=c_char)"}};
  return types.at(type);
}

// Intrinsic functions keep their names for themselves.
std::string fortran_name(const std::string& name) {
  static const std::set<std::string> intrinsic = {"erf", "gamma"};
  return intrinsic.count(name) != 0 ? "statsubs_" + name : name;
}

std::string declaration(const parameter& p) {
  const std::string intent = p.constant ? "in" : "inout";
  const std::string attribute = p.array ? "" : (p.constant ? ", value" : "");
  return "      " + fortran_type(p.type) + ", intent(" + intent + ")" + attribute +
         " :: " + p.name + (p.array ? "(*)" : "") + "\n";
}

std::string interface(const routine& r) {
  std::vector<parameter> parameters = r.parameters;
  if (r.result != "void") parameters.push_back({r.result, false, false, "value"});
  std::vector<std::string> names;
  for (const parameter& p : parameters) names.push_back(p.name);
  const std::string tail = ") result(outcome) &";
  std::string text =
      list_text("    function " + fortran_name(r.name) + "(", names, tail, "        ", " &");
  text += "        bind(c, name=\"statsubs_" + r.name + "\")\n      import\n";
  for (const parameter& p : parameters) text += declaration(p);
  return text + "      integer(c_int) :: outcome\n    end function\n";
}

std::string access(const std::string& verb, const std::string& kind, const std::string& name) {
  return "  procedure(" + verb + "_" + kind + "), bind(c, name=\"statsubs_" + verb + "_" + name +
         "\") :: " + verb + "_" + name + "\n";
}

std::string c_argument_list(const routine& r) {
  std::string text;
  for (const parameter& p : r.parameters)
    text += (text.empty() ? "" : ", ") + std::string(p.constant ? "const " : "") + p.type + "* " +
            p.name;
  return "(" + text + ")";
}

}  // namespace

std::string fortran_routines(const std::vector<routine>& routines) {
  std::string text = opening;
  std::string header;
  for (const routine& r : routines) {
    if (r.header != header) text += "\n    ! " + r.header + "\n";
    header = r.header;
    text += interface(r);
  }
  return text;
}

std::string fortran_host_table(const std::vector<routine>& callables) {
  std::string text = opening;
  for (const routine& r : callables) {
    text += "\n" + comment_text(r.comment, "    !");
    text += comment_text("C: " + r.result + " " + c_argument_list(r), "    !");
    text += "    type(c_funptr) :: " + r.name + " = c_null_funptr\n";
  }
  return text;
}

std::string fortran_shared_variables(const std::vector<shared_variable>& variables) {
  static const std::set<std::string> scalars = {"integer", "real"};
  static const std::map<std::string, std::string> finders = {
      {"integer_vector", "vector"},   {"real_vector", "vector"}, {"name_vector", "vector"},
      {"dimension_vector", "vector"}, {"real_matrix", "matrix"}, {"initial_matrix", "matrix"},
      {"direction_matrix", "matrix"}, {"real_cube", "cube"}};
  static const std::set<std::string> fixed = {"dimension_vector", "initial_matrix",
                                              "direction_matrix"};
  std::string text = opening;
  for (const shared_variable& v : variables) {
    text += "\n" + comment_text(described(v), "  !");
    if (scalars.count(v.kind) != 0) {
      text += access("get", v.kind, v.name) + access("set", v.kind, v.name);
      continue;
    }
    if (fixed.count(v.kind) == 0) text += access("bind", v.kind, v.name);
    text += access("get", finders.at(v.kind), v.name);
  }
  return text;
}

std::string by_reference_source(const std::vector<routine>& routines) {
  std::string text =
      "// SPDX-License-Identifier: Apache-2.0\n//\n"
      "// The routines as Fortran without a module calls them: lower case, a trailing underscore, "
      "every\n// argument by reference. They stand on the C shells, so that a program without the "
      "C++ "
      "runtime\n// links them; where a shell has a failure to tell, the process ends.\n//\n"
      "// Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.\n"
      "// clang-format off\n"
      "#include <cstdio>\n#include <cstdlib>\n\n#include \"statsubs/c/statsubs.h\"\n\n"
      "static void expect_success(int status) {\n  if (status == STATSUBS_OK) return;\n"
      "  std::fprintf(stderr, \"statsubs: %s\\n\", statsubs_last_error());\n  std::abort();\n}\n\n"
      "extern \"C\" {\n";
  for (const routine& r : routines) {
    const bool returns = r.result != "void";
    std::vector<std::string> parameters, arguments;
    for (const parameter& p : r.parameters) {
      parameters.push_back((p.constant ? "const " : "") + p.type + (p.array ? "* " : "& ") +
                           p.name);
      arguments.push_back((p.array || p.constant ? "" : "&") + p.name);
    }
    if (returns) arguments.push_back("&value");
    const std::string head = r.result + " " + r.name + "_(";
    const std::string call = "  expect_success(statsubs_" + r.name + "(";
    text += "\n" + list_text(head, parameters, ") {", std::string(head.size(), ' '));
    if (returns) text += "  " + r.result + " value = 0;\n";
    text += list_text(call, arguments, "));", std::string(call.size(), ' '));
    text += returns ? "  return value;\n}\n" : "}\n";
  }
  return text + "\n}\n";
}

}  // namespace interfaces
