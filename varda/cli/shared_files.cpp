// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/shared_files.h"

#include <map>
#include <memory>

namespace varda {

file_access shared_files(const job& peers) {
  if (peers.size() == 1) return read_from_disk;
  const auto known = std::make_shared<std::map<std::string, std::optional<std::string>>>();
  return [&peers, known](const std::string& path) {
    const auto [at, is_new] = known->try_emplace(path);
    if (is_new) {
      if (peers.is_root()) at->second = read_from_disk(path);
      peers.take_from_root(at->second);
    }
    return at->second;
  };
}

}  // namespace varda
