#ifndef PKI_COMMON_TIME_PARSER_H
#define PKI_COMMON_TIME_PARSER_H

#include <ctime>

namespace pki {

// What parse_time_str does behind the month's letters: year, hours, minutes, seconds, zone.
[[nodiscard]] int parse_year_and_time(const char *text, struct tm *time);

}  // namespace pki

#endif
