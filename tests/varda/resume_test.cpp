// SPDX-License-Identifier: Apache-2.0
//
// A fit that was killed or stopped and is taken up again: every byte of its reports is that of the
// fit that nobody disturbed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support/fake_host.h"
#include "tests/varda/theophylline.h"
#include "varda/cli/checkpoint.h"
#include "varda/host/engine_host.h"
#include "varda/report/matrix_tables.h"
#include "varda/report/reports.h"
#include "varda/support/archive.h"
#include "varda/support/finding.h"
#include "varda/support/stop.h"

namespace varda {
namespace {

namespace fs = std::filesystem;

// Two starts, and a quadrature beside.
population_model by_newton() {
  return test::theophylline([](model_specification& file) {
    file.estimation.starts = 2;
    file.estimation.npde_samples = 60;
    file.estimation.likelihood = likelihood_kind::agq;
    file.estimation.agq_nodes = 3;
    file.estimation.likelihood_samples = 128;
  });
}

text_pieces file_of(const saved_run::identity& of, const std::string& body) {
  return saved_run_text(of, [body](std::ostream& to) { to << body; });
}

// An update without a formula, whose choices of points have to be kept.
population_model by_em() {
  return test::theophylline([](model_specification& file) {
    file.estimation.method = method_kind::em;
    file.estimation.samples = 64;
    file.estimation.resamples = 30;
    file.estimation.max_iterations = 14;
    file.estimation.npde_samples = 60;
    file.endpoints.front().residual = {error_kind::combined, 0.5, 0.2, false, false};
  });
}

std::map<std::string, std::string> reports(const population_model& model,
                                           const fit_result& result) {
  std::map<std::string, std::string> files = {{"json", whole(json_report(model, result))},
                                              {"estimates", estimates_csv(model, result)},
                                              {"iterations", iterations_csv(model, result)},
                                              {"subjects", whole(subjects_csv(model, result))},
                                              {"rows", whole(rows_csv(model, result))},
                                              {"ext", ext_table(model, result)},
                                              {"phi", whole(phi_table(model, result))}};
  if (!result.errors.chosen().empty()) files["cov"] = cov_table(model, result);
  const std::string page = summary(model, result);
  files["page"] = page.substr(0, page.find("\nTime: "));
  return files;
}

// Keeps every state, as bytes and as a whole.
class every_state : public fit_listener {
 public:
  bool reached() override { return true; }
  void keep(fit_state& state, bool stopped) override {
    std::ostringstream out;
    archive_writer to(out);
    to(state);
    written.push_back(out.str());
    stages.insert(state.next);
    stopped_at = stopped ? std::optional(state.next) : std::nullopt;
  }
  std::vector<std::string> written;
  std::set<fit_stage> stages;
  std::optional<fit_stage> stopped_at;
};

fit_state state_in(const std::string& bytes) {
  std::istringstream in(bytes);
  archive_reader from(in);
  fit_state state;
  from(state);
  return state;
}

fit_result go_on(const population_model& model, fit_listener& listener, fit_state from = {}) {
  const job alone(nullptr, nullptr);
  const test::captured_unit swallowed;
  engine_host host(model, alone);
  return fit(host, no_progress, listener, std::move(from));
}

class Resume : public testing::TestWithParam<const char*> {
 protected:
  static population_model model() {
    return std::string(GetParam()) == "newton" ? by_newton() : by_em();
  }
};

TEST_P(Resume, FromEveryStateTheBytesAreThoseOfAnUndisturbedFit) {
  const population_model model = Resume::model();
  every_state all;
  const auto whole = reports(model, go_on(model, all));
  EXPECT_EQ(all.stages.size(), 5U);
  ASSERT_GT(all.written.size(), 10U);
  const std::size_t every = all.written.size() / 12 + 1;
  for (std::size_t k = 0; k < all.written.size();
       k += k + every < all.written.size() && k + 4 < all.written.size() ? every : 1) {
    every_state later;
    const auto resumed = reports(model, go_on(model, later, state_in(all.written[k])));
    for (const auto& [name, text] : whole) EXPECT_EQ(resumed.at(name), text) << k << " " << name;
    EXPECT_EQ(later.written.size(), all.written.size() - k - 1) << "steps were repeated";
  }
}

// Kept in a folder by a process that is killed when it has kept so many states.
TEST_P(Resume, AKilledProcessLeavesAStateInItsFolder) {
  const population_model model = Resume::model();
  every_state all;
  const auto whole = reports(model, go_on(model, all));
  const fs::path out = fs::current_path() / ("killed-" + std::string(GetParam()));
  const saved_run::identity of = {{"version of varda", "of the test"}};
  for (std::size_t kept = 1; kept < all.written.size(); kept += all.written.size() / 4) {
    fs::remove_all(out.string() + ".part");
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      class until_killed final : public every_state {
       public:
        until_killed(const fs::path& path, saved_run::identity of, std::size_t most)
            : folder_(path.string(), "fit", {}), of_(std::move(of)), most_(most) {}
        void keep(fit_state& state, bool stopped) override {
          every_state::keep(state, stopped);
          folder_.keep_state(file_of(of_, written.back()));
          if (written.size() == most_) std::raise(SIGKILL);
        }

       private:
        run_folder folder_;
        saved_run::identity of_;
        std::size_t most_;
      } listener(out, of, kept);
      go_on(model, listener);
      std::_Exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    const auto left = run_folder::left_in(out.string());
    ASSERT_TRUE(left);
    every_state later;
    const auto resumed =
        reports(model, go_on(model, later, state_in(read_saved_run(left->content).body)));
    for (const auto& [name, text] : whole) EXPECT_EQ(resumed.at(name), text) << kept << name;
  }
  fs::remove_all(out.string() + ".part");
}

// Wherever a stop comes, nothing is shown that it left unfinished, and the fit goes on from there.
TEST_P(Resume, AfterAStopAtAnyMoment) {
  const population_model model = Resume::model();
  every_state undisturbed;
  const auto begin = std::chrono::steady_clock::now();
  const auto whole = reports(model, go_on(model, undisturbed));
  const auto took = std::chrono::steady_clock::now() - begin;
  constexpr int stops = 12;
  int stopped = 0;
  for (int k = 0; k < stops; ++k) {
    every_state listener;
    std::atomic<bool> over = false;
    std::thread interrupter([&] {
      std::this_thread::sleep_for(took * (2 * k + 1) / (2 * stops));
      if (!over) request_stop();
    });
    const fit_result result = go_on(model, listener);
    over = true;
    interrupter.join();
    if (!listener.stopped_at) continue;
    ++stopped;
    EXPECT_FALSE(result.converged);
    EXPECT_THAT(result.reason, testing::HasSubstr("stopped on request"));
    EXPECT_TRUE(result.theta.allFinite());
    if (result.likelihood.complete) {
      EXPECT_GT(result.likelihood.minus2ll, 300.0);
    }
    for (const iteration_record& r : result.iterations) EXPECT_TRUE(std::isfinite(r.minus2ll));
    EXPECT_FALSE(summary(model, result).empty());
    reports(model, result);
    every_state later;
    const auto resumed = reports(model, go_on(model, later, state_in(listener.written.back())));
    for (const auto& [name, text] : whole) EXPECT_EQ(resumed.at(name), text) << k << " " << name;
  }
  EXPECT_GT(stopped, stops / 3);
}

INSTANTIATE_TEST_SUITE_P(Methods, Resume, testing::Values("newton", "em"),
                         [](const auto& method) { return std::string(method.param); });

TEST(SavedRun, TellsWhatDiffersAndWhatIsDamaged) {
  const saved_run::identity one = {{"seed", "1"}, {"data file", std::string(64, 'a')}};
  const std::string text = whole(file_of(one, std::string("body\0of bytes", 13)));
  EXPECT_EQ(read_saved_run(text).of, one);
  EXPECT_EQ(read_saved_run(text).body.size(), 13U);
  for (std::size_t at = 0; at < text.size(); ++at) {
    std::string damaged = text;
    damaged[at] = static_cast<char>(damaged[at] ^ 4);
    EXPECT_THROW(read_saved_run(damaged), std::runtime_error) << at;
    EXPECT_THROW(read_saved_run(text.substr(0, at)), std::runtime_error) << at;
  }
  EXPECT_TRUE(differences(one, one).empty());
  EXPECT_THAT(differences(one, {{"seed", "2"}, {"data file", std::string(64, 'b')}}),
              testing::ElementsAre("seed (1 there, 2 here)",
                                   "data file (aaaaaaaaaaaa there, bbbbbbbbbbbb here)"));
  EXPECT_EQ(differences(one, {{"seed", "1"}}).size(), 1U);
  EXPECT_EQ(differences({}, one).size(), 2U);
}

}  // namespace
}  // namespace varda
