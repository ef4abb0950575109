// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/checkpoint.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>
#include <exception>
#include <sstream>

#include "varda/model/settings_table.h"
#include "varda/support/archive.h"
#include "varda/support/commit.h"
#include "varda/support/finding.h"
#include "varda/support/text.h"
#include "varda/version.h"

namespace varda {

namespace {

constexpr const char* version_entry = "version of varda";

bad_input damaged(const std::filesystem::path& path, const std::string& why) {
  return bad_input({.code = "E-RUN-STATE",
                    .message = "the fit cannot be resumed: " + why,
                    .remedy = "remove the file and start again without --resume",
                    .file = path.string()});
}

std::string version_of(const saved_run::identity& of) {
  for (const auto& [name, value] : of)
    if (name == version_entry) return value;
  return "unknown";
}

std::string this_version() {
  const std::string built_from = commit();
  return built_from.empty() ? version : fmt::format("{} {}", version, built_from);
}

}  // namespace

saved_run::identity identity_of(const manifest& origin) {
  saved_run::identity of = {{version_entry, this_version()},
                            {"task", origin.task},
                            {"model file", origin.model_sha256},
                            {"data file", origin.data_sha256}};
  for (const setting& row : every_setting())
    if (row.decides_results) of.emplace_back(row.name, origin.settings.at(row.name));
  return of;
}

saved_fit take_up(const std::string& output, const job& peers) {
  std::optional<std::string> content;
  std::optional<std::string> path;
  if (peers.is_root())
    if (auto left = run_folder::left_in(output)) {
      content = std::move(left->content);
      path = left->path.string();
    }
  peers.take_from_root(content);
  peers.take_from_root(path);
  if (!content)
    throw bad_input(
        {.code = "E-RUN-RESUME",
         .message = "there is no unfinished fit to resume",
         .remedy = "omit --resume, or give the folder of the fit that was killed or stopped",
         .file = output});
  saved_fit result;
  try {
    const saved_run saved = read_saved_run(*content);
    result.of = saved.of;
    const std::string here = this_version();
    if (version_of(saved.of) != here)
      throw std::runtime_error(
          fmt::format("it was written by version {} of varda, and this is version {}",
                      version_of(saved.of), here));
    std::istringstream in(saved.body);
    archive_reader from(in);
    from(result.session, result.state);
  } catch (const std::exception& error) {
    throw damaged(*path, error.what());
  }
  return result;
}

void check_same(const saved_fit& saved, const manifest& origin, const std::string& output) {
  const std::vector<std::string> other = differences(saved.of, identity_of(origin));
  if (other.empty()) return;
  throw bad_input(
      {.code = "E-RUN-RESUME",
       .message = fmt::format("the unfinished fit is a different one: {}", fmt::join(other, ", ")),
       .remedy = "undo the change, or start again without --resume",
       .file = output});
}

std::string check_leftover(const std::string& output, const manifest& origin) {
  const auto left = run_folder::left_in(output);
  if (!left) return "";
  saved_run::identity of;
  try {
    of = read_saved_run(left->content).of;
  } catch (const std::exception& error) {
    return fmt::format("varda: {} is not used: {}\n", left->path.string(), error.what());
  }
  const std::vector<std::string> other = differences(of, identity_of(origin));
  if (other.empty())
    throw bad_input({.code = "E-RUN-UNFINISHED",
                     .message = "this fit was started before and is unfinished",
                     .remedy = "add --resume to continue it, or remove the file to start again",
                     .file = left->path.string()});
  if (origin.task != "fit")
    throw bad_input({.code = "E-RUN-UNFINISHED",
                     .message = "the folder holds an unfinished fit",
                     .remedy = "choose another folder with --output, or remove the file",
                     .file = left->path.string()});
  return wrapped(
             fmt::format("varda: the unfinished fit in {} is a different one and is discarded; it "
                         "differs in {}",
                         left->path.parent_path().string(), fmt::join(other, ", ")),
             2) +
         "\n";
}

checkpointer::checkpointer(run_folder* folder, const job& peers, int every, saved_run::identity of,
                           fit_session session, const std::string& records)
    : folder_(folder),
      peers_(peers),
      every_(every),
      of_(std::move(of)),
      session_(std::move(session)),
      records_(records) {}

bool checkpointer::reached() {
  records_reached_ = records_.size();
  return every_.count() == 0 || peers_.any(peers_.is_root() && clock::now() - kept_ >= every_);
}

void checkpointer::keep(fit_state& state, bool stopped) {
  kept_ = clock::now();
  if (folder_ == nullptr) return;
  fit_session session = session_;
  session.records = records_.substr(0, records_reached_);
  session.seconds += std::chrono::duration<double>(kept_ - began_).count();
  ++session.sessions;
  const text_pieces content = saved_run_text(of_, [&](std::ostream& to) {
    archive_writer archive(to);
    archive(session, state);
  });
  if (stopped) at_stop_ = whole(content);
  try {
    folder_->keep_state(content);
  } catch (const std::exception& error) {
    if (!told_)
      std::fputs(
          fmt::format("varda: the state of the fit cannot be saved: {}\n", error.what()).c_str(),
          stderr);
    told_ = true;
  }
}

}  // namespace varda
