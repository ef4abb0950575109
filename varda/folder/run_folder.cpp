// SPDX-License-Identifier: Apache-2.0
#include "varda/folder/run_folder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "varda/folder/saved_run.h"
#include "varda/support/digest.h"
#include "varda/support/files.h"
#include "varda/support/finding.h"

namespace varda {

namespace {

namespace fs = std::filesystem;

// What a run keeps in its working folder besides its state and what its manifest lists.
const std::vector<std::string> working_names = {"run.state.new", "manifest.json.new"};
constexpr const char* part_inside = ".varda-part";

std::string reason_of(int number) {
  return std::error_code(number, std::generic_category()).message();
}

[[noreturn]] void fail(const fs::path& path, const std::string& why) {
  throw std::runtime_error(fmt::format("{} cannot be written: {}", path.string(), why));
}

// Writes a file and has the disk begin to take it. Returns what the manifest says of it.
manifest::file write_file(const fs::path& path, const text_pieces& content) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"),
                                                             std::fclose);
  if (!file) fail(path, reason_of(errno));
  manifest::file written{path.filename().string(), 0, ""};
  sha256_of_pieces digest;
  content([&](std::string_view piece) {
    if (std::fwrite(piece.data(), 1, piece.size(), file.get()) != piece.size())
      fail(path, reason_of(errno));
    written.size += piece.size();
    digest.add(piece);
  });
  if (std::fflush(file.get()) != 0) fail(path, reason_of(errno));
  // Of no consequence where it fails: flush_file() waits for the disk, and tells.
  ::sync_file_range(::fileno(file.get()), 0, 0, SYNC_FILE_RANGE_WRITE);
  written.sha256 = digest.digest();
  return written;
}

// Returns when a file that was written is on the disk itself, so that what is renamed later is
// whole after a loss of power. Of several files all are written before the first is flushed: the
// disk takes them together.
void flush_file(const fs::path& path) {
  const int opened = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (opened < 0) fail(path, reason_of(errno));
  const int failure = ::fsync(opened) == 0 ? 0 : errno;
  ::close(opened);
  if (failure != 0) fail(path, reason_of(failure));
}

text_pieces one_piece(std::string content) {
  return [content = std::move(content)](const text_sink& to) { to(content); };
}

void rename_or_fail(const fs::path& from, const fs::path& to) {
  std::error_code failure;
  fs::rename(from, to, failure);
  if (failure) fail(to, failure.message());
}

void write_manifest(const fs::path& folder, const manifest& about) {
  const fs::path working = folder / (std::string(manifest_name) + ".new");
  write_file(working, one_piece(manifest_text(about)));
  flush_file(working);
  rename_or_fail(working, folder / manifest_name);
}

bool same_file(const fs::path& a, const fs::path& b) {
  struct stat of_a {};
  struct stat of_b {};
  return ::lstat(a.c_str(), &of_a) == 0 && ::lstat(b.c_str(), &of_b) == 0 &&
         of_a.st_dev == of_b.st_dev && of_a.st_ino == of_b.st_ino;
}

bool holds_state(const fs::path& path) {
  return is_saved_run(read_from_disk(path.string()).value_or(""));
}

bool there(const fs::path& path) {
  std::error_code failure;
  return fs::symlink_status(path, failure).type() != fs::file_type::not_found;
}

std::vector<fs::path> entries_of(const fs::path& folder) {
  std::vector<fs::path> names;
  std::error_code failure;
  for (fs::directory_iterator at(folder, failure), end; !failure && at != end;
       at.increment(failure))
    names.push_back(at->path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// Empties a working folder, of a run that was killed or of the results that were replaced: what its
// manifest lists goes, what is a user's and not in `home` yet goes there. The name of what is left
// and nobody's, or nothing. The state of a run goes only where it is not wanted any more.
enum class state_is { wanted, done_with };
std::string tidy(const fs::path& part, const fs::path& home, state_is state) {
  std::error_code ignored;
  const std::optional<manifest> known = manifest_of(part.string());
  std::string stranger;
  for (const fs::path& name : entries_of(part)) {
    if (name == state_name && holds_state(part / name)) {
      if (state == state_is::done_with) fs::remove(part / name, ignored);
      continue;
    }
    const bool working =
        std::find(working_names.begin(), working_names.end(), name.string()) != working_names.end();
    if (working || (known && known->lists(name.string()))) {
      fs::remove(part / name, ignored);
    } else if (known && name != manifest_name) {
      if (same_file(part / name, home / name))
        fs::remove(part / name, ignored);
      else if (!there(home / name))
        fs::rename(part / name, home / name, ignored);
    }
    if (name != manifest_name && there(part / name)) stranger = name.string();
  }
  if (stranger.empty()) fs::remove(part / manifest_name, ignored);
  return stranger;
}

enum class rename_kind : unsigned { no_replace = RENAME_NOREPLACE, exchange = RENAME_EXCHANGE };

bool rename_atomically(const fs::path& from, const fs::path& to, rename_kind how) {
  return ::syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(),
                   static_cast<unsigned>(how)) == 0;
}

void flush_folder(const fs::path& folder) {
  const int opened = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (opened < 0) return;
  ::fsync(opened);
  ::close(opened);
}

// Whether a folder is the working directory or holds it: renaming it would take that away from the
// user's shell.
bool holds_working_directory(const fs::path& folder) {
  std::error_code failure;
  const fs::path here = fs::current_path(failure);
  if (failure) return false;
  const auto [at, rest] = std::mismatch(folder.begin(), folder.end(), here.begin(), here.end());
  return at == folder.end();
}

bool is_root_of_file_system(const fs::path& folder) {
  struct stat own {};
  struct stat above {};
  return ::stat(folder.c_str(), &own) == 0 && ::stat(folder.parent_path().c_str(), &above) == 0 &&
         own.st_dev != above.st_dev;
}

}  // namespace

