// SPDX-License-Identifier: Apache-2.0
#include "varda/report/output_folder.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "varda/support/finding.h"

namespace varda {

namespace {

// Writes and closes; false with errno's reason in `why` when any of it fails.
bool write_file(const std::filesystem::path& path, const std::string& content, std::string& why) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  bool written = file != nullptr;
  written = written && std::fwrite(content.data(), 1, content.size(), file) == content.size();
  written = written && std::fflush(file) == 0;
  if (!written) why = std::error_code(errno, std::generic_category()).message();
  if (file != nullptr && std::fclose(file) != 0 && written) {
    why = std::error_code(errno, std::generic_category()).message();
    written = false;
  }
  return written;
}

// Unique to the process, so that two runs into one folder do not write into each other's files.
std::filesystem::path temporary(const std::filesystem::path& path) {
  return path.string() + fmt::format(".tmp{}", ::getpid());
}

}  // namespace

output_folder::output_folder(const std::string& path) : path_(path) {
  const auto refuse = [&](const std::string& why) {
    throw bad_input({.code = "E-RUN-OUTPUT",
                     .message = "the output folder cannot be written to: " + why,
                     .remedy = "choose another folder with --output or change its permissions",
                     .file = path});
  };
  std::error_code failure;
  std::filesystem::create_directories(path_, failure);
  if (!std::filesystem::is_directory(path_))
    refuse(failure ? failure.message() : "it is not a folder");
  const std::filesystem::path trial = temporary(path_ / "trial");
  std::string why;
  if (!write_file(trial, "", why)) refuse(why);
  std::filesystem::remove(trial, failure);
}

void output_folder::write(const std::string& name, const std::string& content) const {
  const std::filesystem::path final = path_ / name;
  const std::filesystem::path working = temporary(final);
  std::string why;
  std::error_code failure;
  if (write_file(working, content, why)) {
    std::filesystem::rename(working, final, failure);
    if (!failure) return;
    why = failure.message();
  }
  std::filesystem::remove(working, failure);
  throw std::runtime_error(fmt::format("{} cannot be written: {}", final.string(), why));
}

}  // namespace varda
