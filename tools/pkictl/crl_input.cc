#include "tools/pkictl/crl_input.h"

#include <libpki/error.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>

#include "tools/common/failure.h"
#include "tools/common/ossl.h"
#include "tools/pkictl/last_complaint.h"
#include "tools/pkictl/library.h"

namespace pkictl {

namespace {

constexpr char der_sequence = 0x30;
constexpr size_t part_bytes = 4096;
constexpr const char *pem_begin = "-----BEGIN ";
constexpr size_t pem_begin_bytes = 11;
constexpr size_t pem_line_bytes = 80;

bool is_crl_label(const std::string &line) {
  return line.starts_with("X509 CRL-----") || line.starts_with("PKCS7-----") ||
         line.starts_with("CMS-----");
}

}  // namespace

// Base64 up to the line that ends it.
class crl_input::pem_decoder {
 public:
  pem_decoder() : context_(EVP_ENCODE_CTX_new()) {
    if (!context_)
      throw tools::failure("out of memory");
    EVP_DecodeInit(context_.get());
  }

  bool has_ended() const { return ended_; }

  // False for what is no base64.
  bool add(const char *text, size_t size) {
    std::array<unsigned char, part_bytes> octets;
    int length = 0;
    int more = EVP_DecodeUpdate(context_.get(), octets.data(), &length,
                                reinterpret_cast<const unsigned char *>(text),
                                static_cast<int>(std::min(size, octets.size())));
    ended_ = more == 0;
    if (more >= 0)
      decoded_.assign(octets.begin(), octets.begin() + length);
    used_ = 0;
    return more >= 0;
  }

  size_t take(char *buffer, size_t size) {
    size_t taken = std::min(size, decoded_.size() - used_);
    std::copy_n(decoded_.begin() + static_cast<long>(used_), taken, buffer);
    used_ += taken;
    return taken;
  }

 private:
  std::unique_ptr<EVP_ENCODE_CTX, tools::free_with<EVP_ENCODE_CTX_free>> context_;
  std::vector<unsigned char> decoded_;
  size_t used_ = 0;
  bool ended_ = false;
};

crl_input::crl_input(const std::string &file_or_url)
    : name_(file_or_url), source_(open_source(file_or_url)), progress_(source_->length()) {}

crl_input::~crl_input() = default;

void crl_input::scan(const pki_crl_query &query, pki_crl_report *report) {
  begin();
  pki_crl_source source = {read, this, pem_ ? 0 : source_->length()};
  last_complaint heard;
  int code = pki_scan_crl(&source, &query, report);
  if (broken_)
    std::rethrow_exception(broken_);
  if (code != PKI_OK)
    throw tools::library_failure(code, failure_of(code, heard.text()));
}

std::string crl_input::failure_of(int code, const std::string &heard) const {
  std::string text = name_ + ": " + code_text_and_number(code) + ": ";
  std::string octet = std::to_string(octets_);
  switch (code) {
    case PKI_ASN1_DECODE_ERROR:
      return text + "this is no CRL, or it is damaged before octet " + octet;
    case PKI_HTTP_READ_RESP_ERROR:
      return text + "this ends after " + octet + " octets, in the middle of a CRL; get it again";
    case PKI_UNKNOWN_DIGEST_ALG:
      return text + "the digest of its signature is not known here";
    default:
      return text + "the CRL cannot be read" + (heard.empty() ? "" : ": " + heard);
  }
}

ssize_t crl_input::read(void *self, void *buffer, size_t size) noexcept {
  auto *input = static_cast<crl_input *>(self);
  try {
    auto *octets = static_cast<char *>(buffer);
    size_t got = input->pem_ ? input->read_pem(octets, size) : input->read_der(octets, size);
    input->octets_ += got;
    return static_cast<ssize_t>(got);
  } catch (...) {
    input->broken_ = std::current_exception();
    return -1;
  }
}

size_t crl_input::read_raw(char *buffer, size_t size) {
  size_t got = source_->read(buffer, size);
  progress_.advance(got);
  return got;
}

size_t crl_input::read_der(char *buffer, size_t size) {
  if (pending_.empty())
    return read_raw(buffer, size);
  size_t taken = pending_.copy(buffer, size);
  pending_.erase(0, taken);
  return taken;
}

size_t crl_input::read_pem(char *buffer, size_t size) {
  std::array<char, part_bytes> text;
  for (;;) {
    size_t taken = pem_->take(buffer, size);
    if (taken > 0 || pem_->has_ended())
      return taken;
    size_t got = read_der(text.data(), text.size());
    if (got == 0)
      return 0;
    if (!pem_->add(text.data(), got))
      throw tools::failure(name_ + " is damaged: there is no base64 behind octet " +
                           std::to_string(octets_) + " of the CRL");
  }
}

void crl_input::begin() {
  std::array<char, part_bytes> part;
  size_t got = read_raw(part.data(), part.size());
  if (got == 0)
    throw tools::failure(name_ + " is empty");
  pending_.assign(part.data(), got);
  if (pending_[0] != der_sequence)
    find_pem();
}

// Text and other objects may stand in front of it.
void crl_input::find_pem() {
  std::array<char, part_bytes> part;
  while (!find_pem_label()) {
    size_t got = read_raw(part.data(), part.size());
    if (got == 0)
      throw tools::failure(name_ + " is no CRL, neither DER nor PEM (\"BEGIN X509 CRL\")");
    pending_.append(part.data(), got);
  }
  pem_ = std::make_unique<pem_decoder>();
}

// Drops what has been searched. False: more is needed.
bool crl_input::find_pem_label() {
  for (;;) {
    size_t begin = pending_.find(pem_begin);
    if (begin == std::string::npos) {
      pending_.erase(0, pending_.size() - std::min(pending_.size(), pem_begin_bytes - 1));
      return false;
    }
    pending_.erase(0, begin);
    size_t end = pending_.find('\n');
    if (end == std::string::npos && pending_.size() < pem_line_bytes)
      return false;
    bool found = end != std::string::npos && is_crl_label(pending_.substr(pem_begin_bytes, end));
    pending_.erase(0, found ? end + 1 : pem_begin_bytes);
    if (found)
      return true;
  }
}

}  // namespace pkictl
