// The state's file: replaced as a whole, by one writer at a time.
#ifndef TOOLS_PKICTL_STATE_FILE_H
#define TOOLS_PKICTL_STATE_FILE_H

#include <string>

#include "tools/pkictl/secret_octets.h"

namespace pkictl {

// Everything throws failure.

// Keeps other writers of a folder's state away while it lives; waits until they are done. The
// folder is made if need be, for its owner only. Its file is never removed: whoever waits for it
// would be left with one that nobody else looks at.
class state_lock {
 public:
  explicit state_lock(const std::string &folder);
  ~state_lock();
  state_lock(const state_lock &) = delete;
  state_lock &operator=(const state_lock &) = delete;

 private:
  int fd_;
};

// The file's octets. Returns false where there is no file.
bool read_state_file(const std::string &path, secret_octets *octets);

// The file `path` becomes `octets`, mode 0600, or stays as it is, whatever happens on the way: a
// new one is written beside it ("PATH.new"), brought to the disk, and renamed. The caller holds
// the lock.
void replace_state_file(const std::string &path, const secret_octets &octets);

}  // namespace pkictl

#endif
