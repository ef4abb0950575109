// SPDX-License-Identifier: Apache-2.0
//
// What varda has to say about its input: errors end the run, warnings are listed.
#pragma once

#include <exception>
#include <string>
#include <vector>

namespace varda {

enum class severity { warning, error };

// One finding. `code` is stable ("E-DATA-NUMBER") and listed in docs/messages.md. What does not
// apply is empty, or 0 for the row.
struct finding {
  severity level = severity::error;
  std::string code{};
  std::string message{};  // what is wrong, one sentence without the place
  std::string remedy{};   // what to do about it, one sentence
  std::string file{};
  int row = 0;            // line of the file, from 1; the header line of a data set is 1
  std::string column{};   // column of a data set, or key of a model file ("parameters.ka.start")
  std::string subject{};  // identifier as it stands in the data

  template <class A>
  void visit(A& archive) {
    archive(level, code, message, remedy, file, row, column, subject);
  }
};

// "theophylline.csv, row 7, column DV, subject 1: error E-DATA-NUMBER: ... " on one line.
std::string to_text(const finding& what);

// The same in lines for a terminal, the place in one of its own where all do not fit into one.
std::string to_lines(const finding& what);

// Input that cannot be used. Exit status 2.
class bad_input : public std::exception {
 public:
  explicit bad_input(finding what);
  const finding& what_found() const { return found_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  finding found_;
  std::string text_;
};

using findings = std::vector<finding>;

// The candidate closest to `word`, without regard to case, or "" when none is close.
std::string did_you_mean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace varda
