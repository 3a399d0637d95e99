// A stream over TLS: how it ends, BIO_eof does not say.
#include <gtest/gtest.h>
#include <libpki/marshal.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "fakes/log_capture.h"
#include "support/certs.h"
#include "support/marshal.h"

namespace {

using support::block;
using support::note_item;
using support::note_octets;
using support::note_owner;
using support::stream;

struct context_closer {
  void operator()(SSL_CTX *context) const { SSL_CTX_free(context); }
};
using context = std::unique_ptr<SSL_CTX, context_closer>;

// Two ends of a TLS connection in memory, both on this thread.
struct MarshalTls : testing::Test {
  void SetUp() override {
    support::clear_openssl_errors();
    BIO *below_near = nullptr, *below_far = nullptr;
    ASSERT_EQ(BIO_new_bio_pair(&below_near, 0, &below_far, 0), 1);
    SSL_CTX_set_security_level(server.get(), 0);
    SSL_CTX_set_security_level(client.get(), 0);
    support::cert cert = support::make_cert();
    ASSERT_EQ(SSL_CTX_use_certificate(server.get(), cert.get()), 1);
    ASSERT_EQ(SSL_CTX_use_PrivateKey(server.get(), support::test_key(0).get()), 1);
    near = end_of(client.get(), below_near, true);
    far = end_of(server.get(), below_far, false);
    for (int i = 0; i < 10 && !(SSL_is_init_finished(near_tls()) && i > 3); i++) {
      SSL_do_handshake(near_tls());
      SSL_do_handshake(far_tls());
    }
    ASSERT_TRUE(SSL_is_init_finished(near_tls()) && SSL_is_init_finished(far_tls()));
    support::clear_openssl_errors();
    clear_log();
  }
  void TearDown() override {
    EXPECT_EQ(ERR_peek_error(), 0ul);
    support::clear_openssl_errors();
  }
  static stream end_of(SSL_CTX *made_by, BIO *below, bool connects) {
    SSL *tls = SSL_new(made_by);
    SSL_set_bio(tls, below, below);
    if (connects)
      SSL_set_connect_state(tls);
    else
      SSL_set_accept_state(tls);
    stream made(BIO_new(BIO_f_ssl()));
    BIO_set_ssl(made.get(), tls, BIO_CLOSE);
    return made;
  }
  static SSL *tls_of(const stream &of) {
    SSL *tls = nullptr;
    BIO_get_ssl(of.get(), &tls);
    return tls;
  }
  SSL *near_tls() const { return tls_of(near); }
  SSL *far_tls() const { return tls_of(far); }
  void send(const std::string &octets) {
    ASSERT_EQ(BIO_write(far.get(), octets.data(), static_cast<int>(octets.size())),
              static_cast<int>(octets.size()));
  }
  void close_far() { SSL_shutdown(far_tls()); }
  int read_a_block() {
    int tag = 0, length = 0;
    unsigned char *data = nullptr;
    int code = read_block(near.get(), &tag, &length, &data);
    free(data);
    return code;
  }
  context server{SSL_CTX_new(TLS_server_method())};
  context client{SSL_CTX_new(TLS_client_method())};
  stream near, far;
};

const std::vector<log_entry> premature_end = {{4, "premature EOD on bio"}};

TEST_F(MarshalTls, ItemsComeThrough) {
  note_owner sent("over TLS", 7), read;
  ASSERT_EQ(marshall(far.get(), sent.object, &note_item, "MAGI", 4), 0);
  ASSERT_EQ(unmarshall(near.get(), &read.object, &note_item, "MAGI", 4), 0);
  EXPECT_STREQ(read->text, "over TLS");
}

TEST_F(MarshalTls, OrderlyEndIs42WithALine) {
  send(block(5, "abc"));
  close_far();
  EXPECT_EQ(read_a_block(), 0);
  EXPECT_EQ(read_a_block(), 42);
  EXPECT_EQ(captured_log(), premature_end) << log_dump();
}

TEST_F(MarshalTls, OrderlyEndBehindATagOrInALengthIs42WithALine) {
  for (const char *begun : {"\x05", "\x05\x81"}) {
    SetUp();
    send(begun);
    close_far();
    EXPECT_EQ(read_a_block(), 42);
    EXPECT_EQ(captured_log(), premature_end) << log_dump();
  }
}

TEST_F(MarshalTls, OrderlyEndInAStructureLeavesNoObject) {
  const std::string whole = note_octets("a note", 1);
  send(whole.substr(0, whole.size() - 2));
  close_far();
  note_owner read;
  EXPECT_EQ(unmarshall(near.get(), &read.object, &note_item, nullptr, 0), 42);
  EXPECT_EQ(read.object, nullptr);
}

// Nobody said that this is the end.
TEST_F(MarshalTls, ConnectionThatHasNothingYetIs10WithoutALine) {
  send("\x05");
  EXPECT_EQ(read_a_block(), 10);
  EXPECT_TRUE(captured_log().empty()) << log_dump();
}

TEST_F(MarshalTls, ConnectionThatIsCutIs42Too) {
  send("\x05");
  BIO_shutdown_wr(SSL_get_wbio(far_tls()));
  EXPECT_EQ(read_a_block(), 42);
  EXPECT_EQ(captured_log(), premature_end) << log_dump();
  support::clear_openssl_errors();
}

}  // namespace
