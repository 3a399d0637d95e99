#include "common/time_parser.h"

#include <libpki/error.h>
#include <libpki/names.h>

#include <climits>
#include <cstring>

#include "common/text.h"

namespace pki {

namespace {

constexpr int no_month = -1;

// Four octets each: the closing NUL is compared too.
const char months[12][4] = {"jan", "feb", "mar", "apr", "may", "jun",
                            "jul", "aug", "sep", "oct", "nov", "dec"};

void skip_to_digit(const char **text) {
  while (**text && !is_digit(**text))
    ++*text;
}

void skip_to_letter(const char **text) {
  while (**text && !is_letter(**text))
    ++*text;
}

// Reads the next number in the text; one that no int holds becomes the largest.
bool next_number(const char **text, int *number) {
  skip_to_digit(text);
  if (!is_digit(**text))
    return false;
  long long value = 0;
  for (; is_digit(**text); ++*text)
    if (value <= INT_MAX)
      value = 10 * value + (**text - '0');
  *number = value > INT_MAX ? INT_MAX : static_cast<int>(value);
  return true;
}

// The month counts only where the text ends behind it.
int month_at(const char *text) {
  for (int month = 0; month < 12; month++)
    if (equal_ignoring_case(text, months[month], sizeof months[month]))
      return month;
  return no_month;
}

// Years are counted from 1900; two digits mean 1970 to 2069.
int tm_year(int year) {
  if (year >= 100)
    return year - 1900;
  return year < 70 ? year + 100 : year;
}

}  // namespace

int parse_year_and_time(const char *text, struct tm *time) {
  int year;
  if (!next_number(&text, &year))
    return PKI_TIME_YEAR_NOT_FOUND;
  time->tm_year = tm_year(year);
  if (!next_number(&text, &time->tm_hour))
    return PKI_TIME_HOUR_NOT_FOUND;
  if (!next_number(&text, &time->tm_min))
    return PKI_TIME_MINUTES_NOT_FOUND;
  if (!next_number(&text, &time->tm_sec))
    return PKI_TIME_SECONDS_NOT_FOUND;
  time->tm_zone = "GMT";
  time->tm_wday = -1;
  time->tm_yday = -1;
  time->tm_isdst = 0;
  time->tm_gmtoff = 0;
  timegm(time);
  return PKI_OK;
}

}  // namespace pki

int parse_time_str(const char *text, struct tm *time) {
  if (!text || !time)
    return PKI_INVALID_ARGS;
  const char *comma = std::strchr(text, ',');
  if (comma)
    text = comma + 1;
  if (!pki::next_number(&text, &time->tm_mday))
    return PKI_TIME_DAY_NOT_FOUND;
  pki::skip_to_letter(&text);
  int month = pki::month_at(text);
  if (month == pki::no_month)
    return PKI_TIME_INVALID_MONTH;
  time->tm_mon = month;
  while (pki::is_letter(*text))
    text++;
  return pki::parse_year_and_time(text, time);
}
