// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace varda {

// SHA-256 (FIPS 180-4) as 64 hexadecimal digits.
std::string sha256(std::string_view bytes);

// The same of bytes that come in pieces.
class sha256_of_pieces {
 public:
  void add(std::string_view bytes);
  // Of all that was added, after which nothing can be added.
  std::string digest();

 private:
  static constexpr std::size_t block_ = 64;
  std::array<std::uint32_t, 8> hash_ = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                        0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::array<unsigned char, 2 * block_> waiting_{};  // less than a block between calls
  std::size_t waits_ = 0;
  std::uint64_t bytes_ = 0;
};

}  // namespace varda
