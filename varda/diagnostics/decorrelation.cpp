// SPDX-License-Identifier: Apache-2.0
#include "varda/diagnostics/decorrelation.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace varda {

namespace {

// Blocks of so many observations where the rank is low: what the matrix products of a block save
// and what its own triangle takes are about even.
constexpr Eigen::Index observations_of_block = 32;
// Beyond so many columns for each observation a factor of low rank saves nothing.
constexpr double largest_rank = 0.25;

// U with U U' + diagonal(left) = f' f but for what is below the diagonal's rounding, by a Cholesky
// factorisation with pivots that stops when nothing in `left` is larger than the tolerance or than
// rounding leaves. False if that takes more than `most` columns.
bool compress(const Eigen::MatrixXd& f, Eigen::Index most, Eigen::MatrixXd& u,
              Eigen::VectorXd& left) {
  constexpr double tolerance = 1e-10;
  constexpr double rounding = 1e-13;
  left = f.colwise().squaredNorm();
  const double enough = std::max(tolerance, rounding * left.maxCoeff());
  u.resize(f.cols(), most);
  for (Eigen::Index r = 0;; ++r) {
    Eigen::Index pivot = 0;
    const double largest = left.maxCoeff(&pivot);
    if (largest <= enough) {
      u.conservativeResize(Eigen::NoChange, r);
      return true;
    }
    if (r == most) return false;
    auto next = u.col(r);
    next.noalias() = f.transpose() * f.col(pivot);
    next.noalias() -= u.leftCols(r) * u.row(pivot).head(r).transpose();
    next /= std::sqrt(largest);
    left = (left - next.cwiseAbs2()).cwiseMax(0.0);
    left(pivot) = 0.0;
  }
}

}  // namespace

std::optional<decorrelation> decorrelation::of(Eigen::MatrixXd means,
                                               const Eigen::VectorXd& variances) {
  const Eigen::Index n = means.cols();
  if (!(variances.array() > 0.0).all()) return std::nullopt;
  decorrelation result;
  result.means_ = means.colwise().mean().transpose();
  result.scales_ = variances.cwiseSqrt();
  const double divisor = std::sqrt(static_cast<double>(means.rows() - 1));
  for (Eigen::Index j = 0; j < n; ++j)
    means.col(j) = (means.col(j).array() - result.means_(j)) / (divisor * result.scales_(j));

  Eigen::VectorXd own;
  const auto most = static_cast<Eigen::Index>(largest_rank * static_cast<double>(n));
  Eigen::MatrixXd dense;
  if (n > observations_of_block && compress(means, most, result.loadings_, own)) {
    result.block_ = observations_of_block;
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
    Eigen::MatrixXd covariance = rank > 0 ? Eigen::MatrixXd(shared * loadings.transpose()) : dense;
    covariance.diagonal() += own.segment(first, size);
    const Eigen::LLT<Eigen::MatrixXd> llt(covariance);
    if (llt.info() != Eigen::Success) return std::nullopt;
    result.diagonal_.emplace_back(llt.matrixL());
    auto gains = result.gains_.middleRows(first, size);
    gains = llt.matrixL().solve(shared);
    unknown.noalias() -= gains.transpose() * gains;
  }
  return result;
}

void decorrelation::apply(Eigen::MatrixXd& y) const {
  const Eigen::Index n = y.cols();
  for (Eigen::Index j = 0; j < n; ++j) y.col(j) = (y.col(j).array() - means_(j)) / scales_(j);
  Eigen::MatrixXd state = Eigen::MatrixXd::Zero(y.rows(), loadings_.cols());
  for (Eigen::Index first = 0, k = 0; first < n; first += block_, ++k) {
    const Eigen::MatrixXd& own = diagonal_[static_cast<std::size_t>(k)];
    auto of_block = y.middleCols(first, own.rows());
    if (first > 0)
      of_block.noalias() -= state * loadings_.middleRows(first, own.rows()).transpose();
    own.transpose().triangularView<Eigen::Upper>().solveInPlace<Eigen::OnTheRight>(of_block);
    if (first + own.rows() < n) state.noalias() += of_block * gains_.middleRows(first, own.rows());
  }
}

decorrelation::sequence::sequence(const decorrelation& of)
    : of_(of),
      known_(Eigen::VectorXd::Zero(of.block_)),
      state_(Eigen::VectorXd::Zero(of.loadings_.cols())) {}

double decorrelation::sequence::expected() const {
  const Eigen::Index j = next_ % of_.block_;
  const auto row = of_.diagonal_[static_cast<std::size_t>(next_ / of_.block_)].row(j).head(j);
  const double scaled = of_.loadings_.row(next_).dot(state_) + row.dot(known_.head(j));
  return of_.means_(next_) + of_.scales_(next_) * scaled;
}

double decorrelation::sequence::deviation() const {
  const Eigen::Index j = next_ % of_.block_;
  return of_.scales_(next_) * of_.diagonal_[static_cast<std::size_t>(next_ / of_.block_)](j, j);
}

void decorrelation::sequence::append(double decorrelated) {
  const Eigen::Index j = next_ % of_.block_;
  known_(j) = decorrelated;
  if (++next_ % of_.block_ == 0)
    state_.noalias() += of_.gains_.middleRows(next_ - of_.block_, of_.block_).transpose() * known_;
}

}  // namespace varda
