// A server that is none: the library's request and its timed reads end here (the linker puts
// them in front: --wrap), and a script says what they get.
#ifndef FUZZ_SCRIPTED_SERVER_H
#define FUZZ_SCRIPTED_SERVER_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

struct server_script {
  std::string body;
  size_t repeated = 0;  // octets at the body's end that come again and again
  size_t size = 0;      // octets that come at all
  int content_length = -1;
  bool has_content_type = true;
  enum class pieces : unsigned char { whole, single, small, any, one_cut } delivery = pieces::whole;
  uint32_t seed = 1;   // for where the pieces end
  bool reset = false;  // in the end there is an error instead of the end of the stream
};

// What the next request gets. The script stays the caller's.
void play(const server_script &script);

// Its next piece, as timed_read gives it.
long read_scripted(void *buffer, size_t length);

}  // namespace fuzz

#endif
