// SPDX-License-Identifier: Apache-2.0
#include "varda/support/files.h"

#include <filesystem>
#include <fstream>
#include <vector>

namespace varda {

std::optional<std::string> read_from_disk(const std::string& path) {
  // A device may never end. A pipe does, as a rule, and process substitution makes one.
  constexpr std::size_t most_of_a_pipe = std::size_t{1} << 31U;
  std::error_code unknown;
  const bool pipe = std::filesystem::is_fifo(path, unknown);
  if (!pipe && !std::filesystem::is_regular_file(path, unknown)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string content;
  if (const auto size = std::filesystem::file_size(path, unknown); !pipe && !unknown)
    content.reserve(static_cast<std::size_t>(size));
  std::vector<char> piece(std::size_t{1} << 16U);
  while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())) || in.gcount() > 0) {
    content.append(piece.data(), static_cast<std::size_t>(in.gcount()));
    if (pipe && content.size() > most_of_a_pipe) return std::nullopt;
  }
  if (in.bad()) return std::nullopt;
  return content;
}

}  // namespace varda
