// SPDX-License-Identifier: Apache-2.0
//
// Tests work in a folder of their own, which goes when they end: wherever the program is started,
// it leaves nothing there, and cases in processes side by side do not meet.
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include <stdlib.h>

namespace {

namespace fs = std::filesystem;

class scratch_folder : public testing::Environment {
 public:
  void SetUp() override {
    const std::string placeholder(6, 'X');
    std::string name = (fs::temp_directory_path() / ("statsubs-test-" + placeholder)).string();
    if (!::mkdtemp(name.data())) throw std::runtime_error("cannot make the folder " + name);
    scratch_ = name;
    before_ = fs::current_path();
    fs::current_path(scratch_);
  }

  void TearDown() override {
    fs::current_path(before_);
    fs::remove_all(scratch_);
  }

 private:
  fs::path scratch_;
  fs::path before_;
};

[[maybe_unused]] const auto* const installed =
    testing::AddGlobalTestEnvironment(new scratch_folder);

}  // namespace
