// Failing memory and locks: the call says so, and the next one makes up for it.
#include <cerrno>
#include <map>
#include <tuple>
#include <utility>

#include "roots_process.h"

using namespace roots_support;

namespace {

void expect_complete(const x509_store &store, int certs) {
  EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 1));
  texts labels = ca_labels();
  EXPECT_EQ(1U, std::erase(labels, "root"));
  EXPECT_EQ(1U, std::erase(labels, "engineering"));
  ca_ref root = find_ca("root"), engineering = find_ca("engineering");
  ASSERT_TRUE(root && engineering);
  EXPECT_EQ(5, OPENSSL_sk_num(root->trusted_roots));
  EXPECT_EQ(1, OPENSSL_sk_num(engineering->trusted_roots));
  EXPECT_EQ(1, OPENSSL_sk_num(pki_store->provisioned_certs));
  EXPECT_EQ(certs, count_in(store));
}

bool is_in(const char *label) {
  return was_logged(6, std::string("inited ca label '") + label + "'");
}

bool has_each_rule_once() {
  return OPENSSL_sk_num(find_ca("root")->cert_status_methods) == 5 &&
         OPENSSL_sk_num(find_ca("engineering")->cert_status_methods) == 1;
}

bool keys_can_be_read() {
  bool all = true;
  for (const STACK *certs : {find_ca("root")->trusted_roots, find_ca("engineering")->trusted_roots,
                             find_ca("other")->trusted_roots, pki_store->provisioned_certs})
    for (int i = 0; i < OPENSSL_sk_num(certs); i++)
      all = all && X509_get0_pubkey(support::at<X509>(certs, i));
  return all;
}

// Results of copies of the process.
constexpr int nothing_failed = 40, made_up_for = 41, failed_silently = 42, root_without_key = 43,
              rules_twice = 44, untrusted_failed = 45, half_done = 46;

// Each CA has its roots and rules, or none of them.
bool is_all_or_nothing() {
  for (auto [label, roots, rules] : {std::tuple("root", 5, 5), std::tuple("engineering", 1, 1)}) {
    ca_ref ca = find_ca(label);
    std::pair there(ca ? OPENSSL_sk_num(ca->trusted_roots) : 0,
                    ca ? OPENSSL_sk_num(ca->cert_status_methods) : 0);
    if (there != std::pair(0, 0) && there != std::pair(roots, rules))
      return false;
  }
  return true;
}

// Lets the n-th allocation of a first call fail, and calls again.
int call_twice(size_t n) {
  x509_store store = make_store();
  fake_allocator::fail_at(n);
  int result = pki_ver_setup_trust_roots(store.get(), 1);
  fake_allocator::stop_failing();
  bool silent = result == 0 && own_log().find("3: ") == std::string::npos;
  support::clear_openssl_errors();
  if (!is_all_or_nothing())
    return half_done;
  expect_complete(store, 7);
  EXPECT_EQ(texts{"/C=US/O=Example/CN=device"}, root_subjects("other"));
  bool readable = keys_can_be_read(), once = has_each_rule_once();
  store.reset();
  support::empty_store();
  if (!fake_allocator::has_failed())
    return nothing_failed;
  if (silent)
    return failed_silently;
  if (!once)
    return rules_twice;
  return readable ? made_up_for : root_without_key;
}

