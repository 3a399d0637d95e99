// libksba's streaming CRL parser on the same octets, where it is installed.
#ifndef BENCH_KSBA_CRL_H
#define BENCH_KSBA_CRL_H

#include <cstdio>
#include <string>

namespace bench {

// Was the benchmark built with it?
bool have_libksba();

// Parses the CRL, digests what its signature is over (SHA-256, OpenSSL's) and looks for a serial
// number among the entries. False when it is refused.
// Its octets come through libksba's reader of files, or are in memory already.
bool libksba_reads(std::FILE *der, const std::string &serial, bool *listed);
bool libksba_reads(const std::string &der, const std::string &serial, bool *listed);

}  // namespace bench

#endif
