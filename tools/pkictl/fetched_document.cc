#include "tools/pkictl/fetched_document.h"

#include <board/board.h>
#include <libpki/error.h>
#include <libpki/http.h>

#include <cstdlib>
#include <memory>

#include "tools/common/failure.h"
#include "tools/common/ossl.h"
#include "tools/pkictl/board_problem.h"
#include "tools/pkictl/last_complaint.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/log_words.h"

namespace pkictl {

namespace {

constexpr int serial_number_capacity = 48;

template <class T>
using malloc_ptr = std::unique_ptr<T, tools::free_with<free>>;

std::string board_serial_number() {
  char text[serial_number_capacity] = {};
  if (board_info_serialnumber(text, sizeof text) != 0)
    throw tools::library_failure(
        PKI_FLASH_ERROR, "cannot fetch the document: " + code_text_and_number(PKI_FLASH_ERROR) +
                             ": " + board_problem(board_wants::serial_number));
  return text;
}

}  // namespace

std::string fetch_document(const std::string &url) {
  char *copy = nullptr;
  char *host = nullptr;
  char *path = nullptr;
  require_ok("cannot fetch " + url, parse_url(url.c_str(), &copy, &host, &path));
  malloc_ptr<char> owner(copy);
  std::string target = std::string(path) + "?serial=" + board_serial_number();
  int status = 0;
  int length = 0;
  void *body = nullptr;
  last_complaint heard;
  int code =
      send_http_get(host, target.c_str(), &status, nullptr, &length, nullptr, 0, &body, nullptr);
  if (code != PKI_OK)
    throw tools::library_failure(code, failure_text("cannot fetch " + url, code, heard.text()));
  malloc_ptr<void> octets(body);
  if (!body)
    throw tools::failure("cannot fetch " + url + " again to keep it: " + answered_text(status));
  return std::string(static_cast<char *>(body), static_cast<size_t>(length));
}

}  // namespace pkictl
