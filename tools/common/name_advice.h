// How a name is written.
#ifndef TOOLS_COMMON_NAME_ADVICE_H
#define TOOLS_COMMON_NAME_ADVICE_H

#include <string>

namespace tools {

// Did parse_rfc1779_str refuse a name?
bool is_name_code(int code);

// What to do about a name that was refused with `code`. `kind` is "subject" or "issuer name";
// `heard`, what the library logged of it, may be "".
std::string name_advice(const std::string &kind, int code, const std::string &heard = "");

}  // namespace tools

#endif
