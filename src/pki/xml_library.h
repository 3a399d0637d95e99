// libxml2, which is loaded when the first document is read. With what it loads itself it costs a
// process more memory than all of ours, and most processes never see a document.
#ifndef PKI_PKI_XML_LIBRARY_H
#define PKI_PKI_XML_LIBRARY_H

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/threads.h>
#include <libxml/xmlerror.h>

namespace pki {

// Its functions that are called.
struct xml_library {
  decltype(&xmlInitParser) init_parser;
  decltype(&xmlGetGlobalState) get_global_state;
  decltype(&__xmlStructuredError) structured_error;
  decltype(&__xmlStructuredErrorContext) structured_error_context;
  decltype(&xmlSetStructuredErrorFunc) set_structured_error_func;
  decltype(&xmlCreatePushParserCtxt) create_push_parser;
  decltype(&xmlCtxtUseOptions) use_options;
  decltype(&xmlParseChunk) parse_chunk;
  decltype(&xmlFreeDoc) free_doc;
  decltype(&xmlFreeParserCtxt) free_parser;
};

// Loads it when that was not done yet; it stays loaded. Null when it cannot be, which a line at
// level 3 explains; the next call tries again. Safe on any thread.
[[nodiscard]] const xml_library *load_xml_library();

}  // namespace pki

#endif
