// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace varda {

// A formula that is refused: the section and key it stands under, and a finding's code, message and
// remedy.
struct formula_error : std::exception {
  formula_error(std::string of_section, std::string of_key, std::string with_code,
                std::string with_message, std::string with_remedy)
      : section(std::move(of_section)),
        key(std::move(of_key)),
        code(std::move(with_code)),
        message(std::move(with_message)),
        remedy(std::move(with_remedy)) {}
  const char* what() const noexcept override { return message.c_str(); }

  std::string section;
  std::string key;
  std::string code;
  std::string message;
  std::string remedy;
};

}  // namespace varda
