#include "tools/pkictl/library.h"

#include <libpki/error.h>
#include <libpki/store.h>

#include "tools/common/failure.h"
#include "tools/common/name_advice.h"
#include "tools/common/text.h"

namespace pkictl {

namespace {

struct code_row {
  unsigned code;
  const char *name;
  const char *meaning;
};

constexpr code_row code_rows[] = {
#include "code_rows.inc"
};

// What the person at the command line can do about a code; "" where the text says it all.
std::string hint(int code, const std::string &heard) {
  if (tools::is_name_code(code))
    return tools::name_advice("issuer name", code, heard);
  switch (code) {
    case PKI_OUT_OF_MEMORY:
      return "memory ran out, or the answer is larger than 64 MiB";
    case PKI_P7_DECODE_ERROR:
      return "this is no whole PKCS#7 message; sign the document with 'pkictl cainfo sign'";
    case PKI_SIG_VERIFY_FAILED:
      return "another key signed it, or it was changed; give the signer's key with --doc-key";
    case PKI_UNKNOWN_P7_CONTENT_TYPE:
      return "the signed content is no plain data; sign the document with 'pkictl cainfo sign'";
    case PKI_XML_STATE_STACK_OVFL:
      return "elements are nested deeper than 39";
    case PKI_XML_ATTR_NOT_FOUND:
      return "a method lacks its url, or Digest or Cipher its alg" + tools::behind_colon(heard);
    case PKI_XML_CERT_DEC_FAILED:
      return "an X509Certificate is not the base64 DER of a certificate, in lines";
    case PKI_XML_CA_PTR_PARSE_ERROR:
      return "the document is not well-formed XML";
    case PKI_XML_INTERNAL_ERROR_NO_BUF:
      return "Expires, IssuerName or X509Certificate has no text";
    case PKI_INVALID_URL:
      return "give a URL that begins with http://";
    case PKI_HTTP_ERROR:
      return heard.empty() ? "check the URL and that the server answers 200 with a Content-Length"
                           : heard;
    case PKI_HTTP_READ_RESP_ERROR:
      return heard.empty() ? "the head of the server's answer could not be read" : heard;
    default:
      break;
  }
  if (code >= PKI_TIME_DAY_NOT_FOUND && code <= PKI_TIME_SECONDS_NOT_FOUND)
    return "Expires must be the last element; 'pkictl cainfo sign' puts it there";
  return "";
}

}  // namespace

void start_library() {
  static bool started = false;
  if (started)
    return;
  require_ok("cannot start the library", libpki_init());
  started = true;
}

std::string code_name(unsigned code) {
  for (const code_row &row : code_rows)
    if (row.code == code)
      return row.name;
  return "";
}

std::string code_meaning(unsigned code) {
  for (const code_row &row : code_rows)
    if (row.code == code)
      return row.meaning;
  return "";
}

std::string code_text(unsigned code) {
  return tools::trim(pki_strerror(code));
}

json code_json(unsigned code) {
  return {{"code", code}, {"name", code_name(code)}, {"text", code_text(code)}};
}

json failure_json(int code, const std::string &message) {
  json error = code_json(static_cast<unsigned>(code));
  error["message"] = message;
  return error;
}

std::string code_text_and_number(int code) {
  return code_text(static_cast<unsigned>(code)) + " (" + std::to_string(code) + ")";
}

std::string failure_text(const std::string &what, int code, const std::string &heard) {
  std::string text = what + ": " + code_text_and_number(code);
  std::string advice = hint(code, heard);
  return advice.empty() ? text : text + ": " + advice;
}

void require_ok(const std::string &what, int code) {
  if (code != PKI_OK)
    throw tools::library_failure(code, failure_text(what, code));
}

}  // namespace pkictl
