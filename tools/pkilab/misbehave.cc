#include "tools/pkilab/misbehave.h"

#include <charconv>

#include "tools/common/help_formatter.h"
#include "tools/common/text.h"

namespace pkilab {

namespace {

constexpr std::string_view prefix = "/misbehave/";
constexpr std::string_view default_rest = "/ca-info";

// A bad answer to play: the honest answer to REST, and what the path says.
struct scene {
  const request &asked;
  const route_table &routes;
  connection &peer;
  std::string argument;
  std::string rest;  // path and query of what to answer badly

  // To be spoiled, an answer must be there as a whole.
  static response whole(response answer) {
    constexpr uint64_t longest = 64u << 20;
    if (!answer.stream)
      return answer;
    if (answer.stream->length > longest)
      return text_response(400, "only answers of up to 64 MiB can be spoiled");
    answer.stream->make([&answer](std::string_view octets) {
      answer.body += octets;
      return true;
    });
    answer.stream.reset();
    return answer;
  }

  response honest(bool by_stranger = false) const {
    request inner = asked;
    set_target(&inner, rest);
    inner.by_stranger = by_stranger;
    return whole(routes.answer(inner));
  }
};

using play = void (*)(const scene &);

struct misbehaviour {
  std::string_view name;
  std::string_view argument;  // its name in the help; empty: takes none
  std::string_view text;
  play run;
};

void send_as(const scene &on, const response &answer, size_t announced, std::string_view body) {
  if (on.peer.send(head_text(answer, announced)) && on.peer.send(body))
    on.peer.finish();
}

bool parse_number(const std::string &text, int lowest, int highest, int *number) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  bool whole = error == std::errc() && end == text.data() + text.size();
  return whole && *number >= lowest && *number <= highest;
}

// ---- lengths ----

void truncate_body(const scene &on) {
  response answer = on.honest();
  send_as(on, answer, answer.body.size(),
          std::string_view(answer.body).substr(0, answer.body.size() / 2));
}

void short_length(const scene &on) {
  response answer = on.honest();
  send_as(on, answer, answer.body.size() / 2, answer.body);
}

void long_length(const scene &on) {
  response answer = on.honest();
  send_as(on, answer, answer.body.size() + 100, answer.body);
}

void no_length(const scene &on) {
  response answer = on.honest();
  if (on.peer.send(head_text(answer, std::nullopt)) && on.peer.send(answer.body))
    on.peer.finish();
}

// ---- time ----

void send_in_pieces(const scene &on, std::string_view bytes, size_t size, int pause_ms) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(size, bytes.size())))
    if (!on.peer.send(bytes.substr(0, size)) || !on.peer.pause(pause_ms))
      return;
}

void slow(const scene &on) {
  response answer = on.honest();
  send_in_pieces(on, head_text(answer, answer.body.size()), 1, 1);
  send_in_pieces(on, answer.body, 64, 2);
  on.peer.finish();
}

void stall(const scene &on) {
  response answer = on.honest();
  if (on.peer.send(head_text(answer, answer.body.size())) &&
      on.peer.send(std::string_view(answer.body).substr(0, answer.body.size() / 2)))
    on.peer.wait_for_close();
}

void no_answer(const scene &on) {
  on.peer.wait_for_close();
}

// ---- size ----

void send_forever(const scene &on, const std::string &bytes) {
  while (on.peer.send(bytes)) {
  }
}

void never_ends(const scene &on) {
  response answer = on.honest();
  if (on.peer.send(head_text(answer, 64u << 20)))
    send_forever(on, std::string(65536, ' '));
}

