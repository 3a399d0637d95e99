// The CA-info document's driver: the XML tokeniser, the stack of states, the text buffer.
#include <libpki/error.h>

#include "common/log.h"
#include "pki/ca_info_context.h"
#include "pki/xml_library.h"

namespace pki {

namespace {

class xml_parser {
 public:
  xml_parser(const xml_library &xml, xmlSAXHandler *handler, ca_info_context *context)
      : xml_(xml), parser_(xml.create_push_parser(handler, context, nullptr, 0, nullptr)) {}
  xml_parser(const xml_parser &) = delete;
  xml_parser &operator=(const xml_parser &) = delete;
  ~xml_parser() {
    if (!parser_)
      return;
    if (parser_->myDoc)
      xml_.free_doc(parser_->myDoc);
    xml_.free_parser(parser_);
  }
  [[nodiscard]] xmlParserCtxt *get() const { return parser_; }

 private:
  const xml_library &xml_;
  xmlParserCtxt *parser_;
};

// The tokeniser writes its view of an error to standard error, and lets some pass that leave
// octets of the document out (an entity that it does not know). While a document is read this
// thread's handler is one that says nothing and notes what happened; the host's is put back.
class xml_error_watch {
 public:
  explicit xml_error_watch(const xml_library &xml)
      : xml_(xml), handler_(*xml.structured_error()), context_(*xml.structured_error_context()) {
    xml_.set_structured_error_func(this, note);
  }
  xml_error_watch(const xml_error_watch &) = delete;
  xml_error_watch &operator=(const xml_error_watch &) = delete;
  ~xml_error_watch() { xml_.set_structured_error_func(context_, handler_); }

  [[nodiscard]] bool saw_error() const { return error_; }
  [[nodiscard]] bool ran_out_of_memory() const { return out_of_memory_; }

 private:
  static void note(void *watch, xmlErrorPtr error) {
    auto *self = static_cast<xml_error_watch *>(watch);
    self->error_ |= error->level >= XML_ERR_ERROR;
    self->out_of_memory_ |= error->code == XML_ERR_NO_MEMORY;
  }

  const xml_library &xml_;
  xmlStructuredErrorFunc handler_;
  void *context_;
  bool error_ = false;
  bool out_of_memory_ = false;
};

// The tokeniser keeps a state for each thread, made on first use, and does not survive failing to
// make it. The room that is made sure of here is what the thread is given next.
bool has_thread_state(const xml_library &xml) {
  malloc_ptr<void> room(std::malloc(sizeof(xmlGlobalState)));
  if (!room)
    return false;
  room.reset();
  return xml.get_global_state() != nullptr;
}

// xmlParseChunk's word for a chunk that it could not store.
constexpr int chunk_not_taken = -1;

constexpr xmlSAXHandler make_sax_handler() {
  xmlSAXHandler handler = {};
  handler.startElement = start_tag_handler;
  handler.endElement = end_tag_handler;
  handler.characters = text_handler;
  return handler;
}

constinit xmlSAXHandler sax_handler = make_sax_handler();

bool is_time_error(int error) {
  return error >= PKI_TIME_DAY_NOT_FOUND && error <= PKI_TIME_SECONDS_NOT_FOUND;
}

// An expiry that cannot be read costs nothing when everything else was.
int document_result(const ca_info_context &context) {
  if (!is_time_error(context.error) || context.unread)
    return context.error;
  syslog(log_warning, "Parsing ca-info document: expiry not understood: %s",
         pki_strerror(static_cast<unsigned>(context.error)));
  return PKI_OK;
}

// Enters the element's state. At the last slot nothing is entered.
int push_state(ca_info_context *context, const char *element) {
  if (context->top >= ca_info_state_slots - 1)
    return PKI_XML_STATE_STACK_OVFL;
  int32_t state = next_state(context->states[context->top], element);
  context->states[++context->top] = state;
  return PKI_OK;
}

int pop_state(ca_info_context *context) {
  if (context->top < 1)
    return PKI_XML_STATE_STACK_UNDFL;
  context->top--;
  return PKI_OK;
}

int append_text(ca_info_context *context, const xmlChar *text, int length) {
  if (!context->text) {
    context->text.reset(BIO_new(BIO_s_mem()));
    if (!context->text)
      return openssl_failure(PKI_BIO_CREAT_FAILED);
    // An empty buffer is the end of the text, not a reason to wait for more.
    BIO_set_mem_eof_return(context->text.get(), 0);
  }
  if (length > 0 && BIO_write(context->text.get(), text, length) != length)
    return openssl_failure(PKI_BIO_WRITE_ERROR);
  return PKI_OK;
}

}  // namespace

void init_ca_info_context(ca_info_context *context, pki_store_object *store, ca_info *ca) {
  context->states[0] = state_document;
  context->top = 0;
  context->store = store;
  context->ca = ca;
  context->text.reset();
  context->error = PKI_OK;
  context->unread = false;
}

void start_tag_handler(void *user, const xmlChar *element, const xmlChar **attributes) {
  auto *context = static_cast<ca_info_context *>(user);
  if (context->error) {
    context->unread = true;
    return;
  }
  const auto *name = reinterpret_cast<const char *>(element);
  // At the last slot the state already on top acts once more; if it does, its result counts.
  int error = push_state(context, name);
  context->error = start_element(context, error, name, attributes);
}

void end_tag_handler(void *user, const xmlChar *) {
  auto *context = static_cast<ca_info_context *>(user);
  if (context->error)
    return;
  int error = end_element(context);
  int pop_error = pop_state(context);
  context->error = error ? error : pop_error;
}

void text_handler(void *user, const xmlChar *text, int length) {
  auto *context = static_cast<ca_info_context *>(user);
  if (context->error || !keeps_text(context->states[context->top]))
    return;
  context->error = append_text(context, text, length);
}

}  // namespace pki

using namespace pki;

int parse_ca_info_doc(const unsigned char *document, int length, pki_store_object *store,
                      ca_info *info) {
  if (!document || length < 0 || !store || !info)
    return PKI_INVALID_ARGS;
  ca_info_context context;
  init_ca_info_context(&context, store, info);
  const xml_library *xml = load_xml_library();
  if (!xml || !has_thread_state(*xml))
    return PKI_OUT_OF_MEMORY;
  xml_error_watch watch(*xml);
  xml_parser parser(*xml, &sax_handler, &context);
  if (!parser.get())
    return PKI_OUT_OF_MEMORY;
  // Attribute values arrive decoded; nothing is ever fetched.
  xml->use_options(parser.get(), XML_PARSE_NOENT | XML_PARSE_NONET);
  int xml_error =
      xml->parse_chunk(parser.get(), reinterpret_cast<const char *>(document), length, 1);
  if (watch.ran_out_of_memory() || xml_error == chunk_not_taken)
    return PKI_OUT_OF_MEMORY;
  return xml_error || watch.saw_error() ? PKI_XML_CA_PTR_PARSE_ERROR : document_result(context);
}
