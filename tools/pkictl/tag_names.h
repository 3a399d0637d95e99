// Names for the tags of a marshal stream.
#ifndef TOOLS_PKICTL_TAG_NAMES_H
#define TOOLS_PKICTL_TAG_NAMES_H

#include <string>
#include <vector>

namespace pkictl {

// By their numbers; "" for a tag without a name.
using tag_names = std::vector<std::string>;

// A file with lines "NUMBER NAME", numbers from 0 to 255. Empty lines do not count. Throws failure.
tag_names read_tag_names(const std::string &path);

}  // namespace pkictl

#endif
