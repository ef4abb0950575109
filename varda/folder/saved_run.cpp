// SPDX-License-Identifier: Apache-2.0
#include "varda/folder/saved_run.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <streambuf>

#include "varda/support/archive.h"
#include "varda/support/digest.h"

namespace varda {

namespace {

// A line that names the file, one with the digest of what follows, and an archive.
const std::string mark = "varda run state 1\n";
constexpr std::size_t digest_size = 64;

// A stream whose bytes go to a sink, a buffer at a time.
class sink_buffer final : public std::streambuf {
 public:
  explicit sink_buffer(const text_sink& to) : to_(to) { empty(); }

 protected:
  int_type overflow(int_type next) override {
    sync();
    if (!traits_type::eq_int_type(next, traits_type::eof())) sputc(traits_type::to_char_type(next));
    return traits_type::not_eof(next);
  }
  int sync() override {
    to_({pbase(), static_cast<std::size_t>(pptr() - pbase())});
    empty();
    return 0;
  }

 private:
  void empty() { setp(bytes_.data(), bytes_.data() + bytes_.size()); }

  const text_sink& to_;
  std::array<char, 1 << 16> bytes_;
};

void write_to(const text_sink& to, const std::function<void(std::ostream&)>& write) {
  sink_buffer buffer(to);
  std::ostream out(&buffer);
  write(out);
  out.flush();
}

}  // namespace

text_pieces saved_run_text(const saved_run::identity& of,
                           const std::function<void(std::ostream&)>& body) {
  std::int64_t size = 0;
  write_to([&](std::string_view piece) { size += static_cast<std::int64_t>(piece.size()); }, body);
  const text_pieces content = [of, body, size](const text_sink& to) {
    write_to(to, [&](std::ostream& out) {
      saved_run::identity what = of;
      std::int64_t bytes = size;
      archive_writer archive(out);
      archive(what, bytes);
      body(out);
    });
  };
  sha256_of_pieces digest;
  content([&](std::string_view piece) { digest.add(piece); });
  return [head = mark + digest.digest() + "\n", content](const text_sink& to) {
    to(head);
    content(to);
  };
}

bool is_saved_run(const std::string& text) {
  return text.compare(0, mark.size(), mark) == 0;
}

saved_run read_saved_run(const std::string& text) {
  if (!is_saved_run(text)) throw std::runtime_error("it is not the state of a run");
  const std::size_t begin = mark.size() + digest_size + 1;
  if (text.size() < begin || text[begin - 1] != '\n' ||
      sha256(text.substr(begin)) != text.substr(mark.size(), digest_size))
    throw std::runtime_error("it is damaged");
  std::istringstream in(text.substr(begin));
  archive_reader from(in);
  saved_run what;
  from(what.of, what.body);
  return what;
}

std::vector<std::string> differences(const saved_run::identity& there,
                                     const saved_run::identity& here) {
  constexpr std::size_t shown = 12;
  const auto value_in = [](const saved_run::identity& list, const std::string& name) {
    const auto at = std::find_if(list.begin(), list.end(),
                                 [&](const auto& entry) { return entry.first == name; });
    return at == list.end() ? std::string("nothing") : at->second;
  };
  const auto cut = [](const std::string& value) {
    return value.size() > digest_size / 2 ? value.substr(0, shown) : value;
  };
  std::vector<std::string> result;
  for (const auto& [name, value] : here)
    if (value_in(there, name) != value)
      result.push_back(
          fmt::format("{} ({} there, {} here)", name, cut(value_in(there, name)), cut(value)));
  for (const auto& [name, value] : there)
    if (value_in(here, name) == "nothing" && value != "nothing")
      result.push_back(fmt::format("{} ({} there, nothing here)", name, cut(value)));
  return result;
}

}  // namespace varda
