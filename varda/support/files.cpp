// SPDX-License-Identifier: Apache-2.0
#include "varda/support/files.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace varda {

std::optional<std::string> read_from_disk(const std::string& path) {
  std::error_code unknown;
  if (std::filesystem::is_directory(path, unknown)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  if (!in) return std::nullopt;
  return content.str();
}

}  // namespace varda
