// The CRLs of the lab that all cases share.
#ifndef TESTS_TOOLS_SHARED_CRL_H
#define TESTS_TOOLS_SHARED_CRL_H

#include <string>

#include "crl_client.h"
#include "lab_fixture.h"

namespace tool_test {

inline crl_query ask_crl(const std::string &query = "", const std::string &ca_name = "issuing") {
  return crl_query(the_lab().lab.port(), query, ca_name);
}

}  // namespace tool_test

#endif
