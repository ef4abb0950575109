// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "varda/folder/manifest.h"
#include "varda/folder/run_folder.h"
#include "varda/folder/saved_run.h"
#include "varda/folder/stored_fit.h"
#include "varda/host/job.h"
#include "varda/run/fit_state.h"

namespace varda {

// What is kept of a fit beside its state: where its start values are from, and what its end prints.
struct fit_session {
  std::string from;  // folder of another fit, or empty
  std::vector<std::pair<std::string, double>> from_estimates;
  std::string records;   // the library's
  double seconds = 0.0;  // of the sessions before this one
  int sessions = 0;      // before this one

  template <class A>
  void visit(A& archive) {
    archive(from, from_estimates, records, seconds, sessions);
  }
};

struct saved_fit {
  saved_run::identity of;
  fit_session session;
  fit_state state;
};

// What has to be the same when a fit is taken up: all that its results follow from.
saved_run::identity identity_of(const manifest& origin);

// The unfinished fit that a folder holds. Throws bad_input where there is none, where its file is
// damaged or from another version of varda. Collective.
saved_fit take_up(const std::string& output, const job& peers);

// Throws bad_input with what differs, where the fit is not the one that would be begun here.
void check_same(const saved_fit& saved, const manifest& origin, const std::string& output);

// Looks at what a run that begins anew finds in its folder: throws bad_input where it is this very
// fit, unfinished, or where the run is none; otherwise a remark on what is given up, or nothing.
std::string check_leftover(const std::string& output, const manifest& origin);

// Keeps the states of a fit in its folder, so many seconds apart. A disk that is full costs the
// state and not the fit.
class checkpointer final : public fit_listener {
 public:
  // `folder`: null but on the root; it and `records`, the library's so far, outlive this.
  checkpointer(run_folder* folder, const job& peers, int every, saved_run::identity of,
               fit_session session, const std::string& records);

  bool reached() override;
  void keep(fit_state& state, bool stopped) override;

  // The state after a stop, as the bytes of a file; empty where there was none.
  const std::string& at_stop() const { return at_stop_; }

 private:
  using clock = std::chrono::steady_clock;
  run_folder* folder_;
  const job& peers_;
  std::chrono::seconds every_;
  saved_run::identity of_;
  fit_session session_;
  const std::string& records_;
  std::size_t records_reached_ = 0;
  clock::time_point began_ = clock::now();
  clock::time_point kept_ = began_;
  bool told_ = false;
  std::string at_stop_;
};

}  // namespace varda
