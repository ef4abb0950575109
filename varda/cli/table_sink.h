// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>

#include "varda/support/finding.h"

namespace varda {

// Standard output, or a file that has its name only when it is whole.
class table_sink {
 public:
  explicit table_sink(const std::string& path) : path_(path), working_(path + ".part") {
    if (path_.empty()) return;
    file_ = std::fopen(working_.c_str(), "wb");
    if (file_ != nullptr) return;
    throw bad_input({.code = "E-RUN-OUTPUT",
                     .message = "the file cannot be written: " +
                                std::error_code(errno, std::generic_category()).message(),
                     .remedy = "choose another one with --output",
                     .file = path_});
  }
  ~table_sink() {
    if (file_ == nullptr || path_.empty()) return;
    std::fclose(file_);
    std::remove(working_.c_str());
  }
  table_sink(const table_sink&) = delete;
  table_sink& operator=(const table_sink&) = delete;

  void write(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), to()) != text.size()) fail();
  }
  void finish() {
    if (std::fflush(to()) != 0) fail();
    if (path_.empty()) return;
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    if (!closed || std::rename(working_.c_str(), path_.c_str()) != 0) fail();
  }

 private:
  std::FILE* to() const { return path_.empty() ? stdout : file_; }
  [[noreturn]] void fail() const {
    throw std::runtime_error(
        fmt::format("{} cannot be written: {}", path_.empty() ? "standard output" : path_,
                    std::error_code(errno, std::generic_category()).message()));
  }

  std::string path_;
  std::string working_;
  std::FILE* file_ = nullptr;
};

}  // namespace varda
