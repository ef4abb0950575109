// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "varda/cli/run.h"
#include "varda/host/job.h"
#include "varda/support/finding.h"

namespace varda {

// The root works; the others learn whether it was refused.
template <class Work>
exit_status at_root(const job& peers, Work work) {
  std::optional<bad_input> refusal;
  if (peers.is_root()) {
    try {
      work();
    } catch (const bad_input& error) {
      refusal = error;
    }
  }
  const bool refused = peers.any(refusal.has_value());
  if (refusal) throw *refusal;
  return refused ? exit_status::unusable_input : exit_status::sound;
}

}  // namespace varda
