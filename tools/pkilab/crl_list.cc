#include "tools/pkilab/crl_list.h"

#include <openssl/objects.h>

#include "tools/common/failure.h"
#include "tools/common/keys.h"
#include "tools/pkilab/crl_der.h"
#include "tools/pkilab/crl_entries.h"

namespace pkilab {

namespace {

using der::context;
using der::sequence;
using der::wrap;

constexpr const char *signed_data_oid = "1.2.840.113549.1.7.2";
constexpr const char *data_oid = "1.2.840.113549.1.7.1";

// Octets in front of the generated entries, those entries, and octets behind them.
struct parts {
  std::string front;
  generated_entries entries;
  std::string back;

  uint64_t length() const { return front.size() + entries.length() + back.size(); }
  bool make(const octet_sink &sink) const {
    return sink(front) && entries.make(sink) && sink(back);
  }
};

// The AlgorithmIdentifier of a signature by this key.
std::string algorithm(EVP_PKEY *key, const std::string &digest) {
  const EVP_MD *known = EVP_get_digestbyname(digest.c_str());
  int nid = NID_undef;
  int key_type = EVP_PKEY_get_base_id(key);
  if (!known || OBJ_find_sigid_by_algs(&nid, EVP_MD_get_type(known), key_type) != 1)
    throw tools::usage_failure("CRL option 'digest': no signature is made with '" + digest +
                               "'; try SHA1");
  char oid[80];
  OBJ_obj2txt(oid, sizeof oid, OBJ_nid2obj(nid), 1);
  bool has_null = key_type == EVP_PKEY_RSA;
  return wrap(sequence, der::oid(oid) + (has_null ? wrap(der::null, "") : ""));
}

// TBSCertList without its header.
parts unsigned_list(const crl_material &material, const crl_options &options) {
  parts made = {"",
                {static_cast<uint64_t>(options.generated), options.reason_in_each},
                material.entries + material.extensions};
  std::string version_2 = der::number("1");
  made.front = version_2 + algorithm(material.key, options.digest) + der::name(material.issuer) +
               der::time(options.this_update, material.now);
  if (options.next_update)
    made.front += der::time(*options.next_update, material.now);
  // An empty list must be left out.
  if (uint64_t length = made.entries.length() + material.entries.size(); length > 0)
    made.front += der::header(sequence, length);
  return made;
}

std::string sign(const parts &list, EVP_PKEY *key, const std::string &digest) {
  std::unique_ptr<EVP_MD_CTX, tools::free_with<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
  const EVP_MD *known = EVP_get_digestbyname(digest.c_str());
  bool done = context && EVP_DigestSignInit(context.get(), nullptr, known, nullptr, key) == 1 &&
              list.make([&context](std::string_view octets) {
                return EVP_DigestSignUpdate(context.get(), octets.data(), octets.size()) == 1;
              });
  size_t size = 0;
  done = done && EVP_DigestSignFinal(context.get(), nullptr, &size) == 1;
  std::string signature(size, '\0');
  done =
      done && EVP_DigestSignFinal(context.get(),
                                  reinterpret_cast<unsigned char *>(signature.data()), &size) == 1;
  if (!done)
    throw tools::failure("cannot sign the CRL: " + tools::openssl_reason());
  signature.resize(size);
  return signature;
}

octet_stream stream_of(parts whole) {
  uint64_t length = whole.length();
  return {length, [whole = std::move(whole)](const octet_sink &sink) { return whole.make(sink); }};
}

}  // namespace

octet_stream make_crl(const crl_material &material, const crl_options &options) {
  parts list = unsigned_list(material, options);
  list.front = der::header(sequence, list.length()) + list.front;
  std::string signature = sign(list, material.key, options.digest);
  if (options.damaged_signature)
    signature.back() = static_cast<char>(signature.back() ^ 1);
  std::string no_unused_bits(1, '\0');
  list.back +=
      algorithm(material.key, options.digest) + wrap(der::bit_string, no_unused_bits + signature);
  list.front = der::header(sequence, list.length()) + list.front;
  return stream_of(std::move(list));
}

octet_stream in_pkcs7(octet_stream crl, const std::vector<X509 *> &certs) {
  std::string cert_octets;
  for (X509 *cert : certs)
    cert_octets += tools::cert_der(cert);
  std::string no_set = wrap(der::set, "");
  std::string front = der::number("1") + no_set + wrap(sequence, der::oid(data_oid)) +
                      (certs.empty() ? "" : wrap(context(0), cert_octets)) +
                      der::header(context(1), crl.length);
  std::string back = no_set;  // no signerInfos
  auto put_header = [&](unsigned char tag) {
    front = der::header(tag, front.size() + crl.length + back.size()) + front;
  };
  put_header(sequence);
  put_header(context(0));
  front = der::oid(signed_data_oid) + front;
  put_header(sequence);
  uint64_t length = front.size() + crl.length + back.size();
  return {length, [front, back, make = std::move(crl.make)](const octet_sink &sink) {
            return sink(front) && make(sink) && sink(back);
          }};
}

}  // namespace pkilab
