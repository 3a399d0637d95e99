// pkictl state dump: a marshal stream for people to read.
#include <libpki/error.h>
#include <libpki/marshal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <memory>

#include "tools/common/command_line.h"
#include "tools/common/failure.h"
#include "tools/pkictl/command.h"
#include "tools/pkictl/library.h"
#include "tools/pkictl/state.h"
#include "tools/pkictl/state_file.h"
#include "tools/pkictl/tag_names.h"

namespace pkictl {

namespace {

constexpr int longest_magic = 100;

struct state_dump_options {
  std::string file;
  std::string names;
  std::string state;
  int magic = static_cast<int>(state_magic.size());
  bool secrets = false;
};

tools::bio_ptr reader(const secret_octets &octets) {
  static const unsigned char nothing = 0;
  tools::bio_ptr bio(
      BIO_new_mem_buf(octets.empty() ? &nothing : octets.data(), static_cast<int>(octets.size())));
  if (!bio)
    throw tools::failure("out of memory");
  return bio;
}

bool has_state_magic(const secret_octets &octets) {
  return octets.size() >= state_magic.size() &&
         std::equal(state_magic.begin(), state_magic.end(), octets.begin());
}

// Reads a state whatever became of its magic. Returns false where there is none.
bool read_anyway(secret_octets octets, saved_state *state) {
  if (octets.size() < state_magic.size())
    return false;
  std::copy(state_magic.begin(), state_magic.end(), octets.begin());
  return decode_state(octets, state) == PKI_OK;
}

bool is_whole_state(const secret_octets &octets) {
  saved_state ignored;
  return read_anyway(octets, &ignored);
}

// Streams of others may pass for a state, but not for one with keys.
bool has_keys(const secret_octets &octets) {
  saved_state state;
  return read_anyway(octets, &state) && !state.keys.empty();
}

int copy_block(BIO *from, BIO *to, int *tag) {
  unsigned char *data = nullptr;
  int length = 0;
  if (int error = read_block(from, tag, &length, &data))
    return error;
  const unsigned char length_octets[2] = {static_cast<unsigned char>(length >> 8),
                                          static_cast<unsigned char>(length)};
  int error = *tag == tag_private_key
                  ? write_block(to, tag_private_key_length, length_octets, sizeof length_octets)
                  : write_block(to, *tag, data, length);
  OPENSSL_clear_free(data, static_cast<size_t>(length));
  return error;
}

// A copy of a state with the lengths of the private keys in the place of the keys.
secret_octets without_keys(const secret_octets &octets) {
  BIO *made = nullptr;
  require_ok("cannot copy the state", new_write_buffer(&made, static_cast<int>(octets.size())));
  tools::bio_ptr copy(made);
  tools::bio_ptr bio = reader(octets);
  unsigned char magic[state_magic.size()];
  int error = read_fully(bio.get(), magic, sizeof magic);
  if (!error)
    error = write_fully(copy.get(), magic, sizeof magic);
  for (int tag = -1; !error && tag != tag_end_of_data;)
    error = copy_block(bio.get(), copy.get(), &tag);
  require_ok("cannot copy the state", error);
  unsigned char *copied = nullptr;
  long length = BIO_get_mem_data(copy.get(), &copied);
  return secret_octets(copied, copied + length);
}

// A state is never shown with its keys unawares, so one in which they cannot be told from the rest
// is not shown at all.
void hide_keys(const state_dump_options &given, const std::string &path, secret_octets *octets) {
  if (!is_whole_state(*octets))
    throw tools::failure(path +
                         " is damaged, so that the private keys in it cannot be told from the"
                         " rest; --secrets shows all of it");
  if (given.magic != static_cast<int>(state_magic.size()))
    throw tools::usage_failure("the magic of a state has " + std::to_string(state_magic.size()) +
                               " octets; leave --magic out");
  *octets = without_keys(*octets);
}

// The dump prints a magic as it is.
void make_magic_printable(int length, secret_octets *octets) {
  size_t count = std::min(static_cast<size_t>(length), octets->size());
  std::replace_if(
      octets->begin(), octets->begin() + static_cast<long>(count),
      [](unsigned char octet) { return octet < ' ' || octet > '~'; }, '.');
}

tag_names names_for(const state_dump_options &given, bool is_state) {
  if (!given.names.empty())
    return read_tag_names(given.names);
  return is_state ? tag_names(state_tag_names.begin(), state_tag_names.end()) : tag_names();
}

int print_stream(const secret_octets &octets, int magic_length, const tag_names &names) {
  std::vector<const char *> texts;
  for (const std::string &name : names)
    texts.push_back(name.empty() ? nullptr : name.c_str());
  return dump_raw_bio(reader(octets).get(), magic_length, texts.data(),
                      static_cast<int>(texts.size()));
}

// The text that the hexadecimal digits of a value are, or "".
std::string text_of_digits(const std::string &digits) {
  constexpr size_t shortest = 2;
  std::string text;
  for (size_t at = 0; at + 2 <= digits.size(); at += 2) {
    unsigned octet = 0;
    std::from_chars(digits.data() + at, digits.data() + at + 2, octet, 16);
    text += static_cast<char>(octet);
  }
  if (!text.empty() && text.back() == '\0')
    text.pop_back();
  bool is_text = text.size() >= shortest && std::all_of(text.begin(), text.end(), [](char octet) {
                   return octet >= ' ' && octet <= '~';
                 });
  return is_text ? text : "";
}

// The dump with text behind the values that are text.
std::string with_texts(const std::string &dumped) {
  const std::string before = " val=\"";
  const std::string behind = "\">";
  std::string shown;
  for (size_t at = 0; at < dumped.size();) {
    size_t end = std::min(dumped.find('\n', at), dumped.size());
    std::string line = dumped.substr(at, end - at);
    size_t value = line.find(before);
    std::string text;
    if (value != std::string::npos && line.ends_with(behind))
      text = text_of_digits(
          line.substr(value + before.size(), line.size() - value - before.size() - behind.size()));
    shown += line;
    if (!text.empty())
      shown.append("  \"").append(text).append("\"");
    if (end < dumped.size())
      shown += '\n';
    at = end + 1;
  }
  return shown;
}

// A file for other programs, whose octets would be taken for blocks.
void require_no_pem(const std::string &path, const secret_octets &octets) {
  const std::string begin = "-----BEGIN ";
  if (octets.size() >= begin.size() && std::equal(begin.begin(), begin.end(), octets.begin()))
    throw tools::failure(path + " is PEM, no marshal stream; openssl reads it");
}

// A stream begins with the empty block that opens a structure or an envelope, or is whole whatever
// it begins with. Anything else is another file. Returns why it cannot be read.
int check_stream(const secret_octets &octets, int magic_length) {
  tools::bio_ptr bio = reader(octets);
  std::array<unsigned char, longest_magic> magic;
  int error = read_fully(bio.get(), magic.data(), magic_length);
  for (int tag = -1; !error && tag != tag_end_of_data;) {
    bool is_first = tag == -1;
    unsigned char *data = nullptr;
    int length = 0;
    error = read_block(bio.get(), &tag, &length, &data);
    OPENSSL_clear_free(data, static_cast<size_t>(length));
    if (!error && is_first && length == 0)
      return PKI_OK;
  }
  return error;
}

void require_stream(const std::string &path, int code) {
  if (code != PKI_OK)
    throw tools::library_failure(
        code, path + " is no whole stream: " + code_text_and_number(code) + "; is --magic right?");
}

int dump(const context &where, const state_dump_options &given) {
  if (where.json)
    throw tools::usage_failure("state dump prints text only; leave --json out");
  std::string path =
      given.file.empty() ? state_folder::to_read(given.state, "key generate").file() : given.file;
  secret_octets octets;
  if (!read_state_file(path, &octets))
    throw tools::failure("there is no file " + path);
  require_no_pem(path, octets);
  bool is_state = given.file.empty() || has_state_magic(octets) || has_keys(octets);
  tag_names names = names_for(given, is_state);
  if (is_state && !given.secrets)
    hide_keys(given, path, &octets);
  require_stream(path, check_stream(octets, given.magic));
  make_magic_printable(given.magic, &octets);
  int code = PKI_OK;
  where.out->write_text(with_texts(
      output::standard_output_of([&] { code = print_stream(octets, given.magic, names); })));
  require_stream(path, code);
  return 0;
}

}  // namespace

void add_state_command(CLI::App &app, action *chosen) {
  CLI::App *state = app.add_subcommand("state", "Look into what is kept between calls");
  state->require_subcommand(1);
  state->fallthrough();
  auto given = std::make_shared<state_dump_options>();
  CLI::App *command =
      state->add_subcommand("dump", "Print a marshal stream block by block, the state by default");
  command->add_option("FILE", given->file, "The file with the stream");
  command->add_option("--names", given->names, "File with the tags' names, lines \"NUMBER NAME\"")
      ->type_name("FILE");
  command->add_option("--magic", given->magic, "How many octets stand in front of the first block")
      ->check(tools::check_number)
      ->check(CLI::Range(0, longest_magic))
      ->type_name("N")
      ->capture_default_str();
  command->add_flag("--secrets", given->secrets, "Show the private keys of a state too");
  add_state_option(command, &given->state);
  command->footer(
      std::string("Examples:\n"
                  "  pkictl state dump | cut -c-100      (of long values the beginning)\n"
                  "  pkictl state dump record.bin --names record.names\n\n"
                  "A block is a line <TAG val=\"HEX\">, with the value behind it where that is\n"
                  "text. Names with START in them indent what follows, those with END end that;\n"
                  "mind names as VENDOR_START, which has both.\n"
                  "In a state PRIVATE_KEY_LENGTH stands for each private key, with its length in\n"
                  "octets, hexadecimal.\n\n") +
      state_footer +
      "-v shows the library's log lines on stderr; there is no JSON.\n"
      "Exit codes: 0 done, 1 failed, 2 wrong usage.");
  command->callback([=] { *chosen = [=](const context &where) { return dump(where, *given); }; });
}

}  // namespace pkictl
