// A key that is the same in every process, and certificates with it.
#ifndef FUZZ_FIXED_KEY_H
#define FUZZ_FIXED_KEY_H

#include "support/certs.h"

namespace fuzz {

const support::key &fixed_key();
// CN=fixed, number 1, and what it issued: CN=device, number 5.
support::cert fixed_ca();
support::cert fixed_device();

}  // namespace fuzz

#endif
