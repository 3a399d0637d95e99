// Marshal streams: whatever they hold, reading them ends with an object or with an error and none;
// an object that was read can be written, and what was written is read back as the same octets.
#include <libpki/libpki.h>
#include <openssl/err.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "invariant.h"
#include "marshal_form.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

namespace {

using namespace fuzz;
using support::stream;

std::string written(node *object) {
  stream out = support::empty_stream();
  int code = marshall(out.get(), object, &form_of_nodes().item, nullptr, 0);
  require(code == PKI_OK, "what was read can be written", code);
  return support::octets_in(out);
}

// A time has a pointer in it, which no stream may set.
void require_no_zones(const node *of) {
  for (; of; of = of->next) {
    require(!of->record || !of->record->broken_down.tm_zone, "no pointer out of a stream");
    require(of->varied.kind != fuzz::varied_event || !of->varied.value.event.when.tm_zone,
            "no pointer out of another alternative");
  }
}

int read(const std::string &octets, node **object) {
  stream in = support::stream_of(octets);
  int code = unmarshall(in.get(), object, &form_of_nodes().item, nullptr, 0);
  require((code == PKI_OK) == (*object != nullptr), "an object, or an error", code);
  require(ERR_peek_error() == 0, "OpenSSL's queue is empty");
  require_no_zones(*object);
  return code;
}

// A block as it stands in a stream.
std::vector<std::string> blocks_of(const uint8_t *data, size_t size) {
  std::vector<std::string> blocks;
  for (size_t at = 0; at < size;) {
    size_t end = at + 1;
    size_t length = 0;
    while (end < size && end - at < 6) {
      length = length << 7 | (data[end] & 0x7f);
      if (!(data[end++] & 0x80))
        break;
    }
    end += std::min(length, size - end);
    blocks.emplace_back(reinterpret_cast<const char *>(data) + at, end - at);
    at = end;
  }
  return blocks;
}

size_t put_blocks(const std::vector<std::string> &blocks, uint8_t *data, size_t max_size) {
  size_t size = 0;
  for (const std::string &block : blocks) {
    size_t count = std::min(block.size(), max_size - size);
    std::copy_n(block.begin(), count, data + size);
    size += count;
  }
  return size;
}

// One block, or a run of them, is doubled, dropped, moved or given another tag.
void change(std::vector<std::string> *blocks, std::minstd_rand *random) {
  auto pick = [&](size_t below) { return below ? (*random)() % below : 0; };
  size_t from = pick(blocks->size());
  size_t count = 1 + pick(std::min<size_t>(blocks->size() - from, 8));
  std::vector<std::string> run(blocks->begin() + static_cast<long>(from),
                               blocks->begin() + static_cast<long>(from + count));
  auto put = [&](size_t at) {
    blocks->insert(blocks->begin() + static_cast<long>(at), run.begin(), run.end());
  };
  switch (pick(4)) {
    case 0:
      put(pick(blocks->size() + 1));
      break;
    case 1:
      blocks->erase(blocks->begin() + static_cast<long>(from),
                    blocks->begin() + static_cast<long>(from + count));
      break;
    case 2:
      blocks->erase(blocks->begin() + static_cast<long>(from),
                    blocks->begin() + static_cast<long>(from + count));
      put(pick(blocks->size() + 1));
      break;
    default:
      (*blocks)[from][0] = (*blocks)[pick(blocks->size())][0];
      break;
  }
}

}  // namespace

extern "C" {

int LLVMFuzzerInitialize(int *, char ***) {
  form_of_nodes();
  return libpki_init() == 0 ? 0 : 1;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  node *object = nullptr;
  if (read(std::string(reinterpret_cast<const char *>(data), size), &object) == PKI_OK) {
    std::string once = written(object);
    node *again = nullptr;
    int code = read(once, &again);
    require(code == PKI_OK, "what was written can be read", code);
    require(written(again) == once, "and is the same");
    free_node(again);
  }
  free_node(object);
  require(support::records_alive == 0 && support::notes_alive == 0 && support::choices_alive == 0,
          "every object was freed");
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size, unsigned seed) {
  std::minstd_rand random(seed);
  std::vector<std::string> blocks = blocks_of(data, size);
  if (blocks.empty() || random() % 4 == 0)
    return LLVMFuzzerMutate(data, size, max_size);
  change(&blocks, &random);
  return put_blocks(blocks, data, max_size);
}
}
