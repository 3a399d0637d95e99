// CRLs from servers that take their time, stop half-way, or announce another length than they send:
// no answer from such a CRL, nothing cached, no more memory than for others, and the next download
// is as good as any.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include "fakes/allocator.h"
#include "fakes/failures.h"
#include "unit/verifier/crl_cache/decide_support.h"
#include "unit/verifier/own_log.h"

using namespace decide_support;

namespace {

enum class ending { close, reset, silence };

struct behaviour {
  std::string octets;
  size_t sent = std::string::npos;  // how many of them come
  ending end = ending::close;
  bool one_a_second = false;  // by the fake clock
};

class bad_server {
 public:
  bad_server() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto *general = reinterpret_cast<sockaddr *>(&address);
    if (bind(listener_, general, size) != 0 || listen(listener_, 8) != 0 ||
        getsockname(listener_, general, &size) != 0 || pipe(wake_) != 0)
      abort();
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/crl";
    thread_ = std::thread([this] { serve(); });
  }
  ~bad_server() {
    close(wake_[1]);
    thread_.join();
    for (int fd : held_)
      close(fd);
    close(wake_[0]);
    close(listener_);
  }
  bad_server(const bad_server &) = delete;
  bad_server &operator=(const bad_server &) = delete;

  // From now on.
  void behave(const behaviour &how) {
    std::lock_guard lock(mutex_);
    how_ = how;
    silent_ = false;
  }
  const std::string &url() const { return url_; }
  // Has it stopped sending for good on a connection that is open?
  bool is_silent() const { return silent_; }

 private:
  void serve() {
    pollfd waits[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    while (poll(waits, 2, -1) >= 0 && !waits[1].revents) {
      int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      behaviour how;
      {
        std::lock_guard lock(mutex_);
        how = how_;
      }
      answer(fd, how);
    }
  }
  void answer(int fd, const behaviour &how) {
    char request[2000];
    if (recv(fd, request, sizeof request, 0) <= 0)
      abort();
    if (how.one_a_second)
      send_slowly(fd, how.octets);
    else
      send_all(fd, how.octets.substr(0, how.sent));
    if (how.end == ending::silence) {
      held_.push_back(fd);
      silent_ = true;
      return;
    }
    linger now = {how.end == ending::reset, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    close(fd);
  }
  static void send_all(int fd, const std::string &octets) {
    for (size_t at = 0; at < octets.size();) {
      ssize_t took = send(fd, octets.data() + at, octets.size() - at, MSG_NOSIGNAL);
      if (took <= 0)
        return;
      at += static_cast<size_t>(took);
    }
  }
  static void send_slowly(int fd, const std::string &octets) {
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (char octet : octets) {
      fake_clock::advance(1);
      if (send(fd, &octet, 1, MSG_NOSIGNAL) != 1)
        return;
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }

  std::mutex mutex_;
  behaviour how_;
  std::atomic<bool> silent_{false};
  std::string url_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};
  std::vector<int> held_;
  std::thread thread_;
};

std::string head(long length) {
  return "HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\n" +
         (length < 0 ? "" : "Content-Length: " + std::to_string(length) + "\r\n") + "\r\n";
}

// Where the parts of a CRL start.
struct part {
  const char *name;
  size_t at;
};

class bad_server_test : public decide_test {
 protected:
  void SetUp() override {
    decide_test::SetUp();
    fake_failures::time_out_polls_when([this] { return bad.is_silent(); });
  }
  void TearDown() override {
    fake_failures::reset();
    decide_test::TearDown();
  }

  std::string answer_of(const std::string &body) const {
    return head(announced ? static_cast<long>(body.size()) : -1) + body;
  }
  static std::string revoking() { return support::crl_octets(revoking_crl()); }

  record decide_by_bad_server() {
    crl_objects::source_list sources;
    OPENSSL_sk_push(sources.get(), create_crl_info(bad.url().c_str(), 0, 0, 0, nullptr, nullptr));
    testing::internal::CaptureStdout();  // a failed decoding writes a line
    record answer = decide(sources);
    testing::internal::GetCapturedStdout();
    return answer;
  }
  // Nothing that a bad download left behind gets in the way of a good one.
  void expect_no_answer_and_then_a_good_one(const behaviour &how) {
    bad.behave(how);
    EXPECT_EQ(no_answer, status_of(decide_by_bad_server()));
    EXPECT_FALSE(is_cached());
    bad.behave({answer_of(revoking())});
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by_bad_server())) << log_dump();
    EXPECT_EQ(announced, is_cached()) << "of others only the device's entry is kept";
    zv_cv_clear_crl_cache();
  }
  std::string decode_line(int code) const {
    return "Failed to decode CRL from '" + bad.url() + "': " + std::to_string(code);
  }
  // Its connection ends so at each octet.
  void expect_no_answer_wherever_it_ends(ending end) {
    std::string answer = answer_of(revoking());
    size_t body = answer.find("\r\n\r\n") + 4;
    // Behind the signature nobody waits for an end.
    for (size_t at = 0; at < answer.size(); at += at < 150 ? 10 : 7) {
      SCOPED_TRACE(at);
      clear_log();
      expect_no_answer_and_then_a_good_one({answer, at, end});
      EXPECT_TRUE(was_logged(
          3, at < body ? "Error sending CRL request to '" + bad.url() + "': HTTP READ RESP ERROR"
                       : decode_line(PKI_HTTP_READ_RESP_ERROR)))
          << log_dump();
      if (HasFailure())
        return;
    }
  }

