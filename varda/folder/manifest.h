// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "varda/support/files.h"

namespace varda {

inline constexpr const char* manifest_name = "manifest.json";

// What a run wrote into its folder, and from what.
struct manifest {
  struct file {
    std::string name;
    std::size_t size = 0;
    std::string sha256;  // empty while files are being exchanged
  };
  std::string task;     // "fit", "evaluate"
  std::string version;  // of varda
  std::string model_path;
  std::string model_sha256;
  std::string data_path;  // absolute
  std::string data_sha256;
  std::string observations_sha256;  // of what was used of the data
  std::string doses_sha256;
  int seed = 0;
  std::map<std::string, std::string> settings;  // in force, by their names in the model file
  std::vector<file> files;

  bool lists(const std::string& name) const;
};

std::string manifest_text(const manifest& what);

// Nothing where the text is no manifest.
std::optional<manifest> read_manifest(const std::string& text);

// That of a folder, nothing where it has none.
std::optional<manifest> manifest_of(const std::string& folder,
                                    const file_access& files = read_from_disk);

}  // namespace varda
