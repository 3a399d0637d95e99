// Which room answers which path. A room is a file with a function that adds its routes.
#ifndef TOOLS_PKILAB_HTTP_ROUTES_H
#define TOOLS_PKILAB_HTTP_ROUTES_H

#include <functional>
#include <string>
#include <vector>

#include "tools/pkilab/http_message.h"

namespace pkilab {

// Handlers run in several threads at once. What they throw becomes a 500.
using handler = std::function<response(const request &)>;

struct route {
  std::string method;   // "GET", "POST"
  std::string path;     // exact; with a "/" at its end also everything below it
  std::string purpose;  // one line for the index
  handler handle;
};

class route_table {
 public:
  void add(route added);

  // The answer of the route that fits; 404 or 405 when there is none.
  response answer(const request &request) const;

  // A line a route.
  std::string index() const;

 private:
  std::vector<route> routes_;
};

}  // namespace pkilab

#endif