void expect_made_up_for(const temp_folder &device) {
  if (!fake_allocator::available())
    return;
  support::warm_up_libraries();
  device.write("device.pem", device_root("device"));
  std::map<int, std::vector<size_t>> runs;
  size_t step = fake_allocator::sweep_step(149);
  for (size_t n = 1; n < 20000 && runs[nothing_failed].empty();
       n += n < 10 ? 1 : step)  // the CA is made first
    runs[result_in_copy([n] { return call_twice(n); })].push_back(n);
  EXPECT_EQ(1U, runs[nothing_failed].size());
  EXPECT_LT(20U, runs[made_up_for].size());
  EXPECT_EQ(std::vector<size_t>(), runs[failed_silently]);
  EXPECT_EQ(std::vector<size_t>(), runs[rules_twice]);
  EXPECT_EQ(std::vector<size_t>(), runs[root_without_key]);
  for (int known : {nothing_failed, made_up_for, failed_silently, rules_twice, root_without_key})
    runs.erase(known);
  EXPECT_EQ((std::map<int, std::vector<size_t>>()), runs);
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, ASecondCallMakesUpForAFirstThatLackedMemory) {
  expect_made_up_for(device);
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, AHostsCasGetEachRuleOnceAfterALackOfMemory) {
  add_host_ca("root");
  add_host_ca("engineering");
  expect_made_up_for(device);
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, NoMemoryAtAllFails) {
  if (!fake_allocator::available())
    return;
  support::warm_up_libraries();
  x509_store store = make_store();
  fake_allocator::fail_at(1, true);
  int result = pki_ver_setup_trust_roots(store.get(), 1);
  fake_allocator::stop_failing();
  EXPECT_EQ(0, result);
  EXPECT_EQ(texts{}, ca_labels());
  EXPECT_EQ(0, count_in(store));
  expect_complete(store, 6);
  EXPECT_TRUE(has_each_rule_once());
}

// Lets the reference number `after` on a certificate fail in a first call, and calls again.
int call_twice_without_reference(int after) {
  x509_store store = make_store();
  fake_failures::fail_x509_up_ref(after);
  int result = pki_ver_setup_trust_roots(store.get(), 1);
  fake_failures::reset();
  if (result == 1)
    return nothing_failed;
  // Copying comes behind all else.
  EXPECT_EQ(was_logged(3, "Failed to add a root cert to cert store:"), is_in("engineering"));
  bool untrusted = was_logged(3, "Error add untrusted certs: CRYPTO LOCK FAILED");
  bool silent = own_log().find("3: ") == std::string::npos;
  if (!is_all_or_nothing())
    return half_done;
  expect_complete(store, 6);
  bool once = has_each_rule_once();
  store.reset();
  support::empty_store();
  if (silent)
    return failed_silently;
  if (!once)
    return rules_twice;
  return untrusted ? untrusted_failed : made_up_for;
}

void expect_references_made_up_for() {
  support::warm_up_libraries();
  std::map<int, std::vector<int>> runs;
  for (int after = 0; after < 100 && runs[nothing_failed].empty(); after++)
    runs[result_in_copy([after] { return call_twice_without_reference(after); })].push_back(after);
  ASSERT_EQ(1U, runs[nothing_failed].size());
  EXPECT_LT(8, runs[nothing_failed][0]);
  EXPECT_EQ(1U, runs[untrusted_failed].size());
  for (int known : {nothing_failed, made_up_for, untrusted_failed})
    runs.erase(known);
  EXPECT_EQ((std::map<int, std::vector<int>>()), runs);
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, ASecondCallMakesUpForAReferenceThatCouldNotBeTaken) {
  expect_references_made_up_for();
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, AHostsCasAreWholeOrUntouchedWithoutAReference) {
  add_host_ca("root");
  add_host_ca("engineering");
  expect_references_made_up_for();
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, AnIntermediateThatCannotBeAddedIsLogged) {
  support::warm_up_libraries();
  bool logged = false;
  for (int after = 0; after < 100 && !logged; after++) {
    logged = result_in_copy([after] {
               x509_store store = make_store();
               fake_failures::fail_x509_up_ref(after);
               int result = pki_ver_setup_trust_roots(store.get(), 0);
               fake_failures::reset();
               if (!was_logged(3, "Error add untrusted certs: CRYPTO LOCK FAILED"))
                 return nothing_failed;
               EXPECT_EQ(0, result);
               EXPECT_FALSE(is_in("root"));
               return untrusted_failed;
             }) == untrusted_failed;
  }
  EXPECT_TRUE(logged);
}

