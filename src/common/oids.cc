#include "common/oids.h"

#include <libpki/error.h>
#include <openssl/objects.h>

#include "common/log.h"
#include "common/ossl_ptr.h"

#define VENDOR "1.3.6.1.4.1." PKI_ENTERPRISE_NUMBER
#define VERISIGN "2.16.840.1.113733"

int32_t *pki_nid_list = nullptr;

namespace {

struct oid_row {
  const char *oid;
  const char *short_name;
  const char *long_name;
};

// The order is the index into pki_nid_list.
const oid_row oid_list[] = {
    {VENDOR, "zelvo", nullptr},
    {VENDOR ".1", "zelvo-pki", nullptr},
    {VENDOR ".1.1", "cert-req-attrs", nullptr},
    {VENDOR ".1.1.1", "qrn-serial-number", nullptr},
    {VENDOR ".1.1.2", "qrn-secret", nullptr},
    {VENDOR ".1.2", "truncated-crl", nullptr},
    {VERISIGN, "verisign", nullptr},
    {VERISIGN ".1", "verisign-pki", nullptr},
    {VERISIGN ".1.9", "verisign-attributes", nullptr},
    {VERISIGN ".1.9.2", "verisign-message-type", nullptr},
    {VERISIGN ".1.9.3", "verisign-pki-status", nullptr},
    {VERISIGN ".1.9.4", "verisign-failure-info", nullptr},
    {VERISIGN ".1.9.5", "verisign-sender-nonce", nullptr},
    {VERISIGN ".1.9.6", "verisign-recip-nonce", nullptr},
    {VERISIGN ".1.9.7", "verisign-trans-id", nullptr},
    {VERISIGN ".1.9.8", "verisign-extension-req", nullptr},
    {VERISIGN ".1.9.9", "verisign-version", nullptr},
    {VERISIGN ".1.9.10", "verisign-dualstatus", nullptr},
};
static_assert(sizeof oid_list / sizeof oid_list[0] == PKI_OID_COUNT);

int32_t registered = 0;

// The row's object with this number. Made from its octets: OBJ_txt2obj finds an object that
// OpenSSL knows by half and fails.
pki::asn1_object_ptr object_of(const oid_row &row, int nid, const char *long_name) {
  unsigned char octets[64];
  int length = a2d_ASN1_OBJECT(octets, sizeof octets, row.oid, -1);
  return pki::asn1_object_ptr(
      length < 1 ? nullptr : ASN1_OBJECT_create(nid, octets, length, row.short_name, long_name));
}

// Does OpenSSL find the object under its number, identifier and short name? When memory runs out
// within OBJ_create, OpenSSL 3.0 may leave any of them out and report success.
bool is_complete(int nid, const ASN1_OBJECT *object) {
  const char *short_name = OBJ_nid2obj(nid) ? OBJ_nid2sn(nid) : nullptr;
  return short_name && OBJ_sn2nid(short_name) == nid && OBJ_obj2nid(object) == nid;
}

// The number of an object that is there already, if only under its short name.
int known_nid(const oid_row &row, const ASN1_OBJECT *object) {
  int nid = OBJ_obj2nid(object);
  if (nid != NID_undef)
    return nid;
  nid = OBJ_sn2nid(row.short_name);
  if (nid == NID_undef || !OBJ_nid2obj(nid) || OBJ_cmp(OBJ_nid2obj(nid), object) != 0)
    return NID_undef;
  return nid;
}

// OpenSSL 3.0 refuses to create an object twice, and never forgets one: an earlier registration
// or the host may have made it, and then its number is the one to use.
int nid_of(const oid_row &row) {
  pki::asn1_object_ptr object = object_of(row, NID_undef, nullptr);
  if (!object)
    return NID_undef;
  int nid = known_nid(row, object.get());
  if (nid == NID_undef)
    nid = OBJ_create(row.oid, row.short_name, row.long_name);
  if (nid < 1 || is_complete(nid, object.get()))
    return nid;
  // The host may have named it, if only at length.
  const char *known_name = OBJ_nid2obj(nid) ? OBJ_nid2ln(nid) : nullptr;
  pki::asn1_object_ptr whole = object_of(row, nid, known_name ? known_name : row.long_name);
  bool completed = whole && OBJ_add_object(whole.get()) == nid && is_complete(nid, object.get());
  return completed ? nid : NID_undef;
}

bool create_objects(int32_t *nids) {
  for (int row = 0; row < PKI_OID_COUNT; row++) {
    nids[row] = nid_of(oid_list[row]);
    if (nids[row] < 1)
      return false;
  }
  return true;
}

}  // namespace

namespace pki {

int registered_nid(int row) {
  return registered ? pki_nid_list[row] : NID_undef;
}

}  // namespace pki

int pki_register_oids(void) {
  if (registered)
    return 1;
  pki_nid_list = static_cast<int32_t *>(pki::allocate(PKI_OID_COUNT * sizeof(int32_t)));
  if (!pki_nid_list) {
    syslog(pki::log_emergency, "couldn't allocate nid-list - out of memory");
    return 0;
  }
  if (!create_objects(pki_nid_list)) {
    syslog(pki::log_emergency, "couldn't allocate nid-list element - probably out of memory");
    log_openssl_errors(pki::log_emergency);
    OBJ_cleanup();
    // The pointer is left as it is: nothing reads it until a later call replaces it.
    std::free(pki_nid_list);
    return 0;
  }
  registered = 1;
  return 1;
}

void pki_cleanup_oids(void) {
  if (!registered)
    return;
  OBJ_cleanup();
  std::free(pki_nid_list);
  registered = 0;
}
