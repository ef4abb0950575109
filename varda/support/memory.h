// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <limits>
#include <string>

namespace varda {

inline constexpr std::size_t memory_without_limit = std::numeric_limits<std::size_t>::max();

// How many bytes this process may still take: the least of what its address space may grow by
// (RLIMIT_AS, `ulimit -v`), what its control groups leave (the limits of batch systems and
// containers, version 1 and 2), and what the machine has available. What the page cache holds
// counts as available. Limits that cannot be read are passed over. `root` stands before the names
// of the files that this is read from.
std::size_t available_memory(const std::string& root = "");

// What an array of so many bytes takes of the heap, with what the allocator adds.
constexpr std::size_t heap_bytes(std::size_t bytes) {
  return bytes == 0 ? 0 : bytes <= 24 ? 32 : (bytes + 8 + 15) / 16 * 16;
}

// "180 MB" or "2.4 GB", in powers of 1000.
std::string bytes_in_words(std::size_t bytes);

}  // namespace varda
