#include "tools/pkictl/board_problem.h"

#include <board/board.h>
#include <openssl/crypto.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace pkictl {

namespace {

// As large as the library's own.
constexpr int serial_number_capacity = 48;
constexpr int secret_capacity = 256;

int serial_number_failure() {
  char text[serial_number_capacity] = {};
  return board_info_serialnumber(text, sizeof text);
}

int secret_failure() {
  unsigned char octets[secret_capacity] = {};
  int length = sizeof octets;
  int failure = board_key_secret(octets, &length);
  OPENSSL_cleanse(octets, sizeof octets);
  return failure;
}

// The reference board library's files and numbers.
std::string text_of(const std::string &name, int failure) {
  const char *folder = getenv("BOARD_INFO_DIR");
  std::string file = std::string(folder ? folder : "/etc/board") + "/" + name;
  switch (failure) {
    case EILSEQ:
      return file +
             " has a character that is not allowed; take letters, digits and punctuation of"
             " ASCII, without blanks";
    case ENODATA:
      return file + " is empty";
    case EMSGSIZE:
      return file + " is too long";
    default:
      return "cannot read " + file + ": " + strerror(failure) +
             "; put it there, or name another folder in BOARD_INFO_DIR";
  }
}

}  // namespace

std::string board_problem(board_wants wanted, const std::string &heard) {
  if (int failure = serial_number_failure())
    return text_of("serialnumber", failure);
  int failure = wanted == board_wants::secret ? secret_failure() : 0;
  if (failure)
    return text_of("secret", failure);
  return heard.empty() ? "the board library failed" : "the board library failed: " + heard;
}

}  // namespace pkictl
