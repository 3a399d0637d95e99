// Why the library failed, in its own words.
#ifndef TOOLS_PKICTL_LAST_COMPLAINT_H
#define TOOLS_PKICTL_LAST_COMPLAINT_H

#include <string>

#include "tools/pkictl/log_tap.h"

namespace pkictl {

// Listens to what the library logs in the calling thread while it lives.
class last_complaint {
 public:
  last_complaint();

  // The first line of its last error, else of its last warning, in plain words; else "".
  std::string text() const;
  // The same behind ": "; else "".
  std::string behind_colon() const;

  // Why a CA rejected a SCEP request: "badCertId (4)", a number that has no name as it is, or "".
  std::string rejection() const { return rejection_; }

 private:
  void hear(int level, const std::string &line);

  std::string error_;
  std::string warning_;
  std::string rejection_;
  log_tap tap_;  // last: it uses the others
};

}  // namespace pkictl

#endif
