// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "varda/model/words.h"
#include "varda/support/files.h"
#include "varda/support/finding.h"

namespace varda {

// A table of a TOML file that knows its place: every key is asked for once, under the type it must
// have, and what nobody asked for is refused at the end with the key that was probably meant. All
// refusals are bad_input with file, line and full key.
class section {
 public:
  // The root table of a file; throws bad_input when it cannot be read as TOML.
  static section of_file(const std::string& path, const file_access& text_of);

  bad_input error(const std::string& code, const std::string& key, const std::string& message,
                  const std::string& remedy) const;
  bad_input unknown_word(const std::string& key, const std::string& value,
                         const std::vector<std::string>& words) const;

  // The keys that are there, in the order of the file, and the line of one of them.
  std::vector<std::string> keys() const;
  int line_of(const std::string& key) const;

  bool has(const std::string& key);
  // Makes a key known before it is read.
  void accept(const std::string& key) { asked_.insert(key); }
  bool is_number(const std::string& key) const;
  bool is_text(const std::string& key) const;
  bool is_table(const std::string& key) const;
  void refuse_leftovers() const;

  // A value, nothing or the fallback where the key is absent.
  std::optional<double> number(const std::string& key);
  double number_or(const std::string& key, double fallback);
  // The one kind of number that may be infinite: TOML's inf is no bound at all.
  double bound_or(const std::string& key, double fallback);
  int whole_number_or(const std::string& key, int fallback, int least, int most);
  bool flag_or(const std::string& key, bool fallback);
  std::optional<std::string> text(const std::string& key);
  // One of the words.
  std::optional<std::string> word(const std::string& key, const std::vector<std::string>& words);
  // The enumerator whose word it is.
  template <class Kind>
  Kind kind_or(const std::string& key, Kind fallback) {
    const std::vector<named<Kind>> all = every_name<Kind>();
    const auto found = word(key, words_of(all));
    for (const named<Kind>& entry : all)
      if (found == entry.name) return entry.value;
    return fallback;
  }
  std::optional<section> table(const std::string& key);
  // The tables of an array of tables, empty when there is none.
  std::vector<section> tables(const std::string& key);
  // The numbers of a list, nothing when it is no list of finite numbers.
  std::vector<double> numbers(const std::string& key);

  // A value that must be there; `what` says what it gives.
  double needed_number(const std::string& key, const std::string& what);
  std::string needed_text(const std::string& key, const std::string& what);
  section needed_table(const std::string& key, const std::string& what);
  // A number, or a table that gives it under `inner` and may say fixed = true.
  double fixable_number(const std::string& key, const std::string& inner, const std::string& what,
                        bool& fixed);
  std::vector<std::string> texts(const std::string& key);
  std::vector<std::vector<double>> rows(const std::string& key);

 private:
  struct source;  // the parser's table
  section(std::shared_ptr<const source> from, std::string path);

  bad_input missing(const std::string& key, const std::string& what) const;
  std::string full_key(const std::string& key) const;

  std::shared_ptr<const source> source_;
  std::string path_;
  std::set<std::string> asked_;
};

}  // namespace varda
