// Text as libxml2 hands it over.
#ifndef TESTS_UNIT_PKI_XML_TEXT_H
#define TESTS_UNIT_PKI_XML_TEXT_H

#include <libxml/xmlstring.h>

inline const xmlChar *xml(const char *text) {
  return reinterpret_cast<const xmlChar *>(text);
}

#endif
