// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/decorrelation.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <array>
#include <cmath>
#include <utility>
#include <vector>

#include "varda/model/lanes/array.h"

namespace varda {

namespace {

// Blocks of so many observations where the rank is low: long enough for products of matrices, short
// enough for the triangles on the diagonal to take less than these.
constexpr Eigen::Index observations_of_block = 16;
// Beyond so many columns for each observation a factor of low rank saves nothing.
constexpr double largest_rank = 0.25;

// U with U U' + diagonal(left) = f' f but for off-diagonal terms whose matrix has no eigenvalue
// above the tolerance, by a Cholesky factorisation with pivots that stops when `left`, to begin
// with the diagonal of f' f, sums to less than that or than rounding leaves. False if that takes
// more than `most` columns.
bool compress(const Eigen::MatrixXd& f, double tolerance, Eigen::Index most, Eigen::MatrixXd& u,
              Eigen::VectorXd& left) {
  constexpr double rounding = 1e-13;
  const double enough = std::max(tolerance, rounding * left.sum());
  u.resize(f.cols(), std::min<Eigen::Index>(most, 32));
  for (Eigen::Index r = 0;; ++r) {
    Eigen::Index pivot = 0;
    const double largest = left.maxCoeff(&pivot);
    if (left.sum() <= enough) {
      u.conservativeResize(Eigen::NoChange, r);
      return true;
    }
    if (r == most) return false;
    if (r == u.cols()) u.conservativeResize(Eigen::NoChange, std::min(most, 2 * r));
    auto next = u.col(r);
    next.noalias() = f.transpose() * f.col(pivot);
    next.noalias() -= u.leftCols(r) * u.row(pivot).head(r).transpose();
    next /= std::sqrt(largest);
    left = (left - next.cwiseAbs2()).cwiseMax(0.0);
    left(pivot) = 0.0;
  }
}

constexpr std::size_t tile_rows = product_tile::rows;
using panel_row = Eigen::Map<Eigen::Array<double, lane_quantum, 1>>;

// A matrix whose products with a panel of lane_quantum columns are wanted: tile_rows of its rows
// together, column by column; rows that are missing from the last tile are 0.
class tiles {
 public:
  explicit tiles(const Eigen::MatrixXd& from)
      : columns_(static_cast<std::size_t>(from.cols())),
        count_((static_cast<std::size_t>(from.rows()) + tile_rows - 1) / tile_rows),
        values_(count_ * columns_ * tile_rows + 1) {
    for (Eigen::Index k = 0; k < from.cols(); ++k)
      for (Eigen::Index i = 0; i < from.rows(); ++i) {
        const auto row = static_cast<std::size_t>(i);
        values_[(row / tile_rows * columns_ + static_cast<std::size_t>(k)) * tile_rows +
                row % tile_rows] = from(i, k);
      }
  }

  std::size_t count() const { return count_; }
  // Of the panel b with the first `inner` columns of one tile; the panels have a row of
  // lane_quantum numbers for each of theirs, c for whole tiles.
  void add_product(std::size_t tile, std::size_t inner, const double* b, double* c,
                   const lane_kernel& with) const {
    with.add_products({c + tile * tile_rows * lane_quantum, lane_quantum,
                       values_.data() + tile * columns_ * tile_rows, tile_rows, b},
                      inner);
  }
  void add_product(const double* b, double* c, const lane_kernel& with) const {
    for (std::size_t t = 0; t < count_; ++t) add_product(t, columns_, b, c, with);
  }

 private:
  std::size_t columns_;
  std::size_t count_;
  lane_array values_;
};

// A lower triangular matrix by which panels are divided.
class triangle {
 public:
  explicit triangle(const Eigen::MatrixXd& factor)
      : n_(static_cast<std::size_t>(factor.rows())), minus_(-factor) {
    for (std::size_t r = 0; r < n_; ++r) {
      std::array<double, tile_rows>& row = near_.emplace_back();
      const auto i = static_cast<Eigen::Index>(r);
      for (Eigen::Index k = i / lines * lines; k < i; ++k)
        row[static_cast<std::size_t>(k % lines)] = factor(i, k);
      row[r % tile_rows] = 1.0 / factor(i, i);
    }
  }

  // x becomes factor^-1 x.
  void solve(double* x, const lane_kernel& with) const {
    for (std::size_t t = 0; t < minus_.count(); ++t) {
      const std::size_t first = t * tile_rows;
      minus_.add_product(t, first, x, x, with);
      for (std::size_t r = first; r < std::min(first + tile_rows, n_); ++r) {
        const std::array<double, tile_rows>& row = near_[r];
        panel_row own(x + r * lane_quantum);
        for (std::size_t k = first; k < r; ++k)
          own -= row[k - first] * panel_row(x + k * lane_quantum);
        own *= row[r - first];
      }
    }
  }

