// The tags of these tests' envelopes.
#ifndef TESTS_UNIT_COMMON_ENVELOPE_TAGS_H
#define TESTS_UNIT_COMMON_ENVELOPE_TAGS_H

namespace envelope_tags {

enum { start = 0x20, check = 0x21, content = 0x22 };

}  // namespace envelope_tags

#endif
