/* SPDX-License-Identifier: Apache-2.0
 *
 * STATSUBS_API marks what the shared library shows: every public routine and shared variable. The
 * rest of the library is built hidden. For C and C++.
 */
#ifndef STATSUBS_EXPORT_H
#define STATSUBS_EXPORT_H

#define STATSUBS_API __attribute__((visibility("default")))

#endif
