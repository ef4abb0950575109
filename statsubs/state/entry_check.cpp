// SPDX-License-Identifier: Apache-2.0
#include "statsubs/state/entry_check.h"

#include <algorithm>
#include <string>

#include "statsubs/state/global_variables.h"
#include "statsubs/support/parallel.h"

namespace statsubs {

namespace gv = statsubs::global_variables;

namespace {

const char* running_routine = nullptr;

std::string product(int rank, const int* extents) {
  std::string text = std::to_string(extents[0]);
  for (int i = 1; i < rank; ++i) text += " x " + std::to_string(extents[i]);
  return text;
}

std::string range(int least, int most) {
  return std::to_string(least) + " to " + std::to_string(most);
}

}  // namespace

void entry_check::refuse(const char* name, int found, const char* needed) const {
  throw refusal(std::string(routine_) + ": " + name + " is " + std::to_string(found) + ", needs " +
                needed);
}

void entry_check::at_least(const char* name, int found, int least) const {
  if (found < least) refuse(name, found, ("at least " + std::to_string(least)).c_str());
}

void entry_check::within(const char* name, int found, int least, int most) const {
  if (found < least || found > most) refuse(name, found, range(least, most).c_str());
}

void entry_check::compare(const char* name, const void* storage, int rank, const extents& found,
                          const extents& needed) const {
  bool empty = false;
  bool enough = true;
  for (int i = 0; i < rank; ++i) {
    empty = empty || needed.n[i] <= 0;
    enough = enough && found.n[i] >= needed.n[i];
  }
  if (empty || (enough && storage != nullptr)) return;
  throw refusal(std::string(routine_) + ": " + name +
                (storage == nullptr ? " is not bound" : " is bound " + product(rank, found.n)) +
                ", needs " + product(rank, needed.n));
}

void entry_check::given(const char* name, const void* argument, int count) const {
  if (argument == nullptr && count > 0)
    throw refusal(std::string(routine_) + ": " + name + " is a null pointer, needs " +
                  std::to_string(count) + (count == 1 ? " entry" : " entries"));
}

void entry_check::subject(int isub) const {
  const int known = std::max(gv::nsub, gv::newsub.size() - 1);
  if (isub >= 1 && (isub <= known || known < 1)) return;
  if (known < 1) refuse("isub", isub, "at least 1");
  refuse("isub", isub, range(1, known).c_str());
}

void entry_check::share() const {
  job();
  within("myid", gv::myid, 0, gv::numprocs - 1);
}

void entry_check::job() const {
  at_least("numprocs", gv::numprocs, 1);
  if (gv::numprocs == 1) return;
  const int size = support::job_size();
  if (gv::numprocs == size) return;
  std::string needed = "1";
  if (size > 1) needed += " or " + std::to_string(size);
  refuse("numprocs", gv::numprocs, (needed + ": " + support::job_kind()).c_str());
}

sole_entry::sole_entry(const char* routine) {
  if (running_routine != nullptr)
    throw refusal(std::string(routine) + ": called from inside " + running_routine +
                  ", which must return first");
  running_routine = routine;
}

sole_entry::~sole_entry() {
  running_routine = nullptr;
}

}  // namespace statsubs
