// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/decorrelation.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cstddef>
#include <vector>

#include "varda/model/lanes/array.h"

namespace varda {

namespace {

constexpr std::size_t tile_rows = product_tile::rows;

// The rows of a matrix in panels of lane_quantum, a panel column by column; rows that are missing
// from the last panel are 0.
class panels {
 public:
  explicit panels(const Eigen::MatrixXd& from)
      : columns_(static_cast<std::size_t>(from.cols())),
        count_(whole_lanes(static_cast<std::size_t>(from.rows())) / lane_quantum),
        values_(count_ * columns_ * lane_quantum) {
    for (std::size_t k = 0; k < columns_; ++k)
      for (Eigen::Index i = 0; i < from.rows(); ++i)
        *at(static_cast<std::size_t>(i), k) = from(i, static_cast<Eigen::Index>(k));
  }

  std::size_t count() const { return count_; }
  double* panel(std::size_t p) { return values_.data() + p * columns_ * lane_quantum; }
  double* at(std::size_t row, std::size_t column) {
    return panel(row / lane_quantum) + column * lane_quantum + row % lane_quantum;
  }

 private:
  std::size_t columns_;
  std::size_t count_;
  lane_array values_;
};

// The lower triangle of y y' / (K - 1), in the panels that it lies in.
Eigen::MatrixXd covariance_of(const Eigen::MatrixXd& y, const lane_kernel& with) {
  panels rows(y);
  const auto simulations = static_cast<std::size_t>(y.cols());
  Eigen::MatrixXd result = Eigen::MatrixXd::Zero(y.rows(), y.rows());
  lane_array sums(lane_quantum * lane_quantum);
  for (std::size_t p = 0; p < rows.count(); ++p)
    for (std::size_t q = 0; q <= p; ++q) {
      sums.fill(lane_quantum * lane_quantum, 0.0);
      for (std::size_t r = 0; r < lane_quantum; r += tile_rows)
        with.add_products({sums.data() + r * lane_quantum, lane_quantum, rows.panel(p) + r,
                           lane_quantum, rows.panel(q)},
                          simulations);
      const auto first = static_cast<Eigen::Index>(p * lane_quantum);
      const auto other = static_cast<Eigen::Index>(q * lane_quantum);
      for (Eigen::Index i = first; i < std::min<Eigen::Index>(first + lane_quantum, y.rows()); ++i)
        for (Eigen::Index j = other; j <= std::min<Eigen::Index>(other + lane_quantum - 1, i); ++j)
          result(i, j) = sums[static_cast<std::size_t>(i - first) * lane_quantum +
                              static_cast<std::size_t>(j - other)];
    }
  return result / static_cast<double>(y.cols() - 1);
}

// Minus the rows of a triangular factor left of the diagonal's tile, tile_rows of them together.
std::vector<lane_array> negative_rows(const Eigen::MatrixXd& factor) {
  std::vector<lane_array> result;
  const auto n = static_cast<std::size_t>(factor.rows());
  for (std::size_t first = 0; first < n; first += tile_rows) {
    lane_array& rows = result.emplace_back(first * tile_rows + 1);
    for (std::size_t k = 0; k < first; ++k)
      for (std::size_t r = first; r < std::min(first + tile_rows, n); ++r)
        rows[k * tile_rows + r - first] =
            -factor(static_cast<Eigen::Index>(r), static_cast<Eigen::Index>(k));
  }
  return result;
}

// factor^-1 of one panel of columns of y: `x` has a row of lane_quantum for each row of the factor
// and tile_rows more.
void solve_panel(const Eigen::MatrixXd& factor, const std::vector<lane_array>& left, double* x,
                 const lane_kernel& with) {
  const auto n = static_cast<std::size_t>(factor.rows());
  for (std::size_t first = 0; first < n; first += tile_rows) {
    with.add_products(
        {x + first * lane_quantum, lane_quantum, left[first / tile_rows].data(), tile_rows, x},
        first);
    for (std::size_t r = first; r < std::min(first + tile_rows, n); ++r) {
      double* const own = x + r * lane_quantum;
      const auto row = factor.row(static_cast<Eigen::Index>(r));
      for (std::size_t k = first; k < r; ++k)
        for (std::size_t j = 0; j < lane_quantum; ++j)
          own[j] -= row(static_cast<Eigen::Index>(k)) * x[k * lane_quantum + j];
      for (std::size_t j = 0; j < lane_quantum; ++j) own[j] /= row(static_cast<Eigen::Index>(r));
    }
  }
}

}  // namespace

bool decorrelate(Eigen::MatrixXd& y, Eigen::MatrixXd& factor, const lane_kernel& with) {
  const Eigen::LLT<Eigen::MatrixXd> llt(covariance_of(y, with));
  if (llt.info() != Eigen::Success) return false;
  factor = llt.matrixL();
  const std::vector<lane_array> left = negative_rows(factor);
  const Eigen::Index n = y.rows();
  lane_array x((static_cast<std::size_t>(n) + tile_rows) * lane_quantum);
  for (Eigen::Index first = 0; first < y.cols(); first += lane_quantum) {
    const Eigen::Index count = std::min<Eigen::Index>(lane_quantum, y.cols() - first);
    for (Eigen::Index j = 0; j < count; ++j)
      for (Eigen::Index i = 0; i < n; ++i)
        x[static_cast<std::size_t>(i * static_cast<Eigen::Index>(lane_quantum) + j)] =
            y(i, first + j);
    solve_panel(factor, left, x.data(), with);
    for (Eigen::Index j = 0; j < count; ++j)
      for (Eigen::Index i = 0; i < n; ++i)
        y(i, first + j) =
            x[static_cast<std::size_t>(i * static_cast<Eigen::Index>(lane_quantum) + j)];
  }
  return true;
}

}  // namespace varda
