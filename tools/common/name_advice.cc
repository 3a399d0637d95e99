#include "tools/common/name_advice.h"

#include <libpki/error.h>

namespace tools {

bool is_name_code(int code) {
  return code == PKI_DN_UNKNOWN_KEY || code == PKI_DN_NO_VALUE || code == PKI_DN_OPEN_QS;
}

std::string name_advice(const std::string &kind, int code, const std::string &heard) {
  std::string form = "write the " + kind + " as in " +
                     (kind == "subject" ? "CN=device" : "CN=Example CA") +
                     ", O=Example, C=US; a value with a comma stands in double quotes, as in"
                     " O=\"Example, Inc.\"";
  if (code != PKI_DN_UNKNOWN_KEY)
    return form;
  return (heard.empty() ? "" : heard + "; ") + "the letter case of a key counts; " + form;
}

}  // namespace tools
