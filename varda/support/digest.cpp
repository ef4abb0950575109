// SPDX-License-Identifier: Apache-2.0
#include "varda/support/digest.h"

#include <algorithm>
#include <bit>

namespace varda {

namespace {

using word = std::uint32_t;

// The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
constexpr std::array<word, 64> constants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

constexpr std::size_t block = 64;

word big_endian(const unsigned char* bytes) {
  return word{bytes[0]} << 24U | word{bytes[1]} << 16U | word{bytes[2]} << 8U | word{bytes[3]};
}

void take_block(const unsigned char* bytes, std::array<word, 8>& hash) {
  std::array<word, 64> w{};
  for (std::size_t t = 0; t < 16; ++t) w[t] = big_endian(bytes + 4 * t);
  for (std::size_t t = 16; t < 64; ++t) {
    const word s0 = std::rotr(w[t - 15], 7) ^ std::rotr(w[t - 15], 18) ^ (w[t - 15] >> 3U);
    const word s1 = std::rotr(w[t - 2], 17) ^ std::rotr(w[t - 2], 19) ^ (w[t - 2] >> 10U);
    w[t] = w[t - 16] + s0 + w[t - 7] + s1;
  }
  auto [a, b, c, d, e, f, g, h] = hash;
  for (std::size_t t = 0; t < 64; ++t) {
    const word s1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
    const word first = h + s1 + ((e & f) ^ (~e & g)) + constants[t] + w[t];
    const word s0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
    const word second = s0 + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + first;
    d = c;
    c = b;
    b = a;
    a = first + second;
  }
  const std::array<word, 8> change = {a, b, c, d, e, f, g, h};
  for (std::size_t k = 0; k < hash.size(); ++k) hash[k] += change[k];
}

}  // namespace

void sha256_of_pieces::add(std::string_view bytes) {
  const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t left = bytes.size();
  bytes_ += left;
  if (waits_ > 0) {
    const std::size_t taken = std::min(left, block - waits_);
    std::copy_n(at, taken, waiting_.begin() + static_cast<std::ptrdiff_t>(waits_));
    waits_ += taken;
    at += taken;
    left -= taken;
    if (waits_ < block) return;
    take_block(waiting_.data(), hash_);
    waits_ = 0;
  }
  for (; left >= block; left -= block, at += block) take_block(at, hash_);
  std::copy_n(at, left, waiting_.begin());
  waits_ = left;
}

std::string sha256_of_pieces::digest() {
  std::fill(waiting_.begin() + static_cast<std::ptrdiff_t>(waits_), waiting_.end(),
            static_cast<unsigned char>(0));
  waiting_[waits_] = 0x80;
  const std::size_t end = waits_ + 9 <= block ? block : 2 * block;
  std::uint64_t bits = bytes_ * 8;
  for (std::size_t k = 1; k <= 8; ++k, bits >>= 8U)
    waiting_[end - k] = static_cast<unsigned char>(bits & 0xffU);
  take_block(waiting_.data(), hash_);
  if (end > block) take_block(waiting_.data() + block, hash_);

  std::string text;
  for (const word w : hash_)
    for (unsigned shift = 32; shift > 0; shift -= 4)
      text += "0123456789abcdef"[w >> (shift - 4) & 0xfU];
  return text;
}

std::string sha256(std::string_view bytes) {
  sha256_of_pieces all;
  all.add(bytes);
  return all.digest();
}

}  // namespace varda
