#include "pki/xml_library.h"

#include <dlfcn.h>

#include "common/locks.h"
#include "common/log.h"

namespace pki {

namespace {

pthread_mutex_t loading = PTHREAD_MUTEX_INITIALIZER;

// Guarded by `loading` until `loaded` points here.
xml_library functions;
const xml_library *loaded = nullptr;

template <class Function>
bool find_function(void *library, const char *name, Function *function) {
  *function = reinterpret_cast<Function>(dlsym(library, name));
  return *function != nullptr;
}

bool find_functions(void *library) {
  xml_library &xml = functions;
  return find_function(library, "xmlInitParser", &xml.init_parser) &&
         find_function(library, "xmlGetGlobalState", &xml.get_global_state) &&
         find_function(library, "__xmlStructuredError", &xml.structured_error) &&
         find_function(library, "__xmlStructuredErrorContext", &xml.structured_error_context) &&
         find_function(library, "xmlSetStructuredErrorFunc", &xml.set_structured_error_func) &&
         find_function(library, "xmlCreatePushParserCtxt", &xml.create_push_parser) &&
         find_function(library, "xmlCtxtUseOptions", &xml.use_options) &&
         find_function(library, "xmlParseChunk", &xml.parse_chunk) &&
         find_function(library, "xmlFreeDoc", &xml.free_doc) &&
         find_function(library, "xmlFreeParserCtxt", &xml.free_parser);
}

// What is loaded stays, even where a function is missing: others in the process may use it.
bool load_functions() {
  void *library = dlopen(PKI_XML_SONAME, RTLD_NOW | RTLD_LOCAL);
  if (library && find_functions(library))
    return true;
  const char *reason = dlerror();
  syslog(log_error, "failed to load %s: %s", PKI_XML_SONAME, text_or_null(reason));
  return false;
}

}  // namespace

const xml_library *load_xml_library() {
  if (const xml_library *ready = __atomic_load_n(&loaded, __ATOMIC_ACQUIRE))
    return ready;
  mutex_lock lock(&loading);
  if (loaded)
    return loaded;
  if (!load_functions())
    return nullptr;
  // It sets up its tables on first use; that must not happen on two threads at once.
  functions.init_parser();
  __atomic_store_n(&loaded, &functions, __ATOMIC_RELEASE);
  return &functions;
}

}  // namespace pki
