// SPDX-License-Identifier: Apache-2.0
//
// What a routine holds its arguments and the shared state to before it does anything: once per
// call, so that loops over samples need not look.
#pragma once

#include "statsubs/state/refusal.h"
#include "statsubs/support/array.h"

namespace statsubs {

// Every member throws a refusal in the name of the routine when what it looks at is not as needed.
class entry_check {
 public:
  explicit entry_check(const char* routine) : routine_(routine) {}

  void at_least(const char* name, int found, int least) const;
  void within(const char* name, int found, int least, int most) const;

  // A shared array holds at least these extents.
  template <class T>
  void holds(const char* name, vector_view<T> array, int n) const {
    compare(name, array.data(), 1, {array.size()}, {n});
  }
  template <class T>
  void holds(const char* name, matrix_view<T> array, int rows, int columns) const {
    compare(name, array.data(), 2, {array.rows(), array.columns()}, {rows, columns});
  }
  template <class T>
  void holds(const char* name, cube_view<T> array, int rows, int columns, int slices) const {
    compare(name, array.data(), 3, {array.rows(), array.columns(), array.slices()},
            {rows, columns, slices});
  }

  // An argument that is an array of `count` entries is no null pointer.
  void given(const char* name, const void* argument, int count) const;

  // isub is one of the subjects: of nsub, or of those that newsub tells the observations of where
  // these are more, as for a host that has not gone through the set-up. Without either, any from 1.
  // Reads: nsub, newsub
  void subject(int isub) const;

  // numprocs is 1 or the number of processes of the job: a sum or a barrier will be met by all.
  // Reads: numprocs
  void job() const;
  // That, and myid is one of them, which has a share of the work.
  // Reads: myid
  void share() const;

  [[noreturn]] void refuse(const char* name, int found, const char* needed) const;

 private:
  struct extents {
    int n[3];
    extents(int a = 0, int b = 0, int c = 0) : n{a, b, c} {}
  };
  void compare(const char* name, const void* storage, int rank, const extents& found,
               const extents& needed) const;

  const char* routine_;
};

// The routines that evaluate the model share a subject, its points and their place in theta with
// the host: one of them at a time. The constructor refuses while another one lives.
class sole_entry {
 public:
  explicit sole_entry(const char* routine);
  ~sole_entry();
  sole_entry(const sole_entry&) = delete;
  sole_entry& operator=(const sole_entry&) = delete;
};

}  // namespace statsubs
