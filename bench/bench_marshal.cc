// The marshal stream: small fields a second into memory and out of it, held against a memcpy of
// the same octets, and what reading allocates.
//
//   bench_marshal [RECORDS]   default: 100,000 records of ten fields
#include <libpki/libpki.h>
#include <openssl/buffer.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr double fields_budget = 5e6;
constexpr int rounds = 7;
constexpr int fields_of_record = 10;

enum tags { tag_records = 1, tag_records_end, tag_record, tag_record_end, tag_first_field };

struct record {
  int numbers[6];
  time_t times[2];
  char *texts[2];
};

void *new_record() {
  return std::calloc(1, sizeof(record));
}

void free_record(void *object) {
  auto *old = static_cast<record *>(object);
  if (!old)
    return;
  for (char *text : old->texts)
    std::free(text);
  std::free(old);
}

marshal_field field(size_t offset, int index, marshal_enc_fn *enc, marshal_dec_fn *dec) {
  return {{static_cast<int>(offset)}, tag_first_field + index, enc, nullptr, dec, nullptr};
}

struct tables {
  tables() {
    int index = 0;
    for (size_t i = 0; i < 6; i++)
      fields[index] = field(offsetof(record, numbers) + i * sizeof(int), index, enc_int, dec_int),
      index++;
    for (size_t i = 0; i < 2; i++)
      fields[index] =
          field(offsetof(record, times) + i * sizeof(time_t), index, enc_time, dec_time),
      index++;
    for (size_t i = 0; i < 2; i++)
      fields[index] = field(offsetof(record, texts) + i * sizeof(char *), index, enc_str, dec_str),
      index++;
  }

  marshal_field fields[fields_of_record + 1] = {};
  marshal_struct_desc record_desc = {0, tag_record_end, new_record, free_record, 0, fields};
  marshal_stack_desc records_desc = {
      0,
      tag_records_end,
      free_record,
      {{0}, tag_record, enc_struct, &record_desc, dec_struct, &record_desc}};
  marshal_item item = {tag_records, enc_stack, &records_desc, dec_stack, &records_desc};
};

using records_ptr = std::unique_ptr<STACK, void (*)(STACK *)>;
using stream_ptr = std::unique_ptr<BIO, int (*)(BIO *)>;

void free_records(STACK *records) {
  OPENSSL_sk_pop_free(records, free_record);
}

records_ptr make_records(int count) {
  records_ptr records(OPENSSL_sk_new_null(), free_records);
  for (int i = 0; i < count; i++) {
    auto *made = static_cast<record *>(new_record());
    for (int n = 0; n < 6; n++)
      made->numbers[n] = i + n;
    made->times[0] = made->times[1] = 1700000000 + i;
    made->texts[0] = pki_strdup("gateway");
    made->texts[1] = pki_strdup("192.0.2.1");
    OPENSSL_sk_push(records.get(), made);
  }
  return records;
}

double cpu_seconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int fail(const char *what) {
  std::fprintf(stderr, "bench_marshal: %s\n", what);
  return 1;
}

struct times {
  std::vector<double> write, read, copy;
};

// One stream written, read and copied; false when something fails.
bool run(const tables &tables, STACK *records, times *found, size_t *octets) {
  BIO *made = nullptr;
  double start = cpu_seconds();
  if (new_write_buffer(&made, static_cast<int>(*octets)) != PKI_OK)
    return false;
  stream_ptr stream(made, BIO_free);
  if (marshall(stream.get(), records, &tables.item, nullptr, 0) != PKI_OK)
    return false;
  found->write.push_back(cpu_seconds() - start);

  BUF_MEM *memory = nullptr;
  BIO_get_mem_ptr(stream.get(), &memory);
  *octets = memory->length;
  std::vector<char> copy(memory->length);
  start = cpu_seconds();
  std::memcpy(copy.data(), memory->data, memory->length);
  found->copy.push_back(cpu_seconds() - start);

  stream_ptr source(BIO_new_mem_buf(copy.data(), static_cast<int>(copy.size())), BIO_free);
  STACK *decoded = nullptr;
  start = cpu_seconds();
  int error = unmarshall(source.get(), &decoded, &tables.item, nullptr, 0);
  found->read.push_back(cpu_seconds() - start);
  records_ptr owner(decoded, free_records);
  return error == PKI_OK && OPENSSL_sk_num(decoded) == OPENSSL_sk_num(records);
}

}  // namespace

int main(int argc, char **argv) {
  const int count = argc > 1 ? std::atoi(argv[1]) : 100000;
  if (count < 1) {
    std::fprintf(stderr, "bench_marshal: usage: bench_marshal [RECORDS]\n");
    return 2;
  }
  const tables tables;
  records_ptr records = make_records(count);
  times found;
  size_t octets = 0;
  for (int i = 0; i < rounds; i++)
    if (!run(tables, records.get(), &found, &octets))
      return fail("a stream could not be written or read");
  double fields = static_cast<double>(count) * fields_of_record;
  double written = fields / median(found.write);
  double decoded = fields / median(found.read);
  double copy = median(found.copy);
  std::printf("marshal, %d records of %d small fields, %zu octets:\n", count, fields_of_record,
              octets);
  std::printf("  written   %6.2f million fields a second (budget %.0f), %5.1f times a memcpy\n",
              written / 1e6, fields_budget / 1e6, median(found.write) / copy);
  std::printf("  read      %6.2f million fields a second (budget %.0f), %5.1f times a memcpy\n",
              decoded / 1e6, fields_budget / 1e6, median(found.read) / copy);
  if (written < fields_budget || decoded < fields_budget)
    return fail("over the budget");
  return 0;
}
