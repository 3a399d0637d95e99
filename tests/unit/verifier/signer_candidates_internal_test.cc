// Who of many may have signed, and at what cost that is found out.
#include "verifier/signer_candidates.h"

#include <functional>

#include "unit/verifier/issued_certs.h"

using namespace issued_certs;
using pki::authorship;
using pki::fitness;
using pki::origin;

namespace {

using certs = std::vector<support::cert>;

constexpr int limit = pki::max_signer_keys;

class SignerCandidates : public testing::Test {
 protected:
  // What the search in the store gives: provisioned, collected, trusted ones.
  void found(const certs &provisioned, const certs &collected, const certs &trusted) {
    candidates.certs.reset(sk_X509_new_null());
    for (const certs &list : {provisioned, collected, trusted})
      for (const support::cert &cert : list) {
        X509_up_ref(cert.get());
        sk_X509_push(candidates.certs.get(), cert.get());
      }
    int begin = static_cast<int>(provisioned.size());
    ASSERT_EQ(0, pki::make_places({begin, begin + static_cast<int>(collected.size())},
                                  pki::max_peer_signers, &candidates));
  }
  void add(const certs &list, origin from) {
    for (const support::cert &cert : list)
      ASSERT_EQ(0, pki::add_candidate(cert.get(), from, &candidates));
  }
  // How many remain when `verify` judges keys.
  int remaining(const std::function<authorship(const X509 *)> &verify) {
    tries = 0;
    pki::signer_trial trial(candidates, fits, [&](const X509 *cert) {
      tries++;
      return verify(cert);
    });
    completed = trial.run();
    return sk_X509_num(candidates.certs.get());
  }
  // How many remain when that key made the signature.
  int remaining_of(const support::cert &signer) {
    return remaining([&](const X509 *cert) {
      return pki::has_same_key(cert, signer.get()) ? authorship::own : authorship::foreign;
    });
  }
  static authorship everybody(const X509 *) { return authorship::own; }
  static certs namesakes(int count, long first_serial = 1000) {
    return make_namesakes("signer", count, first_serial);
  }
  static certs copies(int owner, int count, long first_serial) {
    certs made;
    for (int i = 0; i < count; i++)
      made.push_back(issue("signer", first_serial + i, owner));
    return made;
  }

