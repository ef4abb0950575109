// SPDX-License-Identifier: Apache-2.0
//
// Numbers for lanes: memory at the boundaries that vectors like, and never a value that was not
// written.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

namespace varda {

class lane_array {
 public:
  lane_array() = default;
  explicit lane_array(std::size_t count, double value = 0.0) { fill(count, value); }

  // Memory grows and does not shrink.
  void fill(std::size_t count, double value) {
    reserve(count);
    std::fill(data_.get(), data_.get() + count, value);
  }
  // What stood there is lost where memory has to grow.
  void reserve(std::size_t count) {
    if (count <= capacity_) return;
    data_.reset(static_cast<double*>(::operator new(count * sizeof(double), alignment)));
    capacity_ = count;
    std::fill(data_.get(), data_.get() + count, 0.0);
  }
  double* data() { return data_.get(); }
  const double* data() const { return data_.get(); }
  double& operator[](std::size_t i) { return data_.get()[i]; }
  double operator[](std::size_t i) const { return data_.get()[i]; }

 private:
  static constexpr std::align_val_t alignment{64};
  struct release {
    void operator()(double* p) const { ::operator delete(p, alignment); }
  };
  std::unique_ptr<double, release> data_;
  std::size_t capacity_ = 0;
};

}  // namespace varda
