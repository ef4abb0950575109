// SPDX-License-Identifier: Apache-2.0
#include "checks/interfaces/text.h"

#include <sstream>

namespace interfaces {

std::string list_text(const std::string& head, const std::vector<std::string>& items,
                      const std::string& tail, const std::string& indent,
                      const std::string& continuation) {
  std::string text;
  std::string line = head;
  for (std::size_t i = 0; i < items.size(); ++i) {
    const bool last = i + 1 == items.size();
    const std::string item = items[i] + (last ? tail : ",");
    const bool first_of_line = line == head || line == indent;
    if (line.size() + 1 + item.size() + continuation.size() > line_length) {
      text += line + continuation + '\n';
      line = indent + item;
    } else {
      line += (first_of_line ? "" : " ") + item;
    }
  }
  return text + (items.empty() ? line + tail : line) + '\n';
}

std::string comment_text(const std::string& words, const std::string& prefix) {
  std::istringstream stream(words);
  std::string text;
  std::string line = prefix;
  for (std::string word; stream >> word;) {
    if (line.size() + 1 + word.size() > line_length) {
      text += line + '\n';
      line = prefix;
    }
    line += ' ' + word;
  }
  return text + line + '\n';
}

std::string described(const shared_variable& variable) {
  const std::string extent = variable.extent.empty() ? "" : "(" + variable.extent + ")";
  return variable.name + extent + ": " + variable.meaning + ". Written by: " + variable.writer;
}

}  // namespace interfaces
