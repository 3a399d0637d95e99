// Words that choose how a room answers, "NAME" or "NAME=VALUE": on the command line for every
// answer, and in a request's query for that answer.
#ifndef TOOLS_PKILAB_OPTION_WORDS_H
#define TOOLS_PKILAB_OPTION_WORDS_H

#include <algorithm>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tools/common/failure.h"
#include "tools/common/help_formatter.h"
#include "tools/common/text.h"

namespace pkilab {

// Seconds from now, or what stands in the place of a time.
using answer_time = std::variant<long long, std::string>;

// ---- values: each throws tools::usage_failure for what it does not take ----

[[noreturn]] void refuse_value(const std::string &value, const std::string &wanted);
long long number_value(const std::string &text, long long lowest, long long highest);
// What is no number stands in the answer as it is.
answer_time time_value(const std::string &text);
std::string oid_value(const std::string &text);
std::string digest_value(const std::string &text);
std::string header_value(const std::string &text);

template <class T>
using choices = std::map<std::string, T>;

template <class T>
T choice_value(const std::string &text, const choices<T> &from) {
  auto found = from.find(text);
  if (found != from.end())
    return found->second;
  std::string names;
  for (const auto &[name, value] : from)
    names += (names.empty() ? "one of " : ", ") + name;
  refuse_value(text, names);
}

// ---- words ----

template <class Options>
struct option_row {
  std::string_view name;
  std::string_view value;  // its name in the help; empty: takes none
  std::string_view text;
  void (*set)(const std::string &value, Options *options);

  // As it is typed.
  std::string word() const {
    return std::string(name) + (value.empty() ? "" : "=" + std::string(value));
  }
};

// The words of a room.
template <class Options>
class option_table {
 public:
  // `room` is its name in complaints.
  constexpr option_table(const char *room, std::span<const option_row<Options>> rows)
      : room_(room), rows_(rows) {}

  // Takes one word. Throws tools::usage_failure.
  void set(const std::string &word, Options *options) const {
    size_t mark = word.find('=');
    const option_row<Options> &row = find(word.substr(0, mark));
    bool has_value = mark != std::string::npos;
    std::string start = std::string(room_) + " option '";
    if (has_value && row.value.empty())
      throw tools::usage_failure(start + row.word() + "' takes no value");
    if (!has_value && !row.value.empty())
      throw tools::usage_failure(start + std::string(row.name) + "' needs a value: " + row.word());
    try {
      row.set(has_value ? word.substr(mark + 1) : "", options);
    } catch (const tools::usage_failure &error) {
      throw tools::usage_failure(start + std::string(row.name) + "': " + error.what());
    }
  }

  // Takes every word of a query, with its "%XX" decoded. Throws tools::usage_failure.
  void set_query(const std::string &query, Options *options) const {
    for (size_t at = 0; at < query.size();) {
      size_t end = std::min(query.find('&', at), query.size());
      if (end > at)
        set(tools::percent_decode(query.substr(at, end - at)), options);
      at = end + 1;
    }
  }

  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const option_row<Options> &row : rows_)
      names.emplace_back(row.name);
    return names;
  }

  // A line an option.
  std::string list() const {
    std::string text;
    for (const option_row<Options> &row : rows_)
      text += tools::help_row(row.word(), std::string(row.text));
    return text;
  }

 private:
  const option_row<Options> &find(const std::string &name) const {
    for (const option_row<Options> &row : rows_)
      if (row.name == name)
        return row;
    throw tools::usage_failure("there is no " + std::string(room_) + " option '" + name +
                               "'; pkilab serve --help lists them");
  }

  const char *room_;
  std::span<const option_row<Options>> rows_;
};

}  // namespace pkilab

#endif
