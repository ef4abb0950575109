// SPDX-License-Identifier: Apache-2.0
#include "varda/support/memory.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <optional>
#include <sstream>

namespace varda {

namespace {

using bytes = std::optional<std::size_t>;

// The number that a file begins with; nothing where it says "max" or cannot be read.
bytes first_number(const std::string& file) {
  std::ifstream in(file);
  std::size_t value = 0;
  if (!(in >> value)) return std::nullopt;
  return value;
}

// The number behind a word at the beginning of a line.
bytes number_behind(const std::string& file, const std::string& word) {
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) {
    std::istringstream parts(line);
    std::string name;
    std::size_t value = 0;
    if (parts >> name >> value && name == word) return value;
  }
  return std::nullopt;
}

std::size_t what_is_left(bytes limit, std::size_t used) {
  if (!limit) return memory_without_limit;
  return *limit > used ? *limit - used : 0;
}

// `folder` of a group in a hierarchy; its parents bind as well. In a container the files of the
// group may stand at the mount itself.
std::size_t left_by_groups(const std::string& mount, std::string folder, const char* limit,
                           const char* usage) {
  std::size_t least = memory_without_limit;
  while (true) {
    const std::string at = mount + folder + "/";
    const bytes used = first_number(at + usage);
    if (used) {
      // Pages of files are given back before a limit is enforced.
      const std::size_t cache = number_behind(at + "memory.stat", "inactive_file").value_or(0);
      least =
          std::min(least, what_is_left(first_number(at + limit), *used - std::min(cache, *used)));
    }
    if (folder.empty() || folder == "/") return least;
    folder.erase(folder.rfind('/'));
  }
}

std::size_t left_by_control_groups(const std::string& root) {
  std::size_t least = memory_without_limit;
  std::ifstream in(root + "/proc/self/cgroup");
  // hierarchy:controllers:path, the controllers being empty in version 2.
  for (std::string line; std::getline(in, line);) {
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
    const std::string folder = line.substr(second + 1);
    if (controllers == ",,")
      least = std::min(
          least, left_by_groups(root + "/sys/fs/cgroup", folder, "memory.max", "memory.current"));
    else if (controllers.find(",memory,") != std::string::npos)
      least = std::min(least, left_by_groups(root + "/sys/fs/cgroup/memory", folder,
                                             "memory.limit_in_bytes", "memory.usage_in_bytes"));
  }
  return least;
}

std::size_t left_by_address_space(const std::string& root) {
  rlimit limit{};
  if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
    return memory_without_limit;
  const std::size_t pages = first_number(root + "/proc/self/statm").value_or(0);
  return what_is_left(static_cast<std::size_t>(limit.rlim_cur),
                      pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)));
}

}  // namespace

std::size_t available_memory(const std::string& root) {
  std::size_t least = std::min(left_by_address_space(root), left_by_control_groups(root));
  if (const bytes kibibytes = number_behind(root + "/proc/meminfo", "MemAvailable:"))
    least = std::min(least, *kibibytes * 1024);
  return least;
}

std::string bytes_in_words(std::size_t bytes) {
  const double megabytes = std::max(std::ceil(static_cast<double>(bytes) / 1e6), 1.0);
  // Two digits: more would promise too much.
  const double unit = std::pow(10.0, std::max(std::floor(std::log10(megabytes)) - 1.0, 0.0));
  const double rounded = std::round(megabytes / unit) * unit;
  if (rounded < 1000.0) return fmt::format("{:.0f} MB", rounded);
  return fmt::format("{:.{}f} GB", rounded / 1000.0, rounded < 10000.0 ? 1 : 0);
}

}  // namespace varda
