// Fields of the marshal stream: numbers, times, texts.
#include <libpki/error.h>
#include <syslog.h>

#include <climits>
#include <cstring>
#include <ctime>

#include "common/alloc.h"
#include "common/log.h"
#include "common/marshal.h"

namespace pki {

namespace {

// A struct tm on the wire: the same on every machine of one byte order.
struct wire_tm {
  int32_t fields[9];
  int32_t gmtoff;
  int32_t zone;
};
static_assert(sizeof(wire_tm) == 44);

template <class Wide>
bool fits_32_bits(Wide value) {
  return value >= INT32_MIN && value <= INT32_MAX;
}

template <class Value>
int write_value(BIO *bio, int tag, const Value &value) {
  return write_block(bio, tag, &value, static_cast<int>(sizeof value));
}

// The first octets of the data; data that is shorter stays untouched.
template <class Value>
int read_value(const unsigned char *data, int len, Value *value) {
  if (!data || len < static_cast<int>(sizeof *value))
    return PKI_BIO_EOD;
  std::memcpy(value, data, sizeof *value);
  return PKI_OK;
}

}  // namespace

}  // namespace pki

using namespace pki;

static_assert(sizeof(int) == sizeof(int32_t));

int enc_int(BIO *bio, void *field, int tag, void * /*arg*/) {
  if (!field)
    return PKI_INVALID_ARGS;
  return write_value(bio, tag, *static_cast<const int *>(field));
}

int dec_int(BIO * /*bio*/, int /*tag*/, const unsigned char *data, int len, void *target,
            void * /*arg*/) {
  if (!target)
    return PKI_INVALID_ARGS;
  return read_value(data, len, static_cast<int *>(target));
}

int enc_time(BIO *bio, void *field, int tag, void * /*arg*/) {
  if (!field)
    return PKI_INVALID_ARGS;
  time_t time = *static_cast<const time_t *>(field);
  if (!fits_32_bits(time))
    return PKI_INVALID_ARGS;
  return write_value(bio, tag, static_cast<int32_t>(time));
}

int dec_time(BIO * /*bio*/, int /*tag*/, const unsigned char *data, int len, void *target,
             void * /*arg*/) {
  if (!target)
    return PKI_INVALID_ARGS;
  int32_t time;
  if (int error = read_value(data, len, &time))
    return error;
  *static_cast<time_t *>(target) = time;
  return PKI_OK;
}

int enc_struct_tm(BIO *bio, void *field, int tag, void * /*arg*/) {
  if (!field)
    return PKI_INVALID_ARGS;
  const auto *tm = static_cast<const struct tm *>(field);
  if (!fits_32_bits(tm->tm_gmtoff))
    return PKI_INVALID_ARGS;
  wire_tm wire = {{tm->tm_sec, tm->tm_min, tm->tm_hour, tm->tm_mday, tm->tm_mon, tm->tm_year,
                   tm->tm_wday, tm->tm_yday, tm->tm_isdst},
                  static_cast<int32_t>(tm->tm_gmtoff),
                  0};
  return write_value(bio, tag, wire);
}

int dec_struct_tm(BIO * /*bio*/, int /*tag*/, const unsigned char *data, int len, void *target,
                  void * /*arg*/) {
  if (!target)
    return PKI_INVALID_ARGS;
  wire_tm wire;
  if (int error = read_value(data, len, &wire))
    return error;
  auto *tm = static_cast<struct tm *>(target);
  int *fields[] = {&tm->tm_sec,  &tm->tm_min,  &tm->tm_hour, &tm->tm_mday, &tm->tm_mon,
                   &tm->tm_year, &tm->tm_wday, &tm->tm_yday, &tm->tm_isdst};
  for (int index = 0; index < 9; index++)
    *fields[index] = wire.fields[index];
  tm->tm_gmtoff = wire.gmtoff;
  // Whatever the stream says there, it is no pointer of this process.
  tm->tm_zone = nullptr;
  return PKI_OK;
}

int enc_str(BIO *bio, void *field, int tag, void * /*arg*/) {
  if (!field)
    return PKI_INVALID_ARGS;
  const char *text = *static_cast<char *const *>(field);
  if (!text)
    return PKI_OK;
  size_t length = std::strlen(text);
  if (length > INT_MAX - 1)
    return PKI_INVALID_ARGS;
  return write_block(bio, tag, text, static_cast<int>(length));
}

int dec_str(BIO * /*bio*/, int /*tag*/, const unsigned char *data, int len, void *target,
            void * /*arg*/) {
  if (!target || len < 0 || (!data && len > 0))
    return PKI_INVALID_ARGS;
  auto *text = static_cast<char *>(allocate(static_cast<size_t>(len) + 1));
  if (!text)
    return PKI_OUT_OF_MEMORY;
  if (len > 0)
    std::memcpy(text, data, static_cast<size_t>(len));
  text[len] = '\0';
  auto *field = static_cast<char **>(target);
  if (*field) {
    syslog(log_warning, "read duplicate string: old='%s', new='%s'", *field, text);
    std::free(*field);
  }
  *field = text;
  return PKI_OK;
}
