// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace varda {

// Gives the bytes of a file by its path; nothing where there is no regular file that can be read.
using file_access = std::function<std::optional<std::string>(const std::string& path)>;

// From the disk.
std::optional<std::string> read_from_disk(const std::string& path);

}  // namespace varda
