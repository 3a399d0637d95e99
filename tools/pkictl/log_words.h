// Lines of the library's log, fit for an error message.
#ifndef TOOLS_PKICTL_LOG_WORDS_H
#define TOOLS_PKICTL_LOG_WORDS_H

#include <string>

namespace pkictl {

// What to do about an answer that is not 200: "the server answered 404; check the URL".
std::string answered_text(int status);

// The same line for somebody who does not know the library: without the whole message in
// hexadecimal at its end, and with what its numbers mean.
std::string in_plain_words(const std::string &line);

}  // namespace pkictl

#endif
