// SPDX-License-Identifier: Apache-2.0
//
// The C side: scalars in go by value, scalars out and arrays by pointer, and what a routine returns
// comes back through a last argument, since the return value is the status.
#include <map>
#include <set>

#include "checks/interfaces/text.h"

namespace interfaces {

namespace {

const std::string made = "Made by checks/interfaces from the C++ headers; see CONTRIBUTING.md.\n";

std::string opening(const std::string& about) {
  return "/* SPDX-License-Identifier: Apache-2.0\n *\n" + comment_text(about, " *") + " * " + made +
         " */\n/* clang-format off */\n";
}

std::string c_parameter(const parameter& p) {
  if (p.constant && !p.array) return p.type + " " + p.name;
  return (p.constant ? "const " : "") + p.type + "* " + p.name;
}

std::vector<std::string> c_parameters(const routine& r) {
  std::vector<std::string> list;
  for (const parameter& p : r.parameters) list.push_back(c_parameter(p));
  if (r.result != "void") list.push_back(r.result + "* value");
  if (list.empty()) list.push_back("void");
  return list;
}

std::string head(const routine& r, const std::string& before) {
  return before + "int statsubs_" + r.name + "(";
}

std::string prototype(const routine& r, const std::string& before, const std::string& tail) {
  const std::string text = head(r, before);
  return list_text(text, c_parameters(r), tail, std::string(text.size(), ' '));
}

std::string call(const routine& r) {
  std::vector<std::string> arguments;
  for (const parameter& p : r.parameters)
    arguments.push_back((p.array || p.constant ? "" : "*") + p.name);
  const std::string start = "  return guarded([&] { " +
                            std::string(r.result == "void" ? "" : "*value = ") +
                            "statsubs::" + r.name + "(";
  return list_text(start, arguments, "); });", std::string(8, ' '));
}

// What the kinds of the shared modules' tables are in C.
struct c_kind {
  std::string type;
  int rank;
  bool bindable;
};

const c_kind& kind_of(const shared_variable& variable) {
  static const std::map<std::string, c_kind> kinds = {
      {"integer", {"int", 0, false}},        {"real", {"double", 0, false}},
      {"integer_vector", {"int", 1, true}},  {"real_vector", {"double", 1, true}},
      {"real_matrix", {"double", 2, true}},  {"real_cube", {"double", 3, true}},
      {"name_vector", {"char", 1, true}},    {"dimension_vector", {"int", 1, false}},
      {"initial_matrix", {"int", 2, false}}, {"direction_matrix", {"int", 2, false}}};
  return kinds.at(variable.kind);
}

std::string scalar_access(const std::string& type, const std::string& name) {
  return "STATSUBS_API " + type + " statsubs_get_" + name +
         "(void);\nSTATSUBS_API void statsubs_set_" + name + "(" + type + " value);\n";
}

std::string array_access(const c_kind& kind, const std::string& name) {
  static const std::string by_value[] = {"", "int n", "int rows, int columns",
                                         "int rows, int columns, int slices"};
  static const std::string by_pointer[] = {"", "int* n", "int* rows, int* columns",
                                           "int* rows, int* columns, int* slices"};
  std::string text;
  if (kind.bindable)
    text += "STATSUBS_API int statsubs_bind_" + name + "(" + kind.type + "* storage, " +
            by_value[kind.rank] + ");\n";
  return text + "STATSUBS_API int statsubs_get_" + name + "(" + kind.type + "** storage, " +
         by_pointer[kind.rank] + ");\n";
}

}  // namespace

std::string c_routines_header(const std::vector<routine>& routines) {
  std::string text = opening(
      "The public routines. Scalars in go by value, scalars out by pointer; arrays are "
      "column-major and "
      "their subscripts count from 1. Each returns STATSUBS_OK or a status of statsubs.h. The "
      "header "
      "named above a group says what its routines do.");
  text +=
      "#ifndef STATSUBS_C_ROUTINES_H\n#define STATSUBS_C_ROUTINES_H\n\n#include <stdbool.h>\n\n"
      "#include \"statsubs/export.h\"\n\n#ifdef __cplusplus\nextern \"C\" {\n#endif\n";
  std::string header;
  for (const routine& r : routines) {
    if (r.header != header) text += "\n/* " + r.header + " */\n";
    header = r.header;
    text += prototype(r, "STATSUBS_API ", ");");
  }
  return text + "\n#ifdef __cplusplus\n}\n#endif\n\n#endif\n";
}

std::string c_routines_source(const std::vector<routine>& routines) {
  std::string text = opening("The shells of the public routines: no exception leaves them.");
  text += "#include \"statsubs/c/routines.h\"\n\n#include \"statsubs/c/guarded.h\"\n";
  std::set<std::string> headers;
  for (const routine& r : routines) headers.insert(r.header);
  for (const std::string& header : headers) text += "#include \"" + header + "\"\n";
  text += "\nusing statsubs::c::guarded;\n";
  for (const routine& r : routines) text += "\n" + prototype(r, "", ") {") + call(r) + "}\n";
  return text;
}

std::string c_host_table(const std::vector<routine>& callables) {
  std::string text = opening(
      "The host table: what the library asks of the engine that uses it. Arguments go by "
      "reference. "
      "docs/callables has a page per callable.");
  text +=
      "#ifndef STATSUBS_C_HOST_TABLE_H\n#define STATSUBS_C_HOST_TABLE_H\n\n"
      "#define STATSUBS_HOST_VERSION 1\n\n"
      "/* `size` is sizeof(statsubs_host_table) and `version` STATSUBS_HOST_VERSION as the host "
      "was\n"
      " * compiled. A callable that is a null pointer keeps its default. */\n"
      "typedef struct statsubs_host_table {\n  int size;\n  int version;\n";
  for (const routine& r : callables) {
    if (!r.comment.empty()) text += "  /* " + r.comment + " */\n";
    std::vector<std::string> list;
    for (const parameter& p : r.parameters)
      list.push_back((p.constant ? "const " : "") + p.type + "* " + p.name);
    if (list.empty()) list.push_back("void");
    text += list_text("  " + r.result + " (*" + r.name + ")(", list, ");", std::string(6, ' '));
  }
  return text + "} statsubs_host_table;\n\n#endif\n";
}

std::string c_shared_variables(const std::vector<shared_variable>& variables) {
  std::string text = opening(
      "The shared variables. A scalar is read and written by value. An array that the host owns is "
      "bound "
      "to the host's storage, column-major without gaps, which stays the host's and is kept alive "
      "while "
      "the library may be called; statsubs_get_<array> gives the storage now in use and its "
      "extents. A name "
      "is 100 characters, blank-padded, without a terminating zero.");
  text +=
      "#ifndef STATSUBS_C_SHARED_VARIABLES_H\n#define STATSUBS_C_SHARED_VARIABLES_H\n\n"
      "#include \"statsubs/export.h\"\n\n#ifdef __cplusplus\nextern \"C\" {\n#endif\n";
  std::string module;
  for (const shared_variable& v : variables) {
    if (v.module != module) text += "\n/* " + v.module + " */\n";
    module = v.module;
    const c_kind& kind = kind_of(v);
    text += "\n" + comment_text(described(v), "//");
    text += kind.rank == 0 ? scalar_access(kind.type, v.name) : array_access(kind, v.name);
  }
  return text + "\n#ifdef __cplusplus\n}\n#endif\n\n#endif\n";
}

}  // namespace interfaces
