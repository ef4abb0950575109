// SPDX-License-Identifier: Apache-2.0
#include <mpi.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>
#include <vector>

#include "varda/host/job.h"
#include "varda/host/launcher.h"

namespace varda {

namespace {

using steady = std::chrono::steady_clock;

// The functions of MPI that block wait busily, which takes the core away from a process that has
// work to do. So nothing here blocks: what was started is asked for, a short time without a pause
// and then after pauses that grow with the wait.
constexpr std::chrono::microseconds busy_time(50);
constexpr std::chrono::microseconds shortest_pause(10);
constexpr std::chrono::microseconds longest_pause(500);

// False when it has not come by then.
bool wait_until(MPI_Request& request, steady::time_point latest) {
  const auto begin = steady::now();
  for (;;) {
    int done = 0;
    MPI_Test(&request, &done, MPI_STATUS_IGNORE);
    if (done != 0) return true;
    const auto now = steady::now();
    if (now > latest) return false;
    const auto waited = std::chrono::duration_cast<std::chrono::microseconds>(now - begin);
    if (waited < busy_time)
      sched_yield();
    else
      std::this_thread::sleep_for(std::clamp(waited / 10, shortest_pause, longest_pause));
  }
}

void wait(MPI_Request request) {
  wait_until(request, steady::time_point::max());
}

// So many reals are exchanged at once, which bounds the memory that an exchange takes.
constexpr std::ptrdiff_t most_reals = std::ptrdiff_t{1} << 22;

// Apart from the exchanges of a run, so that processes that leave do not meet those that go on.
MPI_Comm leaving = MPI_COMM_NULL;

}  // namespace

job::job(int* argc, char*** argv) {
  if (!under_a_launcher()) {
    refuse_strangers(1);
    return;
  }
  int provided = 0;
  MPI_Init_thread(argc, argv, MPI_THREAD_FUNNELED, &provided);
  started_ = true;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank_);
  MPI_Comm_size(MPI_COMM_WORLD, &size_);
  MPI_Comm_dup(MPI_COMM_WORLD, &leaving);
  try {
    refuse_strangers(size_);
  } catch (...) {
    MPI_Finalize();
    throw;
  }
}

job::~job() {
  if (!started_) return;
  // Who leaves by an exception is not waited for.
  if (std::uncaught_exceptions() > 0) MPI_Abort(MPI_COMM_WORLD, EXIT_FAILURE);
  // MPI_Finalize waits busily for the others.
  MPI_Request here = MPI_REQUEST_NULL;
  MPI_Ibarrier(MPI_COMM_WORLD, &here);
  wait(here);
  MPI_Comm_free(&leaving);
  MPI_Finalize();
}

// Each process sends the columns of its subjects with its flag behind them.
bool job::exchange(double* values, const std::vector<int>& subjects,
                   const std::vector<std::ptrdiff_t>& sizes, bool flag) const {
  if (size_ == 1) return flag;
  const auto processes = static_cast<std::size_t>(size_);
  const auto owner = [&](std::size_t column) {
    return static_cast<std::size_t>(owner_of(subjects[column]));
  };
  bool any = false;
  std::size_t first = 0;
  do {
    std::vector<int> counts(processes, 1);
    std::size_t last = first;
    for (std::ptrdiff_t reals = 0; last < sizes.size(); ++last) {
      reals += sizes[last];
      if (reals > most_reals && last > first) break;
      counts[owner(last)] += static_cast<int>(sizes[last]);
    }
    std::vector<int> places(processes, 0);
    for (std::size_t p = 1; p < processes; ++p) places[p] = places[p - 1] + counts[p - 1];
    std::vector<double> all(static_cast<std::size_t>(places.back() + counts.back()));
    std::vector<int> next = places;
    const auto own = static_cast<std::size_t>(rank_);
    // Moves the columns of some subjects between `values` and `all`.
    double* column = values;
    const auto copy = [&](bool ours) {
      double* at = column;
      for (std::size_t i = first; i < last; at += sizes[i], ++i) {
        if ((owner(i) == own) != ours) continue;
        double* packed = all.data() + next[owner(i)];
        if (ours)
          std::copy_n(at, sizes[i], packed);
        else
          std::copy_n(packed, sizes[i], at);
        next[owner(i)] += static_cast<int>(sizes[i]);
      }
    };
    copy(true);
    all[static_cast<std::size_t>(places[own] + counts[own] - 1)] = flag ? 1.0 : 0.0;
    MPI_Request request = MPI_REQUEST_NULL;
    MPI_Iallgatherv(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, all.data(), counts.data(), places.data(),
                    MPI_DOUBLE, MPI_COMM_WORLD, &request);
    wait(request);
    copy(false);
    for (std::size_t p = 0; p < processes; ++p)
      any = any || all[static_cast<std::size_t>(places[p] + counts[p] - 1)] != 0.0;
    for (; first < last; ++first) values += sizes[first];
  } while (first < sizes.size());
  return any;
}

void job::take_from_root(std::optional<std::string>& text) const {
  if (size_ == 1) return;
  // -1 for nothing.
  long long size = is_root() && text ? static_cast<long long>(text->size()) : -1;
  const auto broadcast = [](void* from, int count, MPI_Datatype type) {
    MPI_Request request = MPI_REQUEST_NULL;
    MPI_Ibcast(from, count, type, 0, MPI_COMM_WORLD, &request);
    wait(request);
  };
  broadcast(&size, 1, MPI_LONG_LONG);
  if (size < 0) {
    text.reset();
    return;
  }
  if (!is_root()) text.emplace(static_cast<std::size_t>(size), '\0');
  constexpr long long most_bytes = 1LL << 26;
  for (long long at = 0; at < size; at += most_bytes)
    broadcast(text->data() + at, static_cast<int>(std::min(most_bytes, size - at)), MPI_BYTE);
}

bool job::all_are_leaving() const {
  if (size_ == 1) return true;
  constexpr std::chrono::seconds patience(5);
  MPI_Request here = MPI_REQUEST_NULL;
  MPI_Ibarrier(leaving, &here);
  return wait_until(here, steady::now() + patience);
}

void job::abort(int status) const {
  std::fflush(nullptr);
  if (started_) MPI_Abort(MPI_COMM_WORLD, status);
  std::exit(status);
}

int job::own_cores() const {
  const std::vector<int> cores = allowed_cores();
  if (size_ == 1) return std::max(static_cast<int>(cores.size()), 1);
  MPI_Comm node = MPI_COMM_NULL;
  MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, 0, MPI_INFO_NULL, &node);
  std::vector<int> users(CPU_SETSIZE, 0);
  for (const int core : cores) users[static_cast<std::size_t>(core)] = 1;
  MPI_Allreduce(MPI_IN_PLACE, users.data(), static_cast<int>(users.size()), MPI_INT, MPI_SUM, node);
  MPI_Comm_free(&node);
  double share = 0.0;
  for (const int core : cores) share += 1.0 / users[static_cast<std::size_t>(core)];
  return std::max(static_cast<int>(std::floor(share + 1e-9)), 1);
}

}  // namespace varda
