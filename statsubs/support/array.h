// SPDX-License-Identifier: Apache-2.0
//
// Column-major arrays whose subscripts count from 1, the convention of every array that crosses
// the library's boundary.
//
//   vector_view, matrix_view, cube_view   do not own; two words to four, passed by value
//   vector, matrix, cube                  own their zero-filled storage, or are bound to a host's
//
// A build with STATSUBS_CHECKED tests every subscript and ends the process with the file and line
// of the caller; otherwise an access is the bare pointer arithmetic.
#pragma once

#include <cassert>
#include <cstddef>
#include <initializer_list>
#include <type_traits>

#include "statsubs/export.h"

namespace statsubs {

namespace support {

// Ends the process: `position` in dimension `dimension` lies outside 1..extent.
[[noreturn]] STATSUBS_API void subscript_failure(const char* file, int line, int dimension,
                                                 long position, long extent);

// Ends the process: `bytes` bytes for `what` could not be had. Never returns, whatever the caller.
[[noreturn]] STATSUBS_API void allocation_failure(const char* what, std::size_t bytes);

// Zero-filled storage of count items of `item` bytes, freed by release(); fatal when not to be had.
STATSUBS_API void* reserve(const char* what, std::size_t count, std::size_t item);
STATSUBS_API void release(void* storage) noexcept;

inline void check([[maybe_unused]] int dimension, [[maybe_unused]] long position,
                  [[maybe_unused]] long extent, [[maybe_unused]] const char* file,
                  [[maybe_unused]] int line) {
#ifdef STATSUBS_CHECKED
  if (position < 1 || position > extent) subscript_failure(file, line, dimension, position, extent);
#endif
}

constexpr std::size_t extent_of(int n) {
  return n > 0 ? static_cast<std::size_t>(n) : 0;
}

// The product of the extents, or the largest size there is where it does not fit one.
constexpr std::size_t count_of(std::initializer_list<int> extents) {
  std::size_t count = 1;
  for (const int n : extents)
    if (__builtin_mul_overflow(count, extent_of(n), &count)) return static_cast<std::size_t>(-1);
  return count;
}

}  // namespace support

// A vector of size() entries, entry i at data()[i - 1].
template <class T>
class vector_view {
 public:
  using value_type = T;
  vector_view() = default;
  vector_view(T* data, int size) : data_(data), size_(size > 0 ? size : 0) {}

  T& operator()(int i, const char* file = __builtin_FILE(), int line = __builtin_LINE()) const {
    support::check(1, i, size_, file, line);
    return data_[i - 1];
  }
  // A view that may be written converts to one that may only be read.
  operator vector_view<const T>() const requires(!std::is_const_v<T>) { return {data_, size_}; }

  // Its first n entries.
  vector_view first(int n) const {
    assert(n <= size_);
    return {data_, n};
  }
  T* data() const { return data_; }
  int size() const { return size_; }
  T* begin() const { return data_; }
  T* end() const { return data_ + size_; }

 private:
  T* data_ = nullptr;
  int size_ = 0;
};

// A matrix of rows() x columns(), entry (i, j) at data()[i - 1 + (j - 1) * leading()].
template <class T>
class matrix_view {
 public:
  using value_type = T;
  matrix_view() = default;
  matrix_view(T* data, int rows, int columns) : matrix_view(data, rows, columns, rows) {}
  matrix_view(T* data, int rows, int columns, int leading)
      : data_(data),
        rows_(rows > 0 ? rows : 0),
        columns_(columns > 0 ? columns : 0),
        leading_(leading) {
    assert(leading >= rows);
  }

  T& operator()(int i, int j, const char* file = __builtin_FILE(),
                int line = __builtin_LINE()) const {
    support::check(1, i, rows_, file, line);
    support::check(2, j, columns_, file, line);
    return data_[i - 1 + (j - 1) * static_cast<std::ptrdiff_t>(leading_)];
  }
  vector_view<T> column(int j, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE()) const {
    support::check(2, j, columns_, file, line);
    return {data_ + (j - 1) * static_cast<std::ptrdiff_t>(leading_), rows_};
  }
  // Its first rows and columns.
  matrix_view corner(int rows, int columns) const {
    assert(rows <= rows_ && columns <= columns_);
    return {data_, rows, columns, leading_};
  }
  operator matrix_view<const T>() const requires(!std::is_const_v<T>) {
    return {data_, rows_, columns_, leading_};
  }

