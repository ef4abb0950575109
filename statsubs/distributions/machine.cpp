// SPDX-License-Identifier: Apache-2.0
#include "statsubs/distributions/machine.h"

namespace statsubs {

double exparg(const int& l) {
  return l == 0 ? 709.7756150662599 : -708.3893345680835;
}

double spmpar(const int& i) {
  switch (i) {
    case 1:
      return 0x1p-52;
    case 2:
      return 0x1p-1022;
    case 3:
      return 0x1.fffffffffffffp1023;
    default:
      return 0.0;
  }
}

int ipmpar(const int& i) {
  constexpr int constants[] = {2, 31, 2147483647, 2, 24, -125, 128, 53, -1021, 1024};
  return i >= 1 && i <= 10 ? constants[i - 1] : 0;
}

}  // namespace statsubs
