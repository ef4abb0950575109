// SPDX-License-Identifier: Apache-2.0
//
// The things that processes of one job do together. CMake chooses between an implementation
// over MPI and one for a single process; no other file knows the difference. With numprocs = 1 no
// MPI function is called, so a host that runs alone need not have initialised MPI.
#pragma once

#include "statsubs/support/array.h"

namespace statsubs::support {

// The processes that meet in the functions below: those of the MPI job once the host has started
// MPI, else 1; and a few words on what the job is, for messages.
int job_size();
const char* job_kind();

// Replaces `partial` on every process by the element-wise sum over all processes. Collective.
void allreduce_sum(vector_view<double> partial, int numprocs);

// Waits until every process has arrived. Collective.
void barrier(int numprocs);

// Ends this process with `status`, and the whole job with it where there is one.
[[noreturn]] void abort_job(int status);

// The stop of a run that cannot go on: "STOP" and the message on one line of the error stream, exit
// status 0. `message` brings its own leading blank. Where one process of a job stops, the others,
// which need not arrive here, are ended with it.
[[noreturn]] void stop_process(const char* message);

}  // namespace statsubs::support