void huge(const scene &on) {
  constexpr size_t size = 100'000'000;
  const std::string part(100'000, ' ');
  bool taken = on.peer.send(head_text(on.honest(), size));
  for (size_t sent = 0; taken && sent < size; sent += part.size())
    taken = on.peer.send(part);
  if (taken)
    on.peer.finish();
}

void endless_headers(const scene &on) {
  std::string lines;
  for (int i = 0; i < 1000; i++)
    lines += "X-Endless: " + std::to_string(i) + "\r\n";
  if (on.peer.send("HTTP/1.0 200 OK\r\n"))
    send_forever(on, lines);
}

void long_header(const scene &on) {
  response answer = on.honest();
  answer.headers.push_back("X-Long: " + std::string(700, 'x'));
  send_response(answer, on.peer);
}

// ---- status ----

void redirect_to(const scene &on, const std::string &url) {
  response answer = text_response(302, "elsewhere");
  answer.headers.push_back("Location: " + tools::percent_encode(url));
  send_response(answer, on.peer);
}

void redirect(const scene &on) {
  int hops = 0;
  if (!parse_number(on.argument, 1, 1000, &hops))
    return send_response(text_response(400, "/misbehave/redirect/N/...: N is 1 to 1000"), on.peer);
  std::string next =
      hops == 1 ? on.rest : std::string(prefix) + "redirect/" + std::to_string(hops - 1) + on.rest;
  redirect_to(on, "http://" + on.asked.authority + next);
}

void redirect_loop(const scene &on) {
  redirect_to(on, "http://" + on.asked.authority + on.asked.target);
}

void redirect_https(const scene &on) {
  redirect_to(on, "https://" + on.asked.authority + on.rest);
}

void status(const scene &on) {
  int number = 0;
  if (!parse_number(on.argument, 100, 999, &number))
    return send_response(text_response(400, "/misbehave/status/N/...: N is 100 to 999"), on.peer);
  response answer = on.honest();
  answer.status = number;
  send_response(answer, on.peer);
}

void bad_status_line(const scene &on) {
  if (on.peer.send("ICY 200 OK\r\n\r\n"))
    on.peer.finish();
}

void reset(const scene &on) {
  on.peer.reset_on_close();
}

// ---- signatures ----

// The last octet of a signed message belongs to its signature.
void corrupt_signature(const scene &on) {
  response answer = on.honest();
  if (!answer.body.empty())
    answer.body.back() = static_cast<char>(answer.body.back() ^ 1);
  send_response(answer, on.peer);
}

void wrong_key(const scene &on) {
  send_response(on.honest(true), on.peer);
}

constexpr misbehaviour misbehaviours[] = {
    {"truncate-body", "", "announces the whole body, sends half of it and closes", truncate_body},
    {"short-length", "", "announces half of the length that it sends", short_length},
    {"long-length", "", "announces 100 octets more than it sends", long_length},
    {"no-length", "", "announces no length", no_length},
    {"slow", "", "sends the head octet by octet and the body in small pieces", slow},
    {"stall", "", "sends half of the body and then nothing", stall},
    {"no-answer", "", "takes the request and sends nothing", no_answer},
    {"never-ends", "", "announces 64 MiB and never stops sending", never_ends},
    {"huge", "", "announces and sends 100,000,000 octets", huge},
    {"endless-headers", "", "sends header lines without end", endless_headers},
    {"long-header", "", "sends a header line of more than 700 characters", long_header},
    {"redirect", "N", "redirects N times before it answers", redirect},
    {"redirect-loop", "", "redirects to itself", redirect_loop},
    {"redirect-https", "", "redirects to an https URL", redirect_https},
    {"status", "N", "answers with status N and the body", status},
    {"bad-status-line", "", "begins its answer with no HTTP status line", bad_status_line},
    {"reset", "", "resets the connection instead of answering", reset},
    {"corrupt-signature", "", "flips a bit in the last octet of the body", corrupt_signature},
    {"wrong-key", "", "lets a stranger sign the answer", wrong_key},
};

// Takes "/WORD" off the front of `path` and returns WORD.
std::string take_segment(std::string *path) {
  if (path->empty())
    return "";
  size_t end = path->find('/', 1);
  std::string word = path->substr(1, end == std::string::npos ? end : end - 1);
  *path = end == std::string::npos ? "" : path->substr(end);
  return word;
}

const misbehaviour *find_misbehaviour(const std::string &name) {
  for (const misbehaviour &row : misbehaviours)
    if (row.name == name)
      return &row;
  return nullptr;
}

}  // namespace

bool asks_to_misbehave(const request &request) {
  return request.path.starts_with(prefix);
}

void misbehave(const request &request, const route_table &routes, connection &peer) {
  std::string rest = request.path.substr(prefix.size() - 1);
  std::string name = take_segment(&rest);
  const misbehaviour *row = find_misbehaviour(name);
  if (!row) {
    send_response(text_response(404, "no such misbehaviour; / lists them"), peer);
    return;
  }
  std::string argument = row->argument.empty() ? "" : take_segment(&rest);
  if (rest.empty() || rest == "/")
    rest = default_rest;
  if (request.target.find('?') != std::string::npos)
    rest += "?" + request.query;
  row->run({request, routes, peer, argument, rest});
}

void send_response(const response &response, connection &peer) {
  std::optional<size_t> length;
  if (response.announce_length)
    length = response.length();
  bool sent = peer.send(head_text(response, length) + response.body);
  if (sent && response.stream)
    sent = response.stream->make([&peer](std::string_view octets) { return peer.send(octets); });
  if (sent)
    peer.finish();
}

std::string misbehaviour_list() {
  std::string text;
  for (const misbehaviour &row : misbehaviours) {
    std::string path(prefix);
    path += row.name;
    path += row.argument.empty() ? "/..." : "/" + std::string(row.argument) + "/...";
    text += tools::help_row(path, std::string(row.text));
  }
  return text;
}

}  // namespace pkilab
