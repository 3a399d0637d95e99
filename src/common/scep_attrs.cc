// The transaction attributes of SCEP messages.
#include <libpki/attributes.h>
#include <libpki/error.h>

#include "common/oids.h"
#include "common/scep_msg.h"

namespace pki {

namespace {

constexpr int max_tx_attributes = 6;

// Which attributes a message has, in their order.
struct tx_input {
  X509_ATTRIBUTE *(*create)(const tx_input &input);
  const void *octets;
  int length;
  int number;
  int row;
  bool present;
};

int nid_of(const tx_input &input) {
  return registered_nid(input.row);
}

X509_ATTRIBUTE *create_number(const tx_input &input) {
  return create_printablestring_attr_num(nid_of(input), input.number);
}

X509_ATTRIBUTE *create_text(const tx_input &input) {
  return create_printablestring_attr(nid_of(input), static_cast<const char *>(input.octets));
}

X509_ATTRIBUTE *create_octets(const tx_input &input) {
  return create_octetstring_attr(nid_of(input), input.octets, input.length);
}

tx_input number_input(int row, int number) {
  return {create_number, nullptr, 0, number, row, number >= 0};
}

tx_input octets_input(int row, const void *octets, int length) {
  return {create_octets, octets, length, 0, row, octets != nullptr && length >= 0};
}

}  // namespace

tx_attributes::~tx_attributes() {
  for (int i = 0; attributes_ && i < count_; i++)
    X509_ATTRIBUTE_free(attributes_[i]);
  std::free(attributes_);
}

int read_transaction(PKCS7 *message, scep_transaction *transaction) {
  const int nonce_nid = registered_nid(PKI_OID_SCEP_SENDER_NONCE);
  if (int error =
          get_string_attr(message, registered_nid(PKI_OID_SCEP_TRANSACTION_ID), &transaction->id))
    return error;
  if (int error = get_os_attr_val(message, nonce_nid, &transaction->nonce))
    return error;
  if (!transaction->nonce)
    return PKI_ATTR_NOT_FOUND;
  return get_os_attr_len(message, nonce_nid, &transaction->nonce_length);
}

}  // namespace pki

using namespace pki;

X509_ATTRIBUTE **gen_tx_attrs(int msg_type, const char *tx_id, const void *sender_nonce,
                              int sender_nonce_len, const void *recipient_nonce,
                              int recipient_nonce_len, int pki_status, int fail_info, int *count) {
  if (!count)
    return nullptr;
  const tx_input inputs[max_tx_attributes] = {
      number_input(PKI_OID_SCEP_MESSAGE_TYPE, msg_type),
      {create_text, tx_id, 0, 0, PKI_OID_SCEP_TRANSACTION_ID, tx_id != nullptr},
      octets_input(PKI_OID_SCEP_SENDER_NONCE, sender_nonce, sender_nonce_len),
      octets_input(PKI_OID_SCEP_RECIPIENT_NONCE, recipient_nonce, recipient_nonce_len),
      number_input(PKI_OID_SCEP_PKI_STATUS, pki_status),
      number_input(PKI_OID_SCEP_FAIL_INFO, fail_info),
  };
  *count = 0;
  int present = 0;
  for (const tx_input &input : inputs)
    present += input.present;
  auto **made = static_cast<X509_ATTRIBUTE **>(
      allocate(static_cast<size_t>(present) * sizeof(X509_ATTRIBUTE *)));
  if (!made)
    return nullptr;
  int done = 0;
  for (const tx_input &input : inputs) {
    if (!input.present)
      continue;
    made[done] = input.create(input);
    if (!made[done]) {
      tx_attributes undo(made, done);
      return nullptr;
    }
    done++;
  }
  *count = done;
  return made;
}
