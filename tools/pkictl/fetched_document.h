// A CA-info document fetched to be kept.
#ifndef TOOLS_PKICTL_FETCHED_DOCUMENT_H
#define TOOLS_PKICTL_FETCHED_DOCUMENT_H

#include <string>

namespace pkictl {

// The octets at a CA-pointer URL, asked for as a device does. Throws failure.
std::string fetch_document(const std::string &url);

}  // namespace pkictl

#endif
