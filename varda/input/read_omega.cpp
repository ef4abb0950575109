// SPDX-License-Identifier: Apache-2.0
#include "varda/input/model_file_parts.h"

#include <fmt/format.h>

#include <Eigen/Cholesky>
#include <algorithm>
#include <set>

#include "varda/support/text.h"

namespace varda {

namespace {

bool positive_definite(const std::vector<double>& matrix, std::size_t order) {
  const auto n = static_cast<Eigen::Index>(order);
  const Eigen::Map<const Eigen::MatrixXd> m(matrix.data(), n, n);
  return Eigen::LLT<Eigen::MatrixXd>(m).info() == Eigen::Success;
}

omega_block read_variance(section& from, const std::string& name) {
  omega_block block;
  block.names = {name};
  const double variance =
      from.fixable_number(name, "variance", "the variance of a random effect", block.fixed);
  if (!(variance > 0.0))
    throw from.error("E-MODEL-OMEGA", name, fmt::format("the variance {} is not above 0", variance),
                     "give a positive variance, or distribution = \"none\" for no random effect");
  block.matrix = {variance};
  return block;
}

// Rows of the lower triangle, or of the whole symmetric matrix.
omega_block read_block(section from) {
  omega_block block;
  block.names = from.texts("parameters");
  block.fixed = from.flag_or("fixed", false);
  const auto rows = from.rows("matrix");
  const std::size_t order = block.names.size();
  const auto wrong = [&](const std::string& message) {
    return from.error("E-MODEL-OMEGA", "matrix", message,
                      "write the rows of the lower triangle, [[0.3], [0.01, 0.2]]");
  };
  if (rows.size() != order)
    throw wrong(fmt::format("the block has {} for {}", count_of(std::ssize(rows), "row"),
                            count_of(std::ssize(block.names), "parameter")));
  block.matrix.assign(order * order, 0.0);
  for (std::size_t i = 0; i < order; ++i) {
    if (rows[i].size() != i + 1 && rows[i].size() != order)
      throw wrong(fmt::format("row {} of the block has {}", i + 1,
                              count_of(std::ssize(rows[i]), "entry", "entries")));
    for (std::size_t j = 0; j <= i; ++j)
      block.matrix[i + j * order] = block.matrix[j + i * order] = rows[i][j];
  }
  for (std::size_t i = 0; i < order; ++i)
    for (std::size_t j = i + 1; j < rows[i].size(); ++j)
      if (rows[i][j] != block.matrix[i + j * order]) throw wrong("the block is not symmetric");
  if (!positive_definite(block.matrix, order))
    throw wrong(
        fmt::format("the block of {} is not positive definite", fmt::join(block.names, ", ")));
  from.refuse_leftovers();
  return block;
}

void check_omega_names(const section& from, const omega_block& block,
                       const model_specification& file, std::set<std::string>& seen) {
  std::vector<std::string> random;
  for (const parameter& p : file.parameters)
    if (p.law != distribution::none) random.push_back(p.name);
  for (const std::string& name : block.names) {
    const std::string key = block.names.size() == 1 ? name : "blocks";
    if (std::find(random.begin(), random.end(), name) == random.end()) {
      const std::string near = did_you_mean(name, random);
      throw from.error(
          "E-MODEL-OMEGA", key, fmt::format("{} has no random effect", name),
          near.empty() ? "random effects belong to " + fmt::format("{}", fmt::join(random, ", "))
                       : "did you mean " + near + "?");
    }
    if (!seen.insert(name).second)
      throw from.error("E-MODEL-OMEGA", key, fmt::format("{} stands in omega twice", name),
                       "leave it in one place");
  }
}

// Blocks in the order of the parameters that they begin with. `every_effect`: no parameter with a
// random effect may be left out.
std::vector<omega_block> read_blocks(section from, const model_specification& file,
                                     bool every_effect) {
  std::set<std::string> seen;
  std::vector<omega_block> blocks;
  for (const std::string& key : from.keys()) {
    if (key == "blocks" || (every_effect && key == "occasion")) continue;
    blocks.push_back({{key}, {}, false});
    check_omega_names(from, blocks.back(), file, seen);
    blocks.back() = read_variance(from, key);
  }
  for (const section& block : from.tables("blocks")) {
    blocks.push_back(read_block(block));
    check_omega_names(from, blocks.back(), file, seen);
  }
  std::vector<omega_block> ordered;
  for (const parameter& p : file.parameters) {
    if (p.law == distribution::none) continue;
    if (every_effect && !seen.contains(p.name))
      throw from.error("E-MODEL-OMEGA", p.name,
                       fmt::format("the variance of {}'s random effect is missing", p.name),
                       "give a variance, or distribution = \"none\" for no random effect");
    for (omega_block& block : blocks)
      if (block.names.front() == p.name) ordered.push_back(block);
  }
  return ordered;
}

}  // namespace

void read_omega(section from, model_specification& file) {
  file.omega = read_blocks(from, file, true);
  if (const auto occasion = from.table("occasion"))
    file.occasion_omega = read_blocks(*occasion, file, false);
  file.data.occasions = !file.occasion_omega.empty();
}

}  // namespace varda
