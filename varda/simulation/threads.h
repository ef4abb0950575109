// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>

namespace varda {

// Calls work(i) for the subjects 0 to count - 1, shared among so many threads; in which order is
// open. An exception of one of them is thrown again here, when all have ended.
void for_each_subject(int count, int threads, const std::function<void(int)>& work);

}  // namespace varda