  bad_server bad;
  bool announced = true;
};

// With a Content-Length and without.
class SlowServer : public bad_server_test, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    bad_server_test::SetUp();
    announced = GetParam();
  }
};

class BadLength : public bad_server_test {};

// ---- octet by octet ----

TEST_P(SlowServer, OctetASecondIsStillAnAnswer) {
  bad.behave({.octets = answer_of(revoking()), .one_a_second = true});
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by_bad_server())) << log_dump();
  EXPECT_EQ(announced, is_cached());
  EXPECT_EQ(start + static_cast<time_t>(answer_of(revoking()).size()), time(nullptr));
}

TEST_P(SlowServer, ListThatEndedWhileItCameIsNoAnswer) {
  // Five minutes are allowed for, and so much longer than they it takes.
  crl_fields fields = revoking_crl();
  fields.next_update = support::der_utc_time(start - 200);
  std::string answer = answer_of(support::crl_octets(fields));
  bad.behave({answer});
  EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by_bad_server())) << log_dump();
  zv_cv_clear_crl_cache();
  bad.behave({.octets = answer, .one_a_second = true});
  EXPECT_EQ(no_answer, status_of(decide_by_bad_server())) << log_dump();
  EXPECT_TRUE(logged_containing(3, "The next-update in the crl (/CN=issuer) is in the past"));
  EXPECT_FALSE(is_cached());
}

// ---- half an answer ----

TEST_P(SlowServer, ClosingHalfWayIsNoAnswer) {
  expect_no_answer_wherever_it_ends(ending::close);
}

TEST_P(SlowServer, ResetHalfWayIsNoAnswer) {
  // A reset may overtake what was sent before it, so the place cannot be told from the log.
  std::string answer = answer_of(revoking());
  for (size_t at = 0; at < answer.size(); at += 53) {
    SCOPED_TRACE(at);
    expect_no_answer_and_then_a_good_one({answer, at, ending::reset});
  }
}

TEST_P(SlowServer, SilenceHalfWayEndsWithATimeOut) {
  std::string answer = answer_of(revoking());
  size_t body = answer.find("\r\n\r\n") + 4;
  for (const part &each :
       {part{"before the head", 0}, part{"in the head", 30}, part{"behind the head", body},
        part{"in the outer header", body + 2}, part{"in the issuer", body + 40},
        part{"in the entries", body + 90}, part{"in the signature", answer.size() - 20},
        part{"before the last octet", answer.size() - 1}}) {
    SCOPED_TRACE(each.name);
    clear_log();
    expect_no_answer_and_then_a_good_one({answer, each.at, ending::silence});
    EXPECT_TRUE(was_logged(3, "read timed out")) << log_dump();
  }
}

TEST_P(SlowServer, EachReadWaitsForAMinute) {
  bad.behave({answer_of(revoking()), 200, ending::silence});
  decide_by_bad_server();
  EXPECT_EQ(60000, fake_failures::last_poll_timeout());
}

