// The form in which the tool keeps its state: a marshal stream under a digest.
#ifndef TOOLS_PKICTL_STATE_FORMAT_H
#define TOOLS_PKICTL_STATE_FORMAT_H

#include <array>
#include <map>
#include <string>

#include "tools/common/ossl.h"
#include "tools/pkictl/secret_octets.h"

namespace pkictl {

// A provisioned CA: where its document came from, the document as signed, and the key that
// verifies it.
struct saved_ca {
  std::string url;
  std::string document;  // DER
  tools::key_ptr doc_key;
};

// A key pair, and what was issued for it, by label.
struct saved_key {
  tools::key_ptr pair;
  std::map<std::string, tools::cert_ptr> certs;
};

struct saved_state {
  std::map<std::string, saved_ca> cas;
  std::map<std::string, saved_key> keys;
};

// Letters, digits, and "._-@+" behind the first, at most 100 of them.
bool is_label(const std::string &text);

// Throws library_failure.
secret_octets encode_state(const saved_state &state);

// Reads back all that encode_state writes and nothing else: labels that are none, a certificate
// for another key, or octets behind the end are refused too. Returns 0 or an error code of the
// library.
int decode_state(const secret_octets &octets, saved_state *state);

// Stands in front of the stream. Whoever gives the stream a further field gives it another magic:
// this version would drop the field without a word when it writes.
inline constexpr std::array<char, 4> state_magic = {'P', 'K', 'S', '1'};

/*
 * The stream, indented as it nests. Octets are an empty block, CHUNKs of at most 8192 octets, and
 * OCTETS_END: longer data would not be announced rightly (see libpki/marshal.h).
 *
 *   STATE_ENVELOPE
 *   STATE_START
 *     CAS_START
 *       CA_START LABEL URL_START... DOCUMENT_START... DOCUMENT_KEY CA_END ...
 *     CAS_END
 *     KEYS_START
 *       KEY_START LABEL PRIVATE_KEY
 *         CERTS_START
 *           CERT_START LABEL DER_START... CERT_END ...
 *         CERTS_END
 *       KEY_END ...
 *     KEYS_END
 *   STATE_END
 *   DIGEST          SHA-1 of STATE_START to STATE_END
 *   EOD
 *
 * DOCUMENT_KEY is a SubjectPublicKeyInfo, PRIVATE_KEY a PKCS#8 PrivateKeyInfo. Numbers are never
 * given another meaning.
 */
enum state_tag : int {
  tag_end_of_data,
  tag_envelope,
  tag_digest,
  tag_state,
  tag_state_end,
  tag_cas,
  tag_cas_end,
  tag_ca,
  tag_ca_end,
  tag_keys,
  tag_keys_end,
  tag_key,
  tag_key_end,
  tag_certs,
  tag_certs_end,
  tag_cert,
  tag_cert_end,
  tag_label,
  tag_url,
  tag_document,
  tag_document_key,
  tag_private_key,
  tag_der,
  tag_chunk,
  tag_octets_end,
  // Never written to a file: in a dump it stands for a private key, with the key's length.
  tag_private_key_length,
  state_tag_count
};

// decode_state's code for a stream that is whole, but not one of ours.
inline constexpr int foreign_content = 63;  // PKI_INVALID_ARGS

// The names of the tags, for dump_raw_bio.
extern const std::array<const char *, state_tag_count> state_tag_names;

}  // namespace pkictl

#endif
