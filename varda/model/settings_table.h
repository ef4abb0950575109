// SPDX-License-Identifier: Apache-2.0
//
// The settings of a model file's [estimation], one row each: all that its reader, the command line,
// the reports and the table of docs/model-file.md know of a setting.
#pragma once

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "varda/model/specification.h"

namespace varda {

struct whole_number_setting {
  int estimation_settings::*member;
  int least;
  int most;
  bool automatic = false;  // 0, which is out of range, stands for a value that varda chooses
};

enum class range_end { included, excluded };

struct number_setting {
  double estimation_settings::*member;
  double least;
  range_end at_least;
  double most;  // infinite for none
  range_end at_most;
};

struct flag_setting {
  bool estimation_settings::*member;
};

// One of several words.
struct word_setting {
  std::vector<std::string> words;
  std::function<std::string(const estimation_settings&)> get;
  std::function<void(estimation_settings&, const std::string&)> set;  // takes one of the words
};

struct setting {
  std::string name;     // the key
  std::string meaning;  // in a few words of Markdown
  std::variant<whole_number_setting, number_setting, flag_setting, word_setting> kind;
  bool decides_results = true;  // false: the same results come whatever it says
};

// In the order in which they are read and reported.
const std::vector<setting>& every_setting();

// The row of a whole number, which must be there.
const whole_number_setting& whole_number_called(const std::string& name);

// A word is a string.
using setting_value = std::variant<int, double, bool, std::string>;
setting_value value_of(const setting& row, const estimation_settings& in);

}  // namespace varda
