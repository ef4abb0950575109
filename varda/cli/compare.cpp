// SPDX-License-Identifier: Apache-2.0
#include "varda/cli/compare.h"

#include <fmt/format.h>

#include <utility>

#include "varda/report/comparison_report.h"

namespace varda {

exit_status compare_runs(const compare_request& request, const job& peers) {
  // Every process reads, so that a refusal is that of all.
  std::vector<stored_fit> runs;
  for (const std::string& folder : request.folders) runs.push_back(read_stored_fit(folder));
  const comparison found = compare(std::move(runs), request.nested);
  if (peers.is_root())
    fmt::print("{}", request.json ? comparison_json(found) : comparison_text(found));
  return exit_status::sound;
}

}  // namespace varda
