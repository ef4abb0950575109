// SPDX-License-Identifier: Apache-2.0
#include "statsubs/support/record.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace statsubs::support {

record& record::text(std::string_view item) {
  line_ += ' ';
  line_ += item;
  return *this;
}

record& record::value(int item) {
  return text(std::to_string(item));
}

record& record::value(double item) {
  return text(shortest(item));
}

record& record::values(vector_view<const double> items) {
  for (const double item : items) value(item);
  return *this;
}

std::string shortest(double value) {
  char buffer[32];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  return {buffer, end};
}

namespace {

// Right-adjusts `text` in a field, or fills the field with asterisks.
std::string field(const std::string& text, int width) {
  const auto room = support::extent_of(width);
  if (text.size() > room) return std::string(room, '*');
  return std::string(room - text.size(), ' ') + text;
}

}  // namespace

std::string integer_field(int value, int width) {
  return field(std::to_string(value), width);
}

std::string exponent_field(double value, int width, int digits) {
  if (std::isnan(value)) return field("NaN", width);
  if (std::isinf(value)) return field(value > 0 ? "Infinity" : "-Infinity", width);

  // C writes d.ddddE+xx; moving the point one place left raises the exponent by one.
  char scientific[64];
  std::snprintf(scientific, sizeof scientific, "%.*e", digits - 1, std::fabs(value));
  const std::string number = scientific;
  const auto mark = number.find('e');
  std::string mantissa = number.substr(0, 1) + (digits > 1 ? number.substr(2, mark - 2) : "");
  int exponent = value == 0 ? 0 : std::atoi(number.c_str() + mark + 1) + 1;

  const std::string sign = std::signbit(value) ? "-" : "";
  const std::string size = std::to_string(std::abs(exponent));
  std::string power = std::abs(exponent) < 100 ? "E" : "";
  power += exponent < 0 ? '-' : '+';
  if (size.size() < 2) power += '0';
  power += size;
  std::string text = sign + "0." + mantissa + power;
  // The leading zero is optional in this layout: it goes when the field is one short.
  if (text.size() == support::extent_of(width) + 1) text.erase(sign.size(), 1);
  return field(text, width);
}

std::string_view trimmed(std::string_view name) {
  const auto last = name.find_last_not_of(' ');
  return last == std::string_view::npos ? std::string_view() : name.substr(0, last + 1);
}

}  // namespace statsubs::support
