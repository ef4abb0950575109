// SPDX-License-Identifier: Apache-2.0
//
// varda's job at several processes.
#include "varda/host/job.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

namespace varda {
namespace {

std::unique_ptr<job> peers;

// Columns of unequal length, more than are exchanged at once, and values whose bits a sum with
// zeros would change.
TEST(Job, GathersColumnsBitByBit) {
  std::vector<std::ptrdiff_t> sizes;
  std::ptrdiff_t all = 0;
  for (int i = 0; i < 1013; ++i) {
    sizes.push_back(i == 500 ? 5000000 : (i * 37) % 9001);
    all += sizes.back();
  }
  const auto value = [](std::ptrdiff_t at) { return at % 3 == 0 ? -0.0 : std::sin(at); };
  std::vector<double> values(static_cast<std::size_t>(all), 7.0);
  std::ptrdiff_t at = 0;
  for (std::size_t i = 0; i < sizes.size(); at += sizes[i], ++i)
    if (peers->owns(static_cast<int>(i)))
      for (std::ptrdiff_t k = 0; k < sizes[i]; ++k)
        values[static_cast<std::size_t>(at + k)] = value(at + k);
  EXPECT_FALSE(peers->gather(values.data(), sizes));
  int wrong = 0;
  for (std::ptrdiff_t k = 0; k < all; ++k) {
    const double here = values[static_cast<std::size_t>(k)];
    wrong += here != value(k) || std::signbit(here) != std::signbit(value(k)) ? 1 : 0;
  }
  EXPECT_EQ(wrong, 0);
}

TEST(Job, GathersColumnsOfSomeSubjects) {
  const std::vector<int> some = {1, 2, 6, 7, 8, 12, 24, 25};
  std::vector<double> values;
  for (const int i : some)
    for (int k = 0; k < 3; ++k) values.push_back(peers->owns(i) ? 10.0 * i + k : -1.0);
  EXPECT_FALSE(peers->gather(values.data(), 3, some));
  std::vector<double> expected;
  for (const int i : some)
    for (int k = 0; k < 3; ++k) expected.push_back(10.0 * i + k);
  EXPECT_EQ(values, expected);
}

TEST(Job, AddsUpWhatEachProcessHas) {
  std::vector<double> values = {1.0, 10.0 * peers->rank(), -2.0};
  peers->add_up(values.data(), 3);
  const double n = peers->size();
  EXPECT_EQ(values, (std::vector<double>{n, 5.0 * n * (n - 1.0), -2.0 * n}));
}

TEST(Job, TellsAFlagOfAnyProcess) {
  for (int r = 0; r < peers->size(); ++r) {
    EXPECT_TRUE(peers->any(peers->rank() == r));
    EXPECT_FALSE(peers->any(false));
  }
  std::vector<double> none;
  EXPECT_TRUE(peers->gather(none.data(), 3, 0, peers->rank() == peers->size() - 1));
}

TEST(Job, GivesTheRootsText) {
  const std::string binary("a\0b\nc", 5);
  std::optional<std::string> text;
  if (peers->is_root()) text = binary;
  peers->take_from_root(text);
  EXPECT_EQ(text, binary);
  if (peers->is_root()) text.reset();
  peers->take_from_root(text);
  EXPECT_FALSE(text.has_value());
}

}  // namespace
}  // namespace varda

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  varda::peers = std::make_unique<varda::job>(&argc, &argv);
  const bool failed = varda::peers->any(RUN_ALL_TESTS() != 0);
  varda::peers.reset();
  return failed ? 1 : 0;
}
