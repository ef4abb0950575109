// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>

namespace varda {

// The folder that a run writes to. Every file is written under a temporary name and renamed when it
// is whole, so that a reader never sees half a file and an earlier result survives a failed write.
class output_folder {
 public:
  // Creates the folder where it is missing and tries it out. Throws bad_input when it cannot be
  // written to.
  explicit output_folder(const std::string& path);

  // Throws std::runtime_error, naming the file, when it cannot be written.
  void write(const std::string& name, const std::string& content) const;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace varda