run_folder::run_folder(const std::string& path, const std::string& task,
                       const std::vector<std::string>& names)
    : given_(path) {
  choose_place();
  hold();
  try {
    check_old(task, names);
  } catch (...) {
    std::error_code ignored;
    fs::remove(part_, ignored);
    ::close(held_);
    throw;
  }
}

run_folder::~run_folder() {
  std::error_code ignored;
  // Stays where a state is in it.
  if (!done_ && tidy(part_, path_, state_is::wanted).empty()) fs::remove(part_, ignored);
  ::close(held_);
}

void run_folder::refuse(const std::string& why, const std::string& remedy) const {
  throw bad_input({.code = "E-RUN-OUTPUT",
                   .message = "the output folder cannot be used: " + why,
                   .remedy = remedy,
                   .file = given_.string()});
}

void run_folder::choose_place() {
  const char* const remedy = "choose another folder with --output or change its permissions";
  std::error_code failure;
  path_ = fs::weakly_canonical(fs::absolute(given_), failure);
  if (failure) refuse(failure.message(), remedy);
  if (!path_.has_filename()) path_ = path_.parent_path();
  const bool exists = there(path_);
  if (exists && !fs::is_directory(path_)) refuse("it is not a folder", remedy);
  fs::create_directories(path_.parent_path(), failure);
  part_ = path_.string() + ".part";
  in_place_ = exists && (holds_working_directory(path_) || is_root_of_file_system(path_));
  if (!in_place_) {
    if (::mkdir(part_.c_str(), 0777) == 0 || errno == EEXIST) return;
    const int why = errno;
    in_place_ = exists && ::access(path_.c_str(), W_OK) == 0;
    if (!in_place_) refuse(reason_of(why), remedy);
  }
  part_ = path_ / part_inside;
  if (::mkdir(part_.c_str(), 0777) != 0 && errno != EEXIST) refuse(reason_of(errno), remedy);
}

