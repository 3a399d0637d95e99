// OpenSSL objects for tests of CRLs, decoded from octets as they would come from outside.
#ifndef TESTS_UNIT_VERIFIER_CRL_CACHE_CRL_OBJECTS_H
#define TESTS_UNIT_VERIFIER_CRL_CACHE_CRL_OBJECTS_H

#include <gtest/gtest.h>
#include <libpki/libpki.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>
#include <vector>

#include "support/certs.h"
#include "support/crl_der.h"
#include "unit/verifier/extension_der.h"

namespace crl_objects {

// The object that these octets are, all of them; null for others.
template <class T>
std::shared_ptr<T> decode(const std::string &octets, T *(*d2i)(T **, const unsigned char **, long),
                          void (*release)(T *)) {
  const auto *in = reinterpret_cast<const unsigned char *>(octets.data());
  const auto *end = in + octets.size();
  std::shared_ptr<T> made(d2i(nullptr, &in, static_cast<long>(octets.size())), release);
  EXPECT_TRUE(made && in == end) << "octets that cannot be decoded";
  return made;
}

inline support::crl decode_crl(const std::string &octets) {
  return decode<X509_CRL>(octets, d2i_X509_CRL, X509_CRL_free);
}
inline support::crl crl_object(const support::crl_fields &fields = {}) {
  return decode_crl(support::crl_octets(fields));
}

using points = std::shared_ptr<CRL_DIST_POINTS>;
// `encodings`: concatenated DistributionPoints.
inline points make_points(const std::string &encodings) {
  return decode<CRL_DIST_POINTS>(support::der_tlv(0x30, encodings), d2i_CRL_DIST_POINTS,
                                 CRL_DIST_POINTS_free);
}

// The field of a point whose CRLs this CA issues.
inline std::string issued_by(const std::string &common_name) {
  return extension_der::crl_issuer(support::der_directory_name(common_name));
}

using idp = std::shared_ptr<ISSUING_DIST_POINT>;
inline idp make_idp(const support::idp_fields &fields) {
  support::crl_fields made;
  made.extensions = support::issuing_dist_point(fields);
  support::crl crl = crl_object(made);
  return idp(static_cast<ISSUING_DIST_POINT *>(
                 X509_CRL_get_ext_d2i(crl.get(), NID_issuing_distribution_point, nullptr, nullptr)),
             ISSUING_DIST_POINT_free);
}

using general_names = std::shared_ptr<GENERAL_NAMES>;
// `encodings`: concatenated GeneralNames.
inline general_names make_general_names(const std::string &encodings) {
  return decode<GENERAL_NAMES>(support::der_tlv(0x30, encodings), d2i_GENERAL_NAMES,
                               GENERAL_NAMES_free);
}

inline void release_extensions(STACK_OF(X509_EXTENSION) * list) {
  sk_X509_EXTENSION_pop_free(list, X509_EXTENSION_free);
}
using entry_extensions = std::shared_ptr<STACK_OF(X509_EXTENSION)>;
// `encodings`: concatenated extensions.
inline entry_extensions make_entry_extensions(const std::string &encodings) {
  return decode<STACK_OF(X509_EXTENSION)>(support::der_tlv(0x30, encodings), d2i_X509_EXTENSIONS,
                                          release_extensions);
}

using source = std::shared_ptr<crl_info>;
inline source make_source() {
  return source(alloc_crl_info(), free_crl_info);
}

// A list of crl_info that owns its elements.
class source_list {
 public:
  source_list() : list_(OPENSSL_sk_new_null()) {}
  source_list(const source_list &) = delete;
  source_list &operator=(const source_list &) = delete;
  ~source_list() {
    OPENSSL_sk_pop_free(list_, [](void *each) { free_crl_info(static_cast<crl_info *>(each)); });
  }

  STACK *get() const { return list_; }
  int size() const { return OPENSSL_sk_num(list_); }
  crl_info *operator[](int i) const { return static_cast<crl_info *>(OPENSSL_sk_value(list_, i)); }
  crl_info *add(const std::string &url, unsigned char flags = 0, uint32_t reasons = 0) {
    crl_info *made = create_crl_info(url.c_str(), 0, reasons, flags, nullptr, nullptr);
    OPENSSL_sk_push(list_, made);
    return made;
  }
  std::vector<std::string> urls() const {
    std::vector<std::string> all;
    for (int i = 0; i < size(); i++)
      all.emplace_back((*this)[i]->url);
    return all;
  }

 private:
  STACK *list_;
};

inline std::string one_line(const X509_NAME *name) {
  char text[400] = "";
  X509_NAME_oneline(name, text, sizeof text);
  return text;
}

}  // namespace crl_objects

#endif