  const support::cert signer = issue("signer", 1, responder_key);
  pki::signer_candidates candidates;
  std::function<fitness(const X509 *)> fits = [](const X509 *) { return fitness::fit; };
  int tries = 0;
  bool completed = false;
};

// ---- how many are tried ----

TEST_F(SignerCandidates, AllOfTheHostsAreTried) {
  certs others = namesakes(2 * limit);
  found(others, {}, {signer});
  EXPECT_EQ(1, remaining_of(signer));
  EXPECT_TRUE(completed);
  EXPECT_EQ(2 * limit + 1, tries);
}

TEST_F(SignerCandidates, EachListOfOthersHasANumberOfItsOwn) {
  found({}, namesakes(limit + 5), {});
  add(namesakes(limit + 5, 2000), origin::peer);
  add(namesakes(limit - 1, 3000), origin::message);
  add({signer}, origin::message);
  EXPECT_EQ(1, remaining_of(signer));
  EXPECT_EQ(3 * limit, tries);
}

TEST_F(SignerCandidates, BehindTooManyNobodyIsTried) {
  for (origin from : {origin::peer, origin::message}) {
    found({}, {}, {});
    add(namesakes(limit), from);
    add({signer}, from);
    EXPECT_EQ(0, remaining_of(signer));
    EXPECT_TRUE(completed);
    EXPECT_EQ(limit, tries);
  }
}

TEST_F(SignerCandidates, TheLatestOfThoseThatWereMetAreTried) {
  certs met = namesakes(limit - 1, 2000);
  met.insert(met.begin(), signer);
  certs others = namesakes(limit);
  met.insert(met.begin(), others.begin(), others.end());
  found({}, met, {});
  EXPECT_EQ(1, remaining_of(signer));
}

TEST_F(SignerCandidates, WhoComesFromSeveralPlacesIsTriedInTheFirst) {
  certs others = namesakes(limit);
  certs met = others;
  met.insert(met.begin(), signer);
  for (origin from : {origin::listed, origin::message, origin::peer}) {
    found({}, met, {});
    add({signer}, origin::peer);
    add({signer}, from);
    EXPECT_EQ(limit + 1, sk_X509_num(candidates.certs.get()));
    EXPECT_EQ(1, remaining_of(signer));
  }
}

TEST_F(SignerCandidates, UnfitOnesDoNotCount) {
  certs others = namesakes(3 * limit);
  found({}, {}, {});
  add(others, origin::peer);
  add({signer}, origin::peer);
  fits = [&](const X509 *cert) { return cert == signer.get() ? fitness::fit : fitness::unfit; };
  EXPECT_EQ(1, remaining_of(signer));
  EXPECT_EQ(1, tries);
}

TEST_F(SignerCandidates, ThePeersListEndsSomewhere) {
  found({}, {}, {});
  add(copies(stranger_key, pki::max_peer_signers + 10, 1000), origin::peer);
  int most = sk_X509_num(candidates.certs.get());
  EXPECT_GE(most, pki::max_peer_signers);
  EXPECT_LT(most, pki::max_peer_signers + 10);
}

// ---- a key is tried once ----

TEST_F(SignerCandidates, KeyOfManyCertificatesIsTriedOnce) {
  found(copies(responder_key, 2, 100), copies(responder_key, 40, 200), {});
  add(copies(responder_key, 3, 300), origin::message);
  add(copies(stranger_key, 40, 400), origin::peer);
  EXPECT_EQ(45, remaining_of(signer));
  EXPECT_EQ(2, tries);
}

TEST_F(SignerCandidates, CopiesOfAKeyCountOnce) {
  certs met = {signer};
  for (const certs &more :
       {namesakes(limit - 2), copies(responder_key, 40, 2000), copies(stranger_key, 40, 3000)})
    met.insert(met.end(), more.begin(), more.end());
  found({}, met, {});
  EXPECT_EQ(41, remaining_of(signer));
  EXPECT_EQ(limit, tries);
}

// Who makes the signature can make many keys to which it fits.
TEST_F(SignerCandidates, KeysThatFitCountToo) {
  found({}, namesakes(3 * limit), {});
  EXPECT_EQ(limit, remaining(everybody));
  EXPECT_EQ(limit, tries);
}

TEST_F(SignerCandidates, KeysAreComparedWithTheirAlgorithm) {
  support::cert curve = namesakes(1)[0];
  EXPECT_TRUE(pki::has_same_key(signer.get(), issue("other", 2, responder_key).get()));
  EXPECT_FALSE(pki::has_same_key(signer.get(), issue("other", 2, stranger_key).get()));
  EXPECT_FALSE(pki::has_same_key(signer.get(), curve.get()));
  support::cert other(X509_dup(curve.get()), X509_free);
  EXPECT_TRUE(pki::has_same_key(curve.get(), other.get()));
  X509_ALGOR *algorithm = nullptr;
  X509_PUBKEY_get0_param(nullptr, nullptr, nullptr, &algorithm, X509_get_X509_PUBKEY(other.get()));
  X509_ALGOR_set0(algorithm, OBJ_nid2obj(NID_X9_62_id_ecPublicKey), V_ASN1_NULL, nullptr);
  EXPECT_FALSE(pki::has_same_key(curve.get(), other.get()));
}

// ---- nobody remains who was not tried ----

TEST_F(SignerCandidates, WithoutMemoryOnlyWhoHasSignedRemains) {
  for (int last = 0; last < 8; last++) {
    found(namesakes(2), namesakes(2, 2000), {});
    add(namesakes(2, 3000), origin::message);
    add(namesakes(2, 4000), origin::peer);
    int left = last;
    EXPECT_EQ(last, remaining([&](const X509 *) {
                return left-- > 0 ? authorship::own : authorship::no_memory;
              }));
    EXPECT_FALSE(completed);
  }
}

TEST_F(SignerCandidates, WithoutMemoryToTellWhoFitsNobodyRemains) {
  found({signer}, {}, {});
  fits = [](const X509 *) { return fitness::no_memory; };
  EXPECT_EQ(0, remaining(everybody));
  EXPECT_FALSE(completed);
  EXPECT_EQ(0, tries);
}

TEST_F(SignerCandidates, WhoDoesNotFitDoesNotRemain) {
  found({signer}, {issue("signer", 2, responder_key)}, {});
  fits = [&](const X509 *cert) { return cert == signer.get() ? fitness::fit : fitness::unfit; };
  EXPECT_EQ(1, remaining(everybody));
  EXPECT_TRUE(completed);
}

TEST_F(SignerCandidates, WantOfMemoryForTheFitIsACode) {
  found({}, {}, {});
  auto without_memory = [](const X509 *) { return fitness::no_memory; };
  EXPECT_EQ(2, pki::add_fitting(signer.get(), origin::listed, without_memory, &candidates));
  EXPECT_EQ(0, pki::add_fitting(nullptr, origin::listed, without_memory, &candidates));
  EXPECT_EQ(0, sk_X509_num(candidates.certs.get()));
}

}  // namespace
