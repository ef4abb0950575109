// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "varda/data/columns.h"
#include "varda/support/finding.h"

namespace varda {

// What is odd but legal in a data set: a warning for each kind, with its count and the first place.
class oddities {
 public:
  // What follows a number: "observation stands before any dose" and "observations stand ...".
  struct wording {
    std::string one, several;
  };

  // Counts one case.
  void count(const std::string& code, const wording& what, const std::string& remedy,
             const finding& place);
  void count(const std::string& code, const wording& what, const std::string& remedy,
             const record_view& at, role column);
  // A case that stands for itself.
  void say(const std::string& code, const std::string& message, const std::string& remedy,
           const finding& place);
  // A value that means nothing on the kind of record that it stands on.
  void ignored(const record_view& at, role column, const wording& records,
               const std::string& remedy);

  // The warnings, in the order in which their first cases were counted.
  findings warnings() const;

 private:
  struct kind {
    finding first;
    wording what;
    int cases = 0;  // 0 where the cases are not counted, and `what.one` is the whole message
  };
  std::vector<kind> kinds_;
};

}  // namespace varda