// ---- wrong lengths ----

TEST_F(BadLength, BelowTheListsOwnIsRefused) {
  for (long less : {1, 2, 10, 200}) {
    SCOPED_TRACE(less);
    std::string body = revoking();
    bad.behave({head(static_cast<long>(body.size()) - less) + body});
    clear_log();
    EXPECT_EQ(no_answer, status_of(decide_by_bad_server()));
    EXPECT_TRUE(was_logged(3, decode_line(PKI_ASN1_DECODE_ERROR))) << log_dump();
    EXPECT_FALSE(is_cached());
  }
}

TEST_F(BadLength, AboveTheListsOwnDoesNotMakeItWait) {
  std::string body = revoking();
  for (long more : {1, 500, 20000, 0x7fffffff - static_cast<int>(body.size())}) {
    SCOPED_TRACE(more);
    bad.behave(
        {head(static_cast<long>(body.size()) + more) + body, std::string::npos, ending::silence});
    clear_log();
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by_bad_server())) << log_dump();
    EXPECT_FALSE(logged_containing(3, "timed out"));
    zv_cv_clear_crl_cache();
  }
}

TEST_F(BadLength, NumberThatIsNoneMeansThatNoneWasAnnounced) {
  for (const char *text : {"-5", "99999999999999999999"}) {
    SCOPED_TRACE(text);
    bad.behave({"HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\nContent-Length: " +
                std::string(text) + "\r\n\r\n" + revoking()});
    EXPECT_EQ(PKI_CERT_REVOKED, status_of(decide_by_bad_server())) << log_dump();
    zv_cv_clear_crl_cache();
  }
}

TEST_F(BadLength, ZeroIsRefused) {
  for (const char *text : {"0", "x"}) {
    SCOPED_TRACE(text);
    bad.behave({"HTTP/1.0 200 OK\r\nContent-Type: application/pkix-crl\r\nContent-Length: " +
                std::string(text) + "\r\n\r\n" + revoking()});
    clear_log();
    EXPECT_EQ(no_answer, status_of(decide_by_bad_server()));
    EXPECT_TRUE(was_logged(3, decode_line(PKI_ASN1_DECODE_ERROR))) << log_dump();
    EXPECT_FALSE(is_cached());
  }
}

// ---- without end ----

// A list whose header promises two gigabytes, of which so many entries come.
std::string endless_list(int entries) {
  std::string tbs = support::tbs_cert_list({});
  std::string fields = tbs.substr(4);
  if ((static_cast<unsigned char>(tbs[1]) & 0x80) == 0)
    fields = tbs.substr(2);
  std::string answer = head(-1) + std::string("\x30\x84\x7f\xff\xff\x00", 6) +
                       std::string("\x30\x84\x7f\xff\xfe\x00", 6) + fields +
                       std::string("\x30\x84\x7f\xff\xf0\x00", 6);
  std::string entry = crl_entry(std::string(20, '\x11'), support::reason_code(1));
  for (int i = 0; i < entries; i++)
    answer += entry;
  return answer;
}

TEST_F(BadLength, EndlessListTakesNoMoreMemoryThanAShortOne) {
  if (!fake_allocator::available())
    GTEST_SKIP() << "the sanitizer does not let allocations be counted";
  size_t made[2];
  int entries[2] = {10, 100000};
  decide_by_bad_server();  // what is made once
  for (int i = 0; i < 2; i++) {
    bad.behave({endless_list(entries[i])});
    clear_log();
    fake_allocator::stop_failing();
    EXPECT_EQ(no_answer, status_of(decide_by_bad_server()));
    made[i] = fake_allocator::allocations();
    EXPECT_TRUE(was_logged(3, decode_line(PKI_HTTP_READ_RESP_ERROR))) << log_dump();
    EXPECT_FALSE(is_cached());
  }
  EXPECT_LE(made[1], made[0] + 20);
}

std::string announcement(const testing::TestParamInfo<bool> &which) {
  return which.param ? "Announced" : "Unannounced";
}
INSTANTIATE_TEST_SUITE_P(, SlowServer, testing::Bool(), announcement);

}  // namespace
