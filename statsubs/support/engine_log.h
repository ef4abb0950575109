// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string_view>

namespace statsubs::support {

// Where the engine log stands from now on; an empty path is its default place.
void place_log(std::string_view path);

// The engine log, "vardaengine.log" in the working directory unless place_log named another file:
// messages that must survive the run. A writer opens it, writes its lines and closes it at once;
// the destructor closes it.
class engine_log {
 public:
  enum class position { rewrite, append };
  explicit engine_log(position where);
  engine_log(const engine_log&) = delete;
  engine_log& operator=(const engine_log&) = delete;
  ~engine_log();

  // Writes one line; false when the file could not be opened or written.
  bool write(std::string_view line);

 private:
  std::FILE* file_;
};

}  // namespace statsubs::support
