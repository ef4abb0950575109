// SPDX-License-Identifier: Apache-2.0
//
// Plain values as bytes, to be read back by the same program on the same kind of machine. A type of
// its own has `template <class A> void visit(A& archive)` that hands its members to the archive in
// one fixed order; the same function serves both directions.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace varda {

template <class T>
inline constexpr bool is_plain_value = std::is_arithmetic_v<T> || std::is_enum_v<T>;

class archive_writer {
 public:
  explicit archive_writer(std::ostream& to) : to_(to) {}

  template <class... T>
  void operator()(T&... values) {
    (put(values), ...);
  }

 private:
  template <class T>
  void put(T& value) {
    if constexpr (is_plain_value<T>)
      to_.write(reinterpret_cast<const char*>(&value), sizeof value);
    else
      value.visit(*this);
  }
  void size(std::int64_t n) { put(n); }
  void put(std::string& text) {
    size(static_cast<std::int64_t>(text.size()));
    to_.write(text.data(), static_cast<std::streamsize>(text.size()));
  }
  template <class T>
  void put(std::vector<T>& list) {
    size(static_cast<std::int64_t>(list.size()));
    for (T& value : list) put(value);
  }
  template <class T>
  void put(std::optional<T>& value) {
    size(value ? 1 : 0);
    if (value) put(*value);
  }
  template <class T>
  void put(std::shared_ptr<const T>& value) {
    size(value ? 1 : 0);
    if (!value) return;
    T copy = *value;
    put(copy);
  }
  template <class A, class B>
  void put(std::pair<A, B>& value) {
    put(value.first);
    put(value.second);
  }
  template <class T, int R, int C>
  void put(Eigen::Matrix<T, R, C>& matrix) {
    size(matrix.rows());
    size(matrix.cols());
    for (Eigen::Index k = 0; k < matrix.size(); ++k) put(matrix.data()[k]);
  }

  std::ostream& to_;
};

// Throws std::runtime_error where the bytes end too early or cannot be right.
class archive_reader {
 public:
  explicit archive_reader(std::istream& from) : from_(from) {}

  template <class... T>
  void operator()(T&... values) {
    (get(values), ...);
  }

 private:
  template <class T>
  void get(T& value) {
    if constexpr (is_plain_value<T>) {
      if (!from_.read(reinterpret_cast<char*>(&value), sizeof value))
        throw std::runtime_error("the run state is cut short");
    } else {
      value.visit(*this);
    }
  }
  // A count that no run reaches is a sign of bytes that are something else.
  std::int64_t size() {
    constexpr std::int64_t most = std::int64_t{1} << 40;
    std::int64_t n = 0;
    get(n);
    if (n < 0 || n > most) throw std::runtime_error("the run state cannot be read");
    return n;
  }
  void get(std::string& text) {
    text.resize(static_cast<std::size_t>(size()));
    if (!from_.read(text.data(), static_cast<std::streamsize>(text.size())))
      throw std::runtime_error("the run state is cut short");
  }
  template <class T>
  void get(std::vector<T>& list) {
    const std::int64_t n = size();
    list.clear();
    for (std::int64_t k = 0; k < n; ++k) get(list.emplace_back());
  }
  template <class T>
  void get(std::optional<T>& value) {
    value.reset();
    if (size() != 0) get(value.emplace());
  }
  template <class T>
  void get(std::shared_ptr<const T>& value) {
    value.reset();
    if (size() == 0) return;
    T own;
    get(own);
    value = std::make_shared<const T>(std::move(own));
  }
  template <class A, class B>
  void get(std::pair<A, B>& value) {
    get(value.first);
    get(value.second);
  }
  template <class T, int R, int C>
  void get(Eigen::Matrix<T, R, C>& matrix) {
    const std::int64_t rows = size();
    const std::int64_t columns = size();
    matrix.resize(rows, columns);
    for (Eigen::Index k = 0; k < matrix.size(); ++k) get(matrix.data()[k]);
  }

  std::istream& from_;
};

}  // namespace varda