// What `count` returned in a copy of this process.
template <class Count>
size_t counted_in_copy(Count count) {
  temp_folder note;
  result_in_copy([&] {
    note.write("count", std::to_string(count()));
    return 0;
  });
  return std::stoul("0" + file_octets(note.path() + "count"));
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, AnIntermediateWithoutMemoryIsLogged) {
  if (!fake_allocator::available())
    return;
  support::warm_up_libraries();
  size_t all = counted_in_copy([] {
    x509_store store = make_store();
    fake_allocator::stop_failing();
    EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
    return fake_allocator::allocations();
  });
  bool logged = false;
  // Only copying comes behind it.
  for (size_t n = all; n > 0 && !logged; n--) {
    logged = result_in_copy([n] {
               x509_store store = make_store();
               fake_allocator::fail_at(n);
               int result = pki_ver_setup_trust_roots(store.get(), 0);
               fake_allocator::stop_failing();
               if (!was_logged(3, "Error add untrusted certs: OUT OF MEMORY"))
                 return nothing_failed;
               EXPECT_EQ(0, result);
               EXPECT_FALSE(is_in("root"));
               support::clear_openssl_errors();
               clear_log();
               EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
               EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
               EXPECT_EQ(1, OPENSSL_sk_num(pki_store->provisioned_certs));
               return untrusted_failed;
             }) == untrusted_failed;
  }
  EXPECT_TRUE(logged);
}

// The lock of the store is one of many: OpenSSL has its own. Only copying comes behind it.
template <class Body>
bool with_store_lock_failing(Body after_failure) {
  size_t all = counted_in_copy([] {
    x509_store store = make_store();
    fake_failures::reset();
    EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
    return static_cast<size_t>(fake_failures::wrlock_calls());
  });
  clear_log();
  for (int after = static_cast<int>(all) - 1; after >= 0; after--) {
    int result = result_in_copy([&] {
      x509_store store = make_store();
      fake_failures::fail_wrlock(EAGAIN, after);
      int first = pki_ver_setup_trust_roots(store.get(), 0);
      fake_failures::reset();
      if (!was_logged(3, "Error add untrusted certs: LOCK FAILED"))
        return nothing_failed;
      EXPECT_EQ(0, first);
      EXPECT_EQ("3: Error add untrusted certs: LOCK FAILED\n", log_dump());
      EXPECT_EQ(0, count_in(store));
      clear_log();
      after_failure(store);
      return untrusted_failed;
    });
    if (result != nothing_failed)
      return result == untrusted_failed;
  }
  return false;
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, ALockedStoreFailsTheCallAndTheNextOneWorks) {
  support::warm_up_libraries();
  EXPECT_TRUE(with_store_lock_failing([](const x509_store &store) {
    EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
    EXPECT_EQ("6: inited ca label 'root'\n", log_dump());
    EXPECT_EQ(1, OPENSSL_sk_num(pki_store->provisioned_certs));
    EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->trusted_roots));
    EXPECT_EQ(5, OPENSSL_sk_num(find_ca("root")->cert_status_methods));
    EXPECT_EQ(5, count_in(store));
  }));
}

FRESH_PROCESS_TEST(SetupFailuresDeathTest, ACaThatTheHostRemovedBeforeTheNextCallIsMadeAnew) {
  support::warm_up_libraries();
  EXPECT_TRUE(with_store_lock_failing([](const x509_store &store) {
    EXPECT_EQ(0, pki_remove_ca("root"));
    EXPECT_EQ(1, pki_ver_setup_trust_roots(store.get(), 0));
    EXPECT_EQ(texts{"root"}, ca_labels());
    EXPECT_EQ(1, OPENSSL_sk_num(pki_store->provisioned_certs));
    EXPECT_EQ(5, count_in(store));
  }));
}

}  // namespace
