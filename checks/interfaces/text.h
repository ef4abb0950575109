// SPDX-License-Identifier: Apache-2.0
//
// The files of the C and Fortran interfaces and the page of the shared state, as text.
#pragma once

#include <string>
#include <vector>

#include "checks/interfaces/declarations.h"

namespace interfaces {

inline constexpr std::size_t line_length = 100;

// `head`, the items with commas between them, `tail`, broken before items that would not fit a
// line. `indent` goes before the items of later lines, `continuation` after a line that goes on.
std::string list_text(const std::string& head, const std::vector<std::string>& items,
                      const std::string& tail, const std::string& indent,
                      const std::string& continuation = "");

// `words` in lines that each begin with `prefix`.
std::string comment_text(const std::string& words, const std::string& prefix);

// "theta(ntheta): fixed effects now in force. Written by: ..."
std::string described(const shared_variable& variable);

std::string c_routines_header(const std::vector<routine>& routines);
std::string c_routines_source(const std::vector<routine>& routines);
std::string c_host_table(const std::vector<routine>& callables);
std::string c_shared_variables(const std::vector<shared_variable>& variables);

std::string fortran_routines(const std::vector<routine>& routines);
std::string fortran_host_table(const std::vector<routine>& callables);
std::string fortran_shared_variables(const std::vector<shared_variable>& variables);
std::string by_reference_source(const std::vector<routine>& routines);

std::string shared_state_page(const std::vector<shared_variable>& variables);

}  // namespace interfaces
