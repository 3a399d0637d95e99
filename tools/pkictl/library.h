// The library's codes as the person at the command line meets them.
#ifndef TOOLS_PKICTL_LIBRARY_H
#define TOOLS_PKICTL_LIBRARY_H

#include <string>

#include "tools/pkictl/output.h"

namespace pkictl {

// Brings the library up, once a process. Throws library_failure.
void start_library();

// "PKI_HTTP_ERROR", or "" for a number that is no code.
std::string code_name(unsigned code);

// pki_strerror without its closing line feed.
std::string code_text(unsigned code);

// What the code means in general, one sentence; "" for a number that is no code.
std::string code_meaning(unsigned code);

// {"code": 47, "name": "PKI_HTTP_ERROR", "text": "HTTP ERROR"}
json code_json(unsigned code);

// The same with the sentence that stands on stderr too, as "message".
json failure_json(int code, const std::string &message);

// "HTTP ERROR (47)"
std::string code_text_and_number(int code);

// "WHAT: HTTP ERROR (47): what to do about it". Where there are many reasons for the code, `heard`,
// what the library logged, stands in its place or with it.
std::string failure_text(const std::string &what, int code, const std::string &heard = "");

// Throws library_failure with failure_text unless `code` is 0.
void require_ok(const std::string &what, int code);

}  // namespace pkictl

#endif