  T* data() const { return data_; }
  int rows() const { return rows_; }
  int columns() const { return columns_; }
  int leading() const { return leading_; }

 private:
  T* data_ = nullptr;
  int rows_ = 0;
  int columns_ = 0;
  int leading_ = 0;
};

// A cube of rows() x columns() x slices(), the slices packed one after the other.
template <class T>
class cube_view {
 public:
  using value_type = T;
  cube_view() = default;
  cube_view(T* data, int rows, int columns, int slices)
      : data_(data),
        rows_(rows > 0 ? rows : 0),
        columns_(columns > 0 ? columns : 0),
        slices_(slices > 0 ? slices : 0) {}

  T& operator()(int i, int j, int k, const char* file = __builtin_FILE(),
                int line = __builtin_LINE()) const {
    return slice(k, file, line)(i, j, file, line);
  }
  matrix_view<T> slice(int k, const char* file = __builtin_FILE(),
                       int line = __builtin_LINE()) const {
    support::check(3, k, slices_, file, line);
    return {data_ + (k - 1) * static_cast<std::ptrdiff_t>(rows_) * columns_, rows_, columns_};
  }

  T* data() const { return data_; }
  int rows() const { return rows_; }
  int columns() const { return columns_; }
  int slices() const { return slices_; }

 private:
  T* data_ = nullptr;
  int rows_ = 0;
  int columns_ = 0;
  int slices_ = 0;
};

// A view with a say over its storage: it either owns it (allocate) or is bound to somebody else's
// (bind), who then keeps it alive for as long as the library may use it. Moves, never copies.
template <class View>
class allocatable : public View {
 public:
  using value_type = typename View::value_type;

  allocatable() = default;
  // A working array: zero-filled, freed with the object. `what` names it should memory run out.
  template <class... Extents>
  explicit allocatable(const char* what, Extents... extents) {
    allocate(what, extents...);
  }
  allocatable(allocatable&& other) noexcept : View(other), owned_(other.owned_) { other.forget(); }
  allocatable& operator=(allocatable&& other) noexcept {
    if (this != &other) {
      deallocate();
      static_cast<View&>(*this) = other;
      owned_ = other.owned_;
      other.forget();
    }
    return *this;
  }
  allocatable(const allocatable&) = delete;
  allocatable& operator=(const allocatable&) = delete;
  ~allocatable() { deallocate(); }

  // Zero-filled storage of the extents given; negative extents count as 0. Fatal when it fails.
  template <class... Extents>
  void allocate(const char* what, Extents... extents) {
    deallocate();
    const std::size_t count = support::count_of({extents...});
    owned_ = static_cast<value_type*>(support::reserve(what, count, sizeof(value_type)));
    static_cast<View&>(*this) = View(owned_, extents...);
  }
  // Uses the host's storage from now on; the extents are those of the view's constructor.
  template <class... Extents>
  void bind(value_type* storage, Extents... extents) {
    deallocate();
    static_cast<View&>(*this) = View(storage, extents...);
  }
  void deallocate() noexcept {
    if (owned_ != nullptr) support::release(owned_);
    forget();
  }
  bool allocated() const { return this->data() != nullptr; }

 private:
  static_assert(std::is_trivially_destructible_v<value_type>);
  void forget() noexcept {
    owned_ = nullptr;
    static_cast<View&>(*this) = View();
  }

  value_type* owned_ = nullptr;
};

template <class T>
using vector = allocatable<vector_view<T>>;
template <class T>
using matrix = allocatable<matrix_view<T>>;
template <class T>
using cube = allocatable<cube_view<T>>;

}  // namespace statsubs
