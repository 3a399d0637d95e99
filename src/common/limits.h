// Every ceiling, with its unit and its reason.
#ifndef PKI_COMMON_LIMITS_H
#define PKI_COMMON_LIMITS_H

#include <cstddef>
#include <cstdint>

namespace pki {

// HTTP. A line of a response's head, its NUL included; longer lines are no use to this client.
constexpr size_t http_line_capacity = 700;
// A Location value, its NUL included.
constexpr size_t http_location_capacity = 101;
// The whole head of a response, carriage returns included: a peer cannot send one for ever.
constexpr size_t http_max_head_bytes = 64 * 1024;
// A body that is held in memory.
constexpr int http_max_body_bytes = 64 * 1024 * 1024;
// Addresses of one name that are tried: each may cost a time-out, and whoever answers for the name
// may give thousands.
constexpr int http_max_addresses = 8;
// Each wait for a connection, for room to send, and for data.
constexpr int http_timeout_ms = 60000;
// The first request and 19 redirects.
constexpr int http_max_requests = 20;

// Store. Collected certificates: a device runs for years, so the oldest makes room.
constexpr int max_collected_certs = 512;
// DER of one of them, and of them all: a peer sends what it likes, and decoded it takes ten times
// as much; what is made for that, fifty times.
constexpr size_t max_collected_cert_bytes = 16 * 1024;
constexpr size_t max_collected_bytes = 2 * 1024 * 1024;
// Start-up steps that ran out of memory are tried again after this many seconds.
constexpr unsigned init_retry_seconds = 60;

// CA-info document. Slots of the parser's state stack, the initial state included.
constexpr int ca_info_state_slots = 40;
// Room for an element's text that is kept for the next one.
constexpr size_t kept_text_bytes = 64 * 1024;
// "?serial=", the serial number (47 characters), NUL.
constexpr size_t ca_pointer_query_bytes = 56;

// PKCS#7. Digests and signers of a signed message: OpenSSL nests a filter for each, on the stack,
// before any signature is checked.
constexpr int pkcs7_max_signers = 16;

// Names. Characters of an attribute key that are kept.
constexpr size_t name_key_characters = 99;
// The text of a name. OpenSSL adds each attribute in time that grows with those before it, and
// decodes no name above 1 MiB.
constexpr size_t name_text_bytes = 64 * 1024;

// Marshal stream. Composites within each other: reading and writing them is recursive, and the
// threads of a device have small stacks.
constexpr int marshal_max_depth = 256;
// An envelope counts for more: each octet within it goes through one more filter.
constexpr int marshal_envelope_levels = 16;
// A new stream in memory.
constexpr int write_buffer_bytes = 5000;
// The longest magic that is printed.
constexpr int dump_max_magic_bytes = 100;
// The widest indent of a dump: whoever wrote the stream may open levels without end.
constexpr int dump_max_indent = 2 * marshal_max_depth;

// Certificate statuses. Checks of signers, nested in each other; and those that one outermost check
// may lead to: depth alone would bound a chain of checks, not a tree.
constexpr int max_status_depth = 10;
constexpr int max_nested_checks = 64;
// Keys of peers' certificates that are tried for one signature: of each list that came along, and
// of those met earlier. Anybody can send any number of them, under any name, that take long.
constexpr int max_signer_keys = 16;
// Certificates of the signer's name that are taken from the peer's list: each is compared with all.
constexpr int max_peer_signers = 512;
// OCSP responders that are taken from one certificate: each may cost a time-out.
constexpr int max_responders = 8;
// An OCSP response. Nobody has signed it yet when it is decoded, to many times its size.
constexpr int ocsp_max_response_bytes = 1024 * 1024;
// Certificates of an OCSP response that are looked at.
constexpr int ocsp_max_certs = 16;

// CRLs off the network. One element (an entry, a name, all extensions), its content and its header;
// what is longer is refused.
constexpr uint32_t crl_max_element_bytes = 10000;
constexpr uint32_t crl_element_bytes = 10240;
constexpr uint32_t der_max_header_bytes = 140;
// The read buffer, and the longest read that goes through it.
constexpr uint32_t crl_read_bytes = 2000;
constexpr uint32_t crl_max_buffered_bytes = 500;
// What is passed over goes here: a part, or a header and a short element.
constexpr uint32_t der_scratch_bytes = 640;
// Entries of a long list that are kept: they all are about one certificate.
constexpr int crl_max_kept_entries = 64;
constexpr uint32_t crl_max_kept_bytes = 64 * 1024;
// CRLs that are asked for about one certificate, at one source: each may cost a time-out.
constexpr int crl_max_fetches = 64;
// Cached CRLs of a name that are looked at before one is fetched; those of them whose signers are
// refused. Signers whom a search remembers, and places whose cached CRLs it knows.
constexpr int crl_max_cached_places = 32;
constexpr int crl_max_cached_looks = 4;
constexpr int crl_max_judged_signers = 16;
constexpr int crl_max_sources = 8;
// Delta CRLs that are tried for one base.
constexpr int crl_max_delta_records = 16;

// Trust roots. A file of the device's folder, which holds one certificate: a large one is put there
// by mistake.
constexpr int root_file_max_bytes = 1024 * 1024;

// Caches.
constexpr int status_cache_records = 20;
constexpr uint32_t crl_cache_bytes = 50000;
constexpr uint32_t crl_cache_growth = 10;

}  // namespace pki

#endif