// A lock ends with its process, however that ends.
void run_folder::hold() {
  const auto refuse_and_close = [this](const std::string& why, const std::string& remedy) {
    if (held_ >= 0) ::close(held_);
    refuse(why, remedy);
  };
  held_ = ::open(part_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (held_ < 0) refuse(part_.string() + ": " + reason_of(errno), "choose another folder");
  if (::flock(held_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)
    refuse_and_close("another run is writing to it",
                     "choose another folder, or wait until it has ended");
  const std::string stranger = tidy(part_, path_, state_is::wanted);
  if (!stranger.empty())
    refuse_and_close(fmt::format("{} holds {}, which no run wrote", part_.string(), stranger),
                     "move it away");
  if (::access(part_.c_str(), W_OK) != 0)
    refuse_and_close(part_.string() + ": " + reason_of(errno), "choose another folder");
}

void run_folder::check_old(const std::string& task, const std::vector<std::string>& names) {
  old_ = manifest_of(path_.string()).value_or(manifest());
  if (old_.task == "fit" && task != "fit")
    refuse(
        "it holds a fit, which only another fit may replace",
        fmt::format("choose another folder, --output {}-{} say", path_.filename().string(), task));
  std::vector<std::string> wanted = names;
  wanted.emplace_back(manifest_name);
  for (const std::string& name : wanted)
    if (there(path_ / name) && !old_.lists(name) && (name != manifest_name || old_.task.empty()) &&
        !(name == state_name && holds_state(path_ / name)))
      refuse(fmt::format("it holds {}, which is not in the manifest of an earlier run", name),
             "choose another folder, or move the file away");
  for (const manifest::file& f : old_.files) {
    const std::optional<std::string> bytes = read_from_disk((path_ / f.name).string());
    if (bytes && !f.sha256.empty() && sha256(*bytes) != f.sha256 &&
        !(f.name == state_name && is_saved_run(*bytes)))
      refuse(f.name + " was changed after the run that wrote it",
             "choose another folder, or move the file away");
  }
}

void run_folder::add(const std::string& name, std::string content) {
  add(name, one_piece(std::move(content)));
}

void run_folder::add(const std::string& name, text_pieces content) {
  added_.emplace_back(name, std::move(content));
}

// Enters what was added into the manifest: names first, so that a run that is killed in between
// leaves nothing that the next one does not know.
void run_folder::write_part(manifest& about) {
  std::error_code ignored;
  fs::create_directories(part_, ignored);
  const std::vector<manifest::file> others = about.files;
  for (const auto& [name, content] : added_) about.files.push_back({name, 0, ""});
  write_manifest(part_, about);
  about.files = others;
  for (const auto& [name, content] : added_)
    about.files.push_back(name == state_name ? write_state(content)
                                             : write_file(part_ / name, content));
  for (const auto& [name, content] : added_) flush_file(part_ / name);
  write_manifest(part_, about);
  flush_folder(part_);
}

manifest::file run_folder::write_state(const text_pieces& content) {
  const fs::path working = part_ / (std::string(state_name) + ".new");
  manifest::file written = write_file(working, content);
  flush_file(working);
  rename_or_fail(working, part_ / state_name);
  written.name = state_name;
  return written;
}

void run_folder::keep_state(const text_pieces& content) {
  std::error_code ignored;
  fs::create_directories(part_, ignored);
  write_state(content);
  flush_folder(part_);
}

std::optional<run_folder::leftover> run_folder::left_in(const std::string& path) {
  std::error_code failure;
  fs::path home = fs::weakly_canonical(fs::absolute(path), failure);
  if (!home.has_filename()) home = home.parent_path();
  for (const fs::path& folder : {fs::path(home.string() + ".part"), home / part_inside, home}) {
    const fs::path file = folder / state_name;
    const std::optional<std::string> content = read_from_disk(file.string());
    if (content && is_saved_run(*content)) return leftover{file, *content};
  }
  return std::nullopt;
}

void run_folder::exchange(manifest about) {
  about.files.clear();
  write_part(about);
  if (in_place_)
    exchange_in_place(about);
  else
    exchange_whole(about);
  done_ = true;
  std::error_code ignored;
  if (!about.lists(state_name) && holds_state(path_ / state_name))
    fs::remove(path_ / state_name, ignored);
  if (tidy(part_, path_, state_is::done_with).empty()) fs::remove(part_, ignored);
  flush_folder(path_.parent_path());
}

void run_folder::add_to_run(const std::string& name, const std::string& content) {
  manifest about = old_;
  std::erase_if(about.files, [&name](const manifest::file& f) { return f.name == name; });
  added_.clear();
  add(name, content);
  write_part(about);
  const std::string digest = std::exchange(about.files.back().sha256, "");
  write_manifest(path_, about);
  rename_or_fail(part_ / name, path_ / name);
  about.files.back().sha256 = digest;
  write_manifest(path_, about);
}

// The state of a run that has ended leaves with the results before it. Until these two have changed
// places it stands among them, where the run can still be taken up.
void run_folder::move_state_away(const manifest& about) {
  if (about.lists(state_name)) return;
  std::error_code ignored;
  fs::rename(part_ / state_name, path_ / state_name, ignored);
}

void run_folder::exchange_whole(const manifest& about) {
  for (const std::string& name : working_names) ::unlink((part_ / name).c_str());
  if (!there(path_)) {
    if (!rename_atomically(part_, path_, rename_kind::no_replace)) rename_or_fail(part_, path_);
    return;
  }
  move_state_away(about);
  struct stat old {};
  if (::stat(path_.c_str(), &old) == 0) ::chmod(part_.c_str(), old.st_mode & 07777U);
  // A user's files are in both folders for a moment. What cannot be linked, folders among it, is
  // carried over by tidy() when the two have changed places.
  for (const fs::path& name : entries_of(path_)) {
    if (name == manifest_name || old_.lists(name.string())) continue;
    if (name == state_name && holds_state(path_ / name)) continue;
    ::linkat(AT_FDCWD, (path_ / name).c_str(), AT_FDCWD, (part_ / name).c_str(), 0);
  }
  if (rename_atomically(part_, path_, rename_kind::exchange)) return;
  const int why = errno;
  if (why != EINVAL && why != ENOSYS) fail(path_, reason_of(why));
  // A file system that cannot exchange: for a moment the folder stands under a third name.
  const fs::path aside = path_.string() + ".old";
  rename_or_fail(path_, aside);
  rename_or_fail(part_, path_);
  rename_or_fail(aside, part_);
}

void run_folder::exchange_in_place(const manifest& about) {
  manifest between = about;
  for (manifest::file& f : between.files) f.sha256.clear();
  for (const manifest::file& f : old_.files)
    if (!between.lists(f.name)) between.files.push_back({f.name, f.size, ""});
  write_manifest(path_, between);
  for (const auto& [name, content] : added_) rename_or_fail(part_ / name, path_ / name);
  std::error_code ignored;
  for (const manifest::file& f : old_.files)
    if (!about.lists(f.name)) fs::remove(path_ / f.name, ignored);
  write_manifest(path_, about);
}

}  // namespace varda
