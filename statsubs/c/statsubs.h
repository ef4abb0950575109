/* SPDX-License-Identifier: Apache-2.0
 *
 * statsubs for C (C99) and for whatever calls C.
 *
 *   routines           statsubs_fgintegrate(...) is fgintegrate of the C++ headers, and so on
 *   shared variables   statsubs_get_leneta(), statsubs_set_leneta(2),
 *                      statsubs_bind_theta(storage, n)
 *   host               a table of the engine's callables, handed over by statsubs_install_host
 *
 * Scalars in go by value, scalars out by pointer. Arrays are column-major and their subscripts
 * count from 1: subject 1 is the first, and a(i, j) stands at a[i - 1 + (j - 1) * rows]. The
 * library is not reentrant: one thread at a time calls it.
 *
 * Three events end the process rather than return: memory that cannot be had, a callable that is
 * needed and was never installed, and the stops that the Sobol generator and the inverse search
 * document.
 */
#ifndef STATSUBS_C_STATSUBS_H
#define STATSUBS_C_STATSUBS_H

#include "statsubs/c/host_table.h"
#include "statsubs/c/routines.h"
#include "statsubs/c/shared_variables.h"
#include "statsubs/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What the functions return. The numerical status of a routine is an argument of its own. */
enum statsubs_status {
  STATSUBS_OK = 0,
  STATSUBS_HOST_EXCEPTION = 1,    /* a callable of a host in C++ threw; results are incomplete */
  STATSUBS_UNUSABLE_TABLE = 2,    /* the host table is not one that this library knows */
  STATSUBS_UNUSABLE_ARGUMENT = 3, /* no storage where extents ask for some, or storage with gaps */
  STATSUBS_REFUSED = 4,           /* an argument or the shared state is not what the routine needs,
                                   * or it is called from inside itself; nothing has been done */
};

/* What the last status other than STATSUBS_OK was about; "" before the first. Valid until the next
 * one. */
STATSUBS_API const char* statsubs_last_error(void);

/* Makes `table` the host; it is copied. A table that ends earlier than this library's, as a host
 * compiled against an older version has, is completed with the defaults; one that is larger or of a
 * later version is refused, with the installed host unchanged. A null pointer brings the state at
 * load back. A callable must not be left by longjmp or an exception: to stop the run, a host
 * answers stoprequested with a nonzero value and sets globalstop in checkforstop. */
STATSUBS_API int statsubs_install_host(const statsubs_host_table* table);

/* Receives a line of `length` characters, without line end and terminating zero. */
typedef void (*statsubs_line_sink)(void* context, const char* line, int length);

/* Hands the lines of an output unit (6 is standard output) to `sink` with `context` passed through,
 * or back to standard output with a null sink. */
STATSUBS_API int statsubs_take_unit(int unit, statsubs_line_sink sink, void* context);

/* Has the engine log stand at `path`, which is copied, instead of vardaengine.log in the working
 * directory; a null pointer or an empty path brings that back. */
STATSUBS_API int statsubs_place_engine_log(const char* path);

/* Writes one line to an output unit. */
STATSUBS_API int statsubs_write_line(int unit, const char* line, int length);

#ifdef __cplusplus
}
#endif

#endif
