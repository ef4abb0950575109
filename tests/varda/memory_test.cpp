// SPDX-License-Identifier: Apache-2.0
//
// How much memory there is, and what becomes of a part of a run that has not enough of it.
#include "varda/support/memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "varda/run/memory_needs.h"

namespace varda {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class Memory : public testing::Test {
 protected:
  Memory() : root_(fs::current_path() / "memory_test_root") { fs::remove_all(root_); }
  void write(const std::string& name, const std::string& text) const {
    fs::create_directories((root_ / name).parent_path());
    std::ofstream(root_ / name) << text;
  }
  std::size_t available() const { return available_memory(root_.string()); }

 private:
  fs::path root_;
};

TEST_F(Memory, IsTheLeastOfMachineAndGroups) {
  write("proc/meminfo", "MemTotal:  9000 kB\nMemAvailable:    8000 kB\n");
  EXPECT_EQ(available(), 8000U * 1024);
  // Version 2: a parent may bind where the group itself has no limit, and the page cache is free.
  write("proc/self/cgroup", "0::/jobs/job7\n");
  write("sys/fs/cgroup/jobs/job7/memory.max", "max\n");
  write("sys/fs/cgroup/jobs/job7/memory.current", "1000\n");
  write("sys/fs/cgroup/jobs/memory.max", "5000000\n");
  write("sys/fs/cgroup/jobs/memory.current", "3000000\n");
  EXPECT_EQ(available(), 2000000U);
  write("sys/fs/cgroup/jobs/memory.stat", "anon 7\ninactive_file 500000\n");
  EXPECT_EQ(available(), 2500000U);
  write("sys/fs/cgroup/jobs/job7/memory.max", "400\n");
  EXPECT_EQ(available(), 0U);
  // Version 1, as a container sees its own group: at the mount.
  write("proc/self/cgroup", "3:cpu:/a\n5:hugetlb,memory:/outside/name\n");
  write("sys/fs/cgroup/memory/memory.limit_in_bytes", "700000\n");
  write("sys/fs/cgroup/memory/memory.usage_in_bytes", "100000\n");
  EXPECT_EQ(available(), 600000U);
}

TEST(MemoryInWords, HasTwoDigits) {
  EXPECT_EQ(bytes_in_words(0), "1 MB");
  EXPECT_EQ(bytes_in_words(9400001), "10 MB");
  EXPECT_EQ(bytes_in_words(184000000), "180 MB");
  EXPECT_EQ(bytes_in_words(996000000), "1.0 GB");
  EXPECT_EQ(bytes_in_words(23600000000), "24 GB");
}

TEST(WithinMemory, WhatCannotBeHadIsLeftOutAndNamed) {
  const job alone(nullptr, nullptr);
  findings warnings;
  bool done = false;
  EXPECT_TRUE(within_memory(alone, "A is", 1000, warnings, [&] { done = true; }));
  EXPECT_TRUE(done);
  EXPECT_TRUE(warnings.empty());

  const auto never = [] { FAIL() << "there cannot be so much"; };
  EXPECT_FALSE(within_memory(alone, "B is", std::size_t{3} << 60U, warnings, never));
  const auto refused = [] { throw std::bad_alloc(); };
  EXPECT_FALSE(within_memory(alone, "C is", 7000000, warnings, refused));
  const auto too_long = [] { std::vector<double>().reserve(std::size_t{1} << 62U); };
  EXPECT_FALSE(within_memory(alone, "D is", 0, warnings, too_long));
  ASSERT_EQ(warnings.size(), 3U);
  EXPECT_THAT(warnings[0].message, HasSubstr("B is left out: about 3500000000 GB of memory"));
  EXPECT_THAT(warnings[1].message, HasSubstr("C is left out: about 7 MB of memory"));
  // What is no want of memory is somebody else's to handle.
  EXPECT_THROW(
      within_memory(alone, "E is", 0, warnings, [] { throw std::runtime_error("another"); }),
      std::runtime_error);
}

}  // namespace
}  // namespace varda
