// SPDX-License-Identifier: Apache-2.0
//
// The folder of a run: what may be replaced, what stays, and that no kill splits an exchange.
#include "varda/folder/run_folder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>

#include "varda/support/digest.h"
#include "varda/support/files.h"
#include "varda/support/finding.h"
#include "varda/support/text.h"

namespace varda {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> names = {"fit.json", "rows.csv", "fit.cov", "fit.cor"};

// An empty folder below the working folder of the test.
fs::path fresh(const std::string& name) {
  const fs::path path = fs::current_path() / name;
  fs::remove_all(path);
  fs::create_directories(path);
  return path;
}

void write(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string read(const fs::path& path) {
  return read_from_disk(path.string()).value_or("missing");
}

void run_into(const fs::path& path, const std::vector<std::string>& files,
              const std::string& content, const std::string& task = "fit") {
  run_folder folder(path.string(), task, names);
  for (const std::string& name : files) folder.add(name, name + content);
  manifest about;
  about.task = task;
  folder.exchange(about);
}

std::vector<std::string> listing(const fs::path& path) {
  std::vector<std::string> result;
  for (const auto& entry : fs::directory_iterator(path)) result.push_back(entry.path().filename());
  std::sort(result.begin(), result.end());
  return result;
}

std::string refusal(const fs::path& path, const std::string& task = "fit") {
  try {
    run_folder(path.string(), task, names);
  } catch (const bad_input& error) {
    return error.what();
  }
  return "";
}

// The examples of FIPS 180-4, and lengths about the end of a block (coreutils' sha256sum).
TEST(Digest, OfKnownTexts) {
  EXPECT_EQ(sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(sha256(std::string(1000000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(sha256(std::string(55, 'x')),
            "d5e285683cd4efc02d021a5c62014694958901005d6f71e89e0989fac77e4072");
  EXPECT_EQ(sha256(std::string(64, 'x')),
            "7ce100971f64e7001e8fe5a51973ecdfe1ced42befe7ee8d5fd6219506b5393c");
  for (const std::size_t piece : {1U, 55U, 63U, 64U, 65U, 200U}) {
    sha256_of_pieces all;
    for (std::size_t done = 0; done < 1000000; done += piece)
      all.add(std::string(std::min<std::size_t>(piece, 1000000 - done), 'a'));
    EXPECT_EQ(all.digest(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0")
        << piece;
  }
}

TEST(RunFolder, ReplacesARunAsAWholeAndNothingElse) {
  const fs::path out = fresh("whole") / "out";
  run_into(out, names, "1");
  write(out / "notes.txt", "mine");
  fs::create_directory(out / "plots");
  write(out / "plots" / "a.svg", "also mine");
  fs::create_symlink("notes.txt", out / "link");
  // Without standard errors: those of the run before must not stay.
  run_into(out, {"fit.json", "rows.csv"}, "2");
  EXPECT_THAT(listing(out), testing::ElementsAre("fit.json", "link", "manifest.json", "notes.txt",
                                                 "plots", "rows.csv"));
  EXPECT_EQ(read(out / "fit.json"), "fit.json2");
  EXPECT_EQ(read(out / "notes.txt"), "mine");
  EXPECT_EQ(read(out / "plots" / "a.svg"), "also mine");
  EXPECT_THAT(listing(out.parent_path()), testing::ElementsAre("out"));
  const manifest about = manifest_of(out.string()).value();
  ASSERT_EQ(about.files.size(), 2U);
  EXPECT_EQ(about.files[1].name, "rows.csv");
  EXPECT_EQ(about.files[1].size, 9U);
  EXPECT_EQ(about.files[1].sha256, sha256("rows.csv2"));
}

TEST(RunFolder, RefusesWhatWouldCostAFile) {
  const fs::path out = fresh("refused") / "out";
  fs::create_directory(out);
  write(out / "rows.csv", "a user's");
  EXPECT_THAT(refusal(out), testing::HasSubstr("rows.csv, which is not in the manifest"));
  EXPECT_EQ(read(out / "rows.csv"), "a user's");
  fs::remove(out / "rows.csv");
  run_into(out, names, "1");
  EXPECT_THAT(refusal(out, "evaluate"), testing::HasSubstr("--output out-evaluate"));
  write(out / "rows.csv", "edited");
  EXPECT_THAT(refusal(out), testing::HasSubstr("rows.csv was changed"));
  EXPECT_THAT(listing(out.parent_path()), testing::ElementsAre("out"));

  // A folder that happens to have the working folder's name.
  fs::create_directory(out.string() + ".part");
  write(out.string() + ".part/thesis.txt", "mine");
  EXPECT_THAT(refusal(out), testing::HasSubstr("thesis.txt"));
  EXPECT_EQ(read(out.string() + ".part/thesis.txt"), "mine");
}

TEST(RunFolder, IsHeldByOneRunAtATime) {
  const fs::path out = fresh("held") / "out";
  {
    const run_folder one(out.string(), "fit", names);
    EXPECT_THAT(refusal(out), testing::HasSubstr("another run"));
  }
  EXPECT_TRUE(listing(out.parent_path()).empty());
  EXPECT_EQ(refusal(out), "");
}

TEST(RunFolder, TheWorkingDirectoryStaysTheSameFolder) {
  const fs::path here = fs::current_path();
  const fs::path out = fresh("inside");
  write(out / "model.toml", "mine");
  fs::current_path(out);
  run_into(".", names, "1");
  run_into(".", {"fit.json"}, "2");
  fs::current_path(here);
  EXPECT_THAT(listing(out), testing::ElementsAre("fit.json", "manifest.json", "model.toml"));
  EXPECT_EQ(read(out / "fit.json"), "fit.json2");
  EXPECT_EQ(read(out / "model.toml"), "mine");
}

TEST(RunFolder, SurvivesItsRemovalDuringTheRun) {
  const fs::path top = fresh("removed");
  run_into(top / "out", names, "1");
  run_folder folder((top / "out").string(), "fit", names);
  fs::remove_all(top);
  folder.add("fit.json", "whole");
  folder.exchange({});
  EXPECT_EQ(read(top / "out" / "fit.json"), "whole");
}

// A child writes one set of results after the other until it is killed: whenever that is, the
// folder holds one set and what its manifest says.
TEST(RunFolder, AKillLeavesTheResultsOfOneRun) {
  const fs::path out = fresh("killed") / "out";
  run_into(out, names, "0");
  write(out / "notes.txt", "mine");
  std::mt19937 bits(1);
  int unfinished = 0;
  for (int k = 0; k < 60; ++k) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (int n = 1;; ++n)
        run_into(out, n % 2 == 0 ? names : std::vector<std::string>{"fit.json", "rows.csv"},
                 std::string(20000, static_cast<char>('a' + n % 20)));
    }
    const timespec pause{0, static_cast<long>(1000000 + bits() % 9000000)};
    ::nanosleep(&pause, nullptr);
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended by itself";
    unfinished += fs::exists(out.string() + ".part") ? 1 : 0;

    const std::optional<manifest> about = manifest_of(out.string());
    ASSERT_TRUE(about) << k;
    const std::string mark = read(out / "fit.json").substr(8);
    for (const manifest::file& f : about->files) {
      EXPECT_EQ(sha256(read(out / f.name)), f.sha256) << f.name;
      EXPECT_EQ(read(out / f.name), f.name + mark);
    }
    EXPECT_EQ(fs::exists(out / "fit.cov"), about->lists("fit.cov"));
    EXPECT_EQ(read(out / "notes.txt"), "mine");
  }
  EXPECT_GT(unfinished, 10) << "the kills came too late to mean anything";
  run_into(out, {"fit.json"}, "last");
  EXPECT_THAT(listing(out), testing::ElementsAre("fit.json", "manifest.json", "notes.txt"));
  EXPECT_THAT(listing(out.parent_path()), testing::ElementsAre("out"));
}

TEST(Text, IsWrappedAtEightyColumns) {
  const std::string word = "abcdefghi";
  std::string line;
  for (int k = 0; k < 9; ++k) line += (k == 0 ? "" : " ") + word;
  // Eight words take 79 columns; an umlaut takes one.
  EXPECT_EQ(wrapped(line, 2).find('\n'), 79U);
  EXPECT_EQ(wrapped(line, 2).substr(79), "\n  abcdefghi");
  EXPECT_EQ(wrapped("  a  b", 4), "  a  b");
  EXPECT_EQ(wrapped(std::string(90, 'x') + " y", 1), std::string(90, 'x') + "\n y");
  EXPECT_EQ(wrapped(line.substr(0, 78) + "\xc3\xa4", 0).find('\n'), std::string::npos);
  finding f{.code = "E-X", .message = std::string(70, 'm'), .file = "data.csv", .row = 3};
  EXPECT_EQ(to_lines(f), "data.csv, row 3:\n  error E-X:\n  " + std::string(70, 'm'));
}

}  // namespace
}  // namespace varda
