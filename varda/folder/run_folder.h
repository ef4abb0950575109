// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "varda/folder/manifest.h"
#include "varda/support/text_pieces.h"

namespace varda {

// The folder DIR that a run writes to. The run works in DIR.part beside it; at the end the two are
// exchanged by one rename, so that whoever looks, and whenever the process is killed, finds the
// results of one run. What else stands in DIR stays there. What a run wrote is what its manifest
// lists.
//
// A fit that lasts keeps its state in DIR.part, where a kill leaves it for the run that takes it
// up. A fit that was stopped keeps it in DIR, beside the results so far. What is found of either
// stays until a run has kept a state of its own, or exchanges its results.
//
// A folder that cannot be renamed (the working directory, the root of a file system, one whose
// parent is read-only) gets its files one by one; between the first and the last its manifest says
// so (exchanging).
class run_folder {
 public:
  // The state that an earlier run has left in a folder or beside it, and where.
  struct leftover {
    std::filesystem::path path;
    std::string content;
  };
  static std::optional<leftover> left_in(const std::string& path);

  // Takes the folder for one run, of whose possible files `names` are the names, and tries it out;
  // tidies up after a run that was killed. Throws bad_input where it cannot be written to, another
  // run holds it, it holds a fit that an evaluation would replace, or a file that is not an earlier
  // run's would be lost.
  run_folder(const std::string& path, const std::string& task,
             const std::vector<std::string>& names);
  // Without an exchange nothing is left behind but what was there, and the state that was kept.
  ~run_folder();
  run_folder(const run_folder&) = delete;
  run_folder& operator=(const run_folder&) = delete;

  // Keeps the run's state where it is found after a kill: always a whole one, this or the one
  // before. Throws std::runtime_error.
  void keep_state(const text_pieces& content);

  // Keeps a file for the exchange, which asks for its text.
  void add(const std::string& name, std::string content);
  void add(const std::string& name, text_pieces content);

  // Puts what was added into the place of the run before; `about` with the list of it becomes the
  // manifest. Throws std::runtime_error, and then everything is as it was.
  void exchange(manifest about);

  // Instead of an exchange: one more file beside those of the run that is there, and in its
  // manifest, so that the next run replaces it with the others. Throws std::runtime_error.
  void add_to_run(const std::string& name, const std::string& content);

  const std::filesystem::path& path() const { return given_; }  // as the user wrote it

 private:
  void choose_place();
  void hold();
  void check_old(const std::string& task, const std::vector<std::string>& names);
  void write_part(manifest& about);
  manifest::file write_state(const text_pieces& content);
  void move_state_away(const manifest& about);
  void exchange_whole(const manifest& about);
  void exchange_in_place(const manifest& about);
  [[noreturn]] void refuse(const std::string& why, const std::string& remedy) const;

  std::filesystem::path given_;
  std::filesystem::path path_;  // absolute, without links
  std::filesystem::path part_;
  bool in_place_ = false;
  bool done_ = false;
  int held_ = -1;  // descriptor of the locked part
  manifest old_;   // of the results to be replaced; without files where there are none
  std::vector<std::pair<std::string, text_pieces>> added_;
};

}  // namespace varda
