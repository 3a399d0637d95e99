// Writes what each fuzzer starts from.
//
//   make_seeds FOLDER      FOLDER/fuzz_NAME/...
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <libpki/libpki.h>
#include <openssl/pkcs7.h>

#include "crl_case.h"
#include "fixed_key.h"
#include "marshal_form.h"
#include "support/crl_der.h"
#include "support/ocsp_responder.h"

namespace {

using namespace support;
using fuzz::crl_choices;

class seed_folder {
 public:
  seed_folder(const std::string &root, const std::string &target) : folder_(root + "/" + target) {
    std::filesystem::create_directories(folder_);
    // A fuzzer that is given one folder puts what it finds there.
    for (const auto &old : std::filesystem::directory_iterator(folder_))
      std::filesystem::remove(old.path());
  }
  void add(const std::string &octets) {
    std::ofstream(folder_ + "/seed-" + std::to_string(count_++), std::ios::binary) << octets;
  }

 private:
  std::string folder_;
  int count_ = 0;
};

std::string run_of_entries(int count, const std::string &extensions = "") {
  std::string entries;
  for (int i = 0; i < count; i++)
    entries += crl_entry(std::string({'\x21', static_cast<char>(i >> 8), static_cast<char>(i)}),
                         extensions);
  return entries;
}

std::vector<crl_fields> kinds_of_crl() {
  crl_fields plain, bare, indirect, delta, scoped, long_list, reasons, many, ecdsa, longest;
  plain.entries = crl_entry(4) + crl_entry(fuzz::short_serial, reason_code(1)) + crl_entry(9);
  plain.extensions = crl_number(3) + authority_key_id({.key_id = "\x01\x02\x03"});
  bare.version.clear();
  bare.next_update.clear();
  indirect.entries = crl_entry(4, certificate_issuer("other")) + crl_entry(fuzz::short_serial) +
                     crl_entry(fuzz::short_serial, certificate_issuer("issuer")) + crl_entry(6);
  indirect.extensions = issuing_dist_point({.uris = {"http://a/"}, .indirect = true});
  delta.entries = crl_entry(fuzz::short_serial, reason_code(8)) + crl_entry(7, reason_code(6));
  delta.extensions = crl_number(4) + delta_crl_indicator(3);
  scoped.extensions = issuing_dist_point({.user_certs = true, .reasons = 3}) +
                      freshest_crl({"http://a/", "http://b/"}) + unknown_extension(false);
  long_list.entries = run_of_entries(100);
  reasons.entries =
      run_of_entries(60, reason_code(1)) + crl_entry(fuzz::long_serial_octets, reason_code(2));
  reasons.this_update = der_generalized_time(crl_der_now - 3600);
  reasons.next_update = der_generalized_time(crl_der_now + 3600);
  many.entries = "";
  for (int i = 0; i < 66; i++)
    *many.entries += crl_entry(fuzz::short_serial);
  longest.entries = run_of_entries(400);
  ecdsa.algorithm = der_algorithm("ecdsa-with-SHA256", false);
  std::vector<crl_fields> all = {plain,     bare,    indirect, delta, scoped,
                                 long_list, reasons, many,     ecdsa, longest};
  for (crl_fields &fields : all)
    fields.signature = der_tlv(0x03, std::string("\0ABCD", 5));
  return all;
}

void make_differential_seeds(const std::string &root) {
  seed_folder folder(root, "fuzz_crl_differential");
  int count = 0;
  for (const crl_fields &fields : kinds_of_crl())
    folder.add(std::string({"\x00\x02\x08"[count++ % 3], 0, 0, 0}) + crl_octets(fields));
}

void make_decoder_seeds(const std::string &root, const std::string &target) {
  seed_folder folder(root, target);
  crl_choices choices;
  for (const crl_fields &fields : kinds_of_crl()) {
    std::string crl = crl_octets(fields);
    choices = {};
    folder.add(write_crl_case(choices, crl));
    choices.length_kind = 1;
    choices.delivery = 1;
    folder.add(write_crl_case(choices, crl));
    choices.format = 2;
    choices.delivery = 2;
    folder.add(write_crl_case(choices, pkcs7_octets(crl)));
    choices.format = 0;
    crl_pkcs7_fields with_certs;
    with_certs.certificates = der_tlv(0x30, std::string(700, 'c'));
    folder.add(write_crl_case(choices, pkcs7_octets(crl, with_certs)));
  }
  // A list that goes on behind the body with its last entry.
  std::string entry = crl_entry(77, reason_code(1));
  std::string head = tbs_cert_list({}).substr(4);
  std::string list = der_tlv(0x30, std::string(100000, 'x')).substr(0, 5);
  choices = {};
  choices.length_kind = 1;
  choices.end = 3;
  choices.cut[1] = 0x40;
  choices.repeated = static_cast<uint8_t>(entry.size() - 1);
  std::string large("\x30\x83\x02\x00\x00\x30\x83\x01\xf0\x00", 10);
  folder.add(write_crl_case(choices, large + head + list + entry));
}

void make_http_seeds(const std::string &root) {
  seed_folder folder(root, "fuzz_http_response");
  const std::string separator = "\xff\xfe";
  const std::string good =
      "HTTP/1.0 200 OK\r\nContent-Type: text/plain; charset=x\r\nContent-Length: 4\r\n\r\nbody";
  const std::string moved = "HTTP/1.1 302 Found\r\nLocation: http://other.test:81/x?y\r\n\r\n";
  std::string loop;
  for (int i = 0; i < 21; i++)
    loop += moved + separator;
  for (char how : {0, 1, 2, 3, 6})
    for (const std::string &answers :
         {good, moved + separator + good, loop + good,
          std::string("HTTP/1.0 404 No\r\nContent-Length: 0\r\n\r\n"),
          std::string("HTTP/1.0 200 OK\nContent-Length: -1\n\nbody"),
          std::string("HTTP/1.0 200 OK\r\nContent-Length: 99999999999\r\n\r\n")})
      folder.add(how + std::string(1, '\x05') + answers);
}

std::string xml(const std::string &name, const std::string &content, const std::string &more = "") {
  return "<" + name + more + ">" + content + "</" + name + ">";
}

void make_ca_info_seeds(const std::string &root) {
  seed_folder folder(root, "fuzz_ca_info");
  std::string cert = xml("X509Certificate", base64_lines(der(fuzz::fixed_ca())));
  std::string scep = xml("SCEP", cert + "<Digest alg=\"SHA1\"/><Cipher alg=\"DES-CBC\"/>",
                         " url=\"http://ca.test/scep?a=1&amp;b=2\"");
  std::string body = xml("IssuerName", "CN=sample CA, C=US") + xml("CertReqMethod", scep) +
                     xml("CertLookupMethod", xml("SCEPGetCert", cert, " url=\"http://a/\"") +
                                                 "<LDAPGetCert url=\"ldap://a\"/>") +
                     xml("CertStatusQueryMethod", xml("OCSP", cert, " url=\"http://a/\"")) +
                     xml("TrustedRoots", cert) + xml("AdditionalCerts", cert);
  folder.add(xml("QRNPkiConfig", body));
  folder.add(xml("QRNPkiConfig", xml("Expires", "Tue, 14 Nov 2023 22:13:20 GMT") + body));
  folder.add(xml("QRNPkiConfig", xml("IssuerName", "CN=&#65;&lt;") + "<x><y/></x>"));
}

void make_pkcs7_seeds(const std::string &root) {
  seed_folder folder(root, "fuzz_pkcs7");
  unsigned char *signed_octets = nullptr;
  int size = 0;
  if (sign_bytes("content", 7, fuzz::fixed_key().get(), &signed_octets, &size) == PKI_OK)
    folder.add(std::string(reinterpret_cast<char *>(signed_octets), static_cast<size_t>(size)));
  free(signed_octets);
  for (const EVP_CIPHER *cipher : {EVP_aes_128_cbc(), EVP_des_ede3_cbc()}) {
    PKCS7 *message = nullptr;
    unsigned char *der = nullptr;
    if (pkcs7_encrypt(fuzz::fixed_ca().get(), "content", 7, cipher, &message) == PKI_OK &&
        (size = i2d_PKCS7(message, &der)) > 0)
      folder.add(std::string(reinterpret_cast<char *>(der), static_cast<size_t>(size)));
    OPENSSL_free(der);
    PKCS7_free(message);
  }
  folder.add(pkcs7_octets(crl_octets({})));
}

void make_ocsp_seeds(const std::string &root) {
  seed_folder folder(root, "fuzz_ocsp_response");
  ocsp_options options;
  options.signer = fuzz::fixed_ca();
  options.signing_key = fuzz::fixed_key();
  options.single.id = ocsp_cert_id(fuzz::fixed_device(), fuzz::fixed_ca());
  options.nonce = ocsp_nonce::none;
  for (int status :
       {V_OCSP_CERTSTATUS_GOOD, V_OCSP_CERTSTATUS_REVOKED, V_OCSP_CERTSTATUS_UNKNOWN}) {
    options.single.status = status;
    options.by_key = status != V_OCSP_CERTSTATUS_GOOD;
    folder.add(make_ocsp_response(options));
  }
  options.certs = {fuzz::fixed_ca()};
  options.single.next_update = ocsp_left_out;
  folder.add(make_ocsp_response(options));
  options.response_status = 1;
  options.with_bytes = false;
  folder.add(make_ocsp_response(options));
}

std::string marshalled(fuzz::node *object) {
  stream out = empty_stream();
  marshall(out.get(), object, &fuzz::form_of_nodes().item, nullptr, 0);
  return octets_in(out);
}

std::string numbers_in(int start) {
  return block(start) + int_block(0x31, 0x41414141) + int_block(0x32, 0x42424242) +
         int_block(0x33, 0x43434343) + block(0x3f);
}

void make_marshal_seeds(const std::string &root) {
  seed_folder folder(root, "fuzz_unmarshall");
  auto *first = static_cast<fuzz::node *>(fuzz::new_node());
  folder.add(marshalled(first));
  first->record = static_cast<record *>(new_record());
  first->record->choice.kind = record_number;
  folder.add(marshalled(first));
  fill(first->record);
  folder.add(marshalled(first));
  first->next = static_cast<fuzz::node *>(fuzz::new_node());
  first->next->digested = make_note("digested", 1);
  folder.add(marshalled(first));
  first->signed_note = make_note("signed", 2);
  folder.add(marshalled(first));
  // An inline choice that stands twice, each time another alternative.
  const std::string text = block(0x97) + block(0x81, "one") + block(0x84);
  const std::string note = block(0x97) + block(0x83) + block(note_end) + block(0x84);
  folder.add(block(fuzz::node_start) + block(fuzz::node_record) + text + note + text + block(0x9f) +
             block(fuzz::node_end) + end_of_data);
  // And alternatives that are structures, or a choice, within.
  const std::string event = block(0x51) + block(0x21, "event") + block(0x2f);
  const std::string nested = block(0x53) + block(0x41, "deep") + block(0x4f);
  std::string varied;
  for (const std::string &value : {numbers_in(0x52), event, nested, numbers_in(0x52),
                                   block(0x53) + block(0x4f), block(0x54, "text"), nested, event})
    varied += block(fuzz::node_varied) + value + block(0x5f);
  folder.add(block(fuzz::node_start) + varied + block(fuzz::node_end) + end_of_data);
  // And with decoders of the host's.
  for (const std::string &value :
       {block(0x71), numbers_in(0x72),
        block(0x73) + block(0x61, "shelf") + block(0x62) + block(0x6f), block(0x74)})
    for (int tag : {fuzz::node_hosted, fuzz::node_hosted_again})
      folder.add(block(fuzz::node_start) + block(tag) + value + block(0x7f) +
                 block(fuzz::node_end) + end_of_data);
  fuzz::free_node(first);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds FOLDER\n");
    return 2;
  }
  libpki_init();
  make_decoder_seeds(argv[1], "fuzz_crl_decoder");
  make_decoder_seeds(argv[1], "fuzz_crl_scan");
  make_differential_seeds(argv[1]);
  make_http_seeds(argv[1]);
  make_ca_info_seeds(argv[1]);
  make_pkcs7_seeds(argv[1]);
  make_ocsp_seeds(argv[1]);
  make_marshal_seeds(argv[1]);
  return 0;
}