 private:
  static constexpr auto lines = static_cast<Eigen::Index>(tile_rows);
  std::size_t n_;
  tiles minus_;
  // Of each row the entries in the tile on the diagonal, that on the diagonal inverted.
  std::vector<std::array<double, tile_rows>> near_;
};

}  // namespace

std::optional<decorrelation> decorrelation::of(Eigen::MatrixXd means,
                                               const Eigen::VectorXd& variances, double tolerance) {
  const Eigen::Index n = means.cols();
  if (!(variances.array() > 0.0).all() || !variances.allFinite()) return std::nullopt;
  decorrelation result;
  result.means_ = means.colwise().mean().transpose();
  result.scales_ = variances.cwiseSqrt();
  const double divisor = std::sqrt(static_cast<double>(means.rows() - 1));
  for (Eigen::Index j = 0; j < n; ++j)
    means.col(j) = (means.col(j).array() - result.means_(j)) / (divisor * result.scales_(j));

  Eigen::VectorXd own = means.colwise().squaredNorm();
  if (!own.allFinite()) return std::nullopt;
  const auto most = static_cast<Eigen::Index>(largest_rank * static_cast<double>(n));
  Eigen::MatrixXd dense;
  if (n > observations_of_block && compress(means, tolerance, most, result.loadings_, own)) {
    result.block_ = observations_of_block;
    // No matrix is without entries.
    if (result.loadings_.cols() == 0) result.loadings_.setZero(n, 1);
  } else {
    result.block_ = n;
    result.loadings_.resize(n, 0);
    own.setZero(n);
    dense.setZero(n, n);
    dense.selfadjointView<Eigen::Lower>().rankUpdate(means.transpose());
  }
  own.array() += 1.0;

  const Eigen::Index rank = result.loadings_.cols();
  result.gains_.resize(n, rank);
  // Covariance of the factors given the blocks before.
  Eigen::MatrixXd unknown = Eigen::MatrixXd::Identity(rank, rank);
  for (Eigen::Index first = 0; first < n; first += result.block_) {
    const Eigen::Index size = std::min(result.block_, n - first);
    const auto loadings = result.loadings_.middleRows(first, size);
    const Eigen::MatrixXd shared = loadings * unknown;
    Eigen::MatrixXd covariance =
        dense.size() > 0 ? dense : Eigen::MatrixXd(shared * loadings.transpose());
    covariance.diagonal() += own.segment(first, size);
    const Eigen::LLT<Eigen::MatrixXd> llt(covariance);
    if (llt.info() != Eigen::Success) return std::nullopt;
    result.diagonal_.emplace_back(llt.matrixL());
    if (rank == 0) continue;
    auto gains = result.gains_.middleRows(first, size);
    gains = llt.matrixL().solve(shared);
    unknown.noalias() -= gains.transpose() * gains;
  }
  return result;
}

void decorrelation::apply(Eigen::MatrixXd& y, const lane_kernel& with) const {
  struct block {
    std::size_t rows;
    triangle own;
    tiles minus_loadings;
    tiles gains;
  };
  const Eigen::Index n = y.cols();
  const Eigen::Index rank = loadings_.cols();
  std::vector<block> blocks;
  for (const Eigen::MatrixXd& own : diagonal_) {
    const Eigen::Index first = static_cast<Eigen::Index>(blocks.size()) * block_;
    blocks.push_back({static_cast<std::size_t>(own.rows()), triangle(own),
                      tiles(-loadings_.middleRows(first, own.rows())),
                      tiles(gains_.middleRows(first, own.rows()).transpose())});
  }
  const Eigen::VectorXd per_scale = scales_.cwiseInverse();
  lane_array x((static_cast<std::size_t>(n) + tile_rows) * lane_quantum);
  lane_array state;
  constexpr auto lanes = static_cast<Eigen::Index>(lane_quantum);
  for (Eigen::Index first = 0; first < y.rows(); first += lanes) {
    const Eigen::Index count = std::min(lanes, y.rows() - first);
    for (Eigen::Index j = 0; j < n; ++j) {
      panel_row to(x.data() + j * lanes);
      if (count == lanes)
        to = (panel_row(&y(first, j)) - means_(j)) * per_scale(j);
      else
        to.head(count) = (y.col(j).segment(first, count).array() - means_(j)) * per_scale(j);
    }
    state.fill((static_cast<std::size_t>(rank) + tile_rows) * lane_quantum, 0.0);
    double* own = x.data();
    for (const block& at : blocks) {
      at.minus_loadings.add_product(state.data(), own, with);
      at.own.solve(own, with);
      at.gains.add_product(own, state.data(), with);
      own += at.rows * lane_quantum;
    }
    for (Eigen::Index j = 0; j < n; ++j) std::copy_n(x.data() + j * lanes, count, &y(first, j));
  }
}

decorrelation::sequence::sequence(const decorrelation& of)
    : of_(of),
      known_(Eigen::VectorXd::Zero(of.block_)),
      state_(Eigen::VectorXd::Zero(of.loadings_.cols())) {}

double decorrelation::sequence::expected() const {
  const Eigen::Index j = next_ % of_.block_;
  const auto row = of_.diagonal_[static_cast<std::size_t>(next_ / of_.block_)].row(j).head(j);
  double scaled = row.dot(known_.head(j));
  if (state_.size() > 0) scaled += of_.loadings_.row(next_).dot(state_);
  return of_.means_(next_) + of_.scales_(next_) * scaled;
}

double decorrelation::sequence::deviation() const {
  const Eigen::Index j = next_ % of_.block_;
  return of_.scales_(next_) * of_.diagonal_[static_cast<std::size_t>(next_ / of_.block_)](j, j);
}

void decorrelation::sequence::append(double decorrelated) {
  const Eigen::Index j = next_ % of_.block_;
  known_(j) = decorrelated;
  if (++next_ % of_.block_ == 0 && state_.size() > 0)
    state_.noalias() += of_.gains_.middleRows(next_ - of_.block_, of_.block_).transpose() * known_;
}

}  // namespace varda
