#include "tools/pkilab/http_routes.h"

#include <exception>

namespace pkilab {

namespace {

bool fits(const route &route, const std::string &path) {
  bool is_folder = route.path.size() > 1 && route.path.ends_with('/');
  return is_folder ? path.starts_with(route.path) : path == route.path;
}

}  // namespace

void route_table::add(route added) {
  routes_.push_back(std::move(added));
}

response route_table::answer(const request &request) const {
  bool path_known = false;
  for (const route &route : routes_) {
    if (!fits(route, request.path))
      continue;
    path_known = true;
    if (route.method != request.method)
      continue;
    try {
      return route.handle(request);
    } catch (const std::exception &error) {
      response failed = text_response(500, error.what());
      failed.note = error.what();
      failed.has_failed = true;
      return failed;
    }
  }
  return path_known ? text_response(405, "this path does not answer " + request.method)
                    : text_response(404, "nothing is here; / lists what is");
}

std::string route_table::index() const {
  std::string text;
  for (const route &route : routes_)
    text += route.method + " " + route.path + "  " + route.purpose + "\n";
  return text;
}

}  // namespace pkilab
