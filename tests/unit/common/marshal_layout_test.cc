// Where hosts that were built earlier put their tables' words.
#include <gtest/gtest.h>
#include <libpki/marshal.h>

#include <cstddef>
#include <type_traits>
#include <vector>

namespace {

// The place of each member when members of these sizes stand in this order, each aligned to its
// size, and then the size of the whole.
std::vector<size_t> laid_out(const std::vector<size_t> &sizes, size_t alignment = 1) {
  std::vector<size_t> places;
  size_t place = 0;
  for (size_t size : sizes) {
    place = (place + size - 1) / size * size;
    places.push_back(place);
    place += size;
    alignment = std::max(alignment, size);
  }
  places.push_back((place + alignment - 1) / alignment * alignment);
  return places;
}

constexpr size_t word = sizeof(int);
constexpr size_t pointer = sizeof(void *);
using places = std::vector<size_t>;

TEST(MarshalLayout, FieldIsSixWords) {
  EXPECT_EQ((places{offsetof(marshal_field, offset), offsetof(marshal_field, tag),
                    offsetof(marshal_field, enc), offsetof(marshal_field, enc_arg),
                    offsetof(marshal_field, dec), offsetof(marshal_field, dec_arg),
                    sizeof(marshal_field)}),
            laid_out({word, word, pointer, pointer, pointer, pointer}));
  EXPECT_EQ(offsetof(marshal_field, selector), 0u);
}

TEST(MarshalLayout, StructureIsItsOwnWordEndTagConstructorDestructorInlineFields) {
  EXPECT_EQ((places{offsetof(marshal_struct_desc, own), offsetof(marshal_struct_desc, end_tag),
                    offsetof(marshal_struct_desc, ctor), offsetof(marshal_struct_desc, dtor),
                    offsetof(marshal_struct_desc, is_inline), offsetof(marshal_struct_desc, fields),
                    sizeof(marshal_struct_desc)}),
            laid_out({word, word, pointer, pointer, 1, pointer}));
}

TEST(MarshalLayout, ChoiceHasItsPlacesBeforeInlineAndAlternatives) {
  EXPECT_EQ(
      (places{offsetof(marshal_choice_desc, own), offsetof(marshal_choice_desc, end_tag),
              offsetof(marshal_choice_desc, ctor), offsetof(marshal_choice_desc, dtor),
              offsetof(marshal_choice_desc, selector_offset),
              offsetof(marshal_choice_desc, value_offset), offsetof(marshal_choice_desc, is_inline),
              offsetof(marshal_choice_desc, alternatives), sizeof(marshal_choice_desc)}),
      laid_out({word, word, pointer, pointer, word, word, 1, pointer}));
}

TEST(MarshalLayout, StackHoldsItsElementsRow) {
  places of = laid_out({word, word, pointer});
  of.back() = offsetof(marshal_stack_desc, elem_free) + pointer;
  EXPECT_EQ(
      (places{offsetof(marshal_stack_desc, own), offsetof(marshal_stack_desc, end_tag),
              offsetof(marshal_stack_desc, elem_free), offsetof(marshal_stack_desc, element)}),
      of);
  EXPECT_EQ(sizeof(marshal_stack_desc), of.back() + sizeof(marshal_field));
}

TEST(MarshalLayout, ItemIsTagEncoderDecoder) {
  EXPECT_EQ((places{offsetof(marshal_item, tag), offsetof(marshal_item, enc),
                    offsetof(marshal_item, enc_arg), offsetof(marshal_item, dec),
                    offsetof(marshal_item, dec_arg), sizeof(marshal_item)}),
            laid_out({word, pointer, pointer, pointer, pointer}));
}

TEST(MarshalLayout, EnvelopeIsThreeTagsAndFourPointers) {
  EXPECT_EQ(
      (places{
          offsetof(marshal_envelope_desc, start_tag), offsetof(marshal_envelope_desc, check_tag),
          offsetof(marshal_envelope_desc, struct_tag), offsetof(marshal_envelope_desc, struct_desc),
          offsetof(marshal_envelope_desc, md), offsetof(marshal_envelope_desc, sign_key),
          offsetof(marshal_envelope_desc, verify_key), sizeof(marshal_envelope_desc)}),
      laid_out({word, word, word, pointer, pointer, pointer, pointer}));
}

TEST(MarshalLayout, DescriptionsArePlainC) {
  EXPECT_TRUE(std::is_trivial_v<marshal_field> && std::is_standard_layout_v<marshal_field>);
  EXPECT_TRUE(std::is_trivial_v<marshal_choice_desc> &&
              std::is_standard_layout_v<marshal_choice_desc>);
  EXPECT_EQ(sizeof(marshal_struct_desc::is_inline), 1u);
  EXPECT_EQ(sizeof(marshal_choice_desc::is_inline), 1u);
  EXPECT_EQ(sizeof(int), 4u);
}

}  // namespace
