// SPDX-License-Identifier: Apache-2.0
#include "varda/html_report/assets.h"
#include "varda/html_report/html_report.h"

namespace varda {

namespace {

std::string as_text(const std::string& text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

// In JSON a "<" can only stand inside a string, where it may be written by its number; nothing that
// a browser looks for in a script element is then left.
std::string as_script(const std::string& json) {
  std::string result;
  for (const char c : json) result += c == '<' ? std::string("\\u003c") : std::string(1, c);
  return result;
}

}  // namespace

std::string html_page(const std::string& title, const std::string& data) {
  const std::string page(page_html());
  std::string result;
  std::size_t begin = 0;
  while (true) {
    const std::size_t mark = page.find("{{", begin);
    result += page.substr(begin, mark - begin);
    if (mark == std::string::npos) return result;
    const std::size_t end = page.find("}}", mark);
    const std::string name = page.substr(mark + 2, end - mark - 2);
    if (name == "title") result += as_text(title);
    if (name == "style") result += style_css();
    if (name == "library") result += d3_js();
    if (name == "program") result += report_js();
    if (name == "data") result += as_script(data);
    begin = end + 2;
  }
}

}  // namespace varda
