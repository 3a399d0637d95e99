// A test fixture with the library initialised, an empty store, empty caches and a silent log
// before each case.
#ifndef TESTS_SUPPORT_STORE_FIXTURE_H
#define TESTS_SUPPORT_STORE_FIXTURE_H

#include <gtest/gtest.h>
#include <libpki/libpki.h>

namespace support {

// Initialises the library (once a process) and points the board at a folder with the serial
// number "SN-0001" and the secret "secret-0001".
void init_library();

// Frees everything in the store's five lists.
void empty_store();

class store_test : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

}  // namespace support

#endif
