// Peers behind the HTTP client: it connects, waits and reads, and a script says what it gets. (The
// linker puts these in front of the client's own: --wrap.)
#ifndef FUZZ_SCRIPTED_PEER_H
#define FUZZ_SCRIPTED_PEER_H

#include <string>
#include <vector>

namespace fuzz {

struct peer_script {
  std::vector<std::string> answers;  // a connection each; there is no further one
  unsigned seed = 0;                 // for how the answers are cut; 0: not at all
  bool reset = false;                // an answer ends with an error
};

void play(const peer_script &script);
// Connections since.
size_t connections();

}  // namespace fuzz

#endif
