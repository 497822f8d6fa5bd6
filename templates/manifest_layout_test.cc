#include "templates/manifest_layout.h"

#include <gtest/gtest.h>

#include <set>

namespace {

// "F" and 7 make "F7" (without operator+ on a temporary, which g++ 12
// warns about wrongly).
std::string numbered(const char* prefix, int i) {
  std::string s(prefix);
  s += std::to_string(i);
  return s;
}

manifest_property p(const std::string& name, uint8_t in_type, uint32_t flags = 0, uint32_t count = 0,
                    uint32_t length = 0) {
  manifest_property x;
  x.name = name;
  x.in_type = in_type;
  x.flags = flags;
  x.count = count;
  x.length = length;
  return x;
}
manifest_property s(const std::string& name, uint32_t first, uint32_t members, uint32_t flags = 1,
                    uint32_t count = 0) {
  manifest_property x;
  x.name = name;
  x.flags = flags;
  x.first_member = first;
  x.member_count = members;
  x.count = count;
  return x;
}

// The tokens of a template made of `props`, the first `params` top-level.
std::string tokens(std::vector<manifest_property> props, uint32_t params = UINT32_MAX) {
  manifest_template t;
  t.param_count = params == UINT32_MAX ? uint32_t(props.size()) : params;
  t.properties = std::move(props);
  uint64_t budget = 100000;
  std::string out;
  append_layout_tokens(out, layout_of(t, budget).fields);
  return out;
}

// Back references count entries of the decoded list: a fixed array of n
// numbers makes n entries, a blob or a string one.
TEST(ManifestLayout, BackReferencesCountEntries) {
  // Len, then three 16-bit values, then a UTF-16 string of Len characters:
  // Len is 1 + 3 = 4 entries back.
  EXPECT_EQ(tokens({p("Len", 4), p("Arr", 6, property_fixed_count, 3), p("Name", 1, property_var_length, 0, 0)}),
            ", LLen, 4, LArr, 0xd386, LName, 0xa401");
  // A byte array is one blob entry: Len is 2 back.
  EXPECT_EQ(tokens({p("Len", 8), p("Mac", 4, property_fixed_count, 6), p("Data", 14, property_var_length, 0, 0)}),
            ", LLen, 8, LMac, 0xd684, LData, 0xa284");
  // Two counts, each used by a later field: the references move as the list grows.
  EXPECT_EQ(tokens({p("N", 6), p("M", 7), p("A", 2, property_var_length, 0, 0), p("B", 1, property_var_length, 0, 1)}),
            ", LN, 6, LM, 7, LA, 0xa202, LB, 0xa201");
  // Fifteen entries back is the most a nibble holds; sixteen stops.
  std::vector<manifest_property> v = {p("Len", 5)};
  for (int i = 0; i < 14; ++i) v.push_back(p(numbered("F", int(i)), 4));
  v.push_back(p("Str", 2, property_var_length, 0, 0));
  std::string got = tokens(v);
  EXPECT_NE(got.find(", LStr, 0xaf02"), std::string::npos) << got;
  v.insert(v.begin() + 1, p("Extra", 4));
  got = tokens(v);
  EXPECT_EQ(got.substr(got.size() - 9), ", LStr, 0") << got;
  // A variable count makes a payload-dependent number of entries: nothing
  // after it can refer back across it.
  EXPECT_EQ(tokens({p("N", 4), p("Vals", 8, property_var_count, 0), p("Len", 4), p("S", 1, property_var_length, 0, 2)}),
            ", LN, 4, LVals, 0xa188, LLen, 4, LS, 0xa101");
  EXPECT_EQ(tokens({p("N", 4), p("Vals", 8, property_var_count, 0), p("S", 1, property_var_length, 0, 0)}),
            ", LN, 4, LVals, 0xa188, LS, 0");
  // References to later fields, to non-integers, to a missing index: stop.
  EXPECT_EQ(tokens({p("S", 1, property_var_length, 0, 1), p("Len", 4)}), ", LS, 0");
  EXPECT_EQ(tokens({p("G", 15), p("S", 1, property_var_length, 0, 0)}), ", LG, 15, LS, 0");
  EXPECT_EQ(tokens({p("N", 4), p("S", 1, property_var_count, 9)}), ", LN, 4, LS, 0");
  // A fixed array of counts isn't a count.
  EXPECT_EQ(tokens({p("N", 4, property_fixed_count, 2), p("S", 1, property_var_length, 0, 0)}),
            ", LN, 0xd284, LS, 0");
}

TEST(ManifestLayout, FixedSizesAndCounts) {
  // Binary of fixed length: up to 15 bytes in the nibble, beyond as 0xB284
  // with the length as the next word.
  EXPECT_EQ(tokens({p("B", 14, property_fixed_length, 0, 15)}), ", LB, 0xdf84");
  EXPECT_EQ(tokens({p("B", 14, property_fixed_length, 0, 16), p("X", 8)}), ", LB, 0xb284, 16, LX, 8");
  EXPECT_EQ(tokens({p("B", 14, property_fixed_length, 0, 65535)}), ", LB, 0xb284, 65535");
  // Binary of unknown size: the walker shows "{blob}" and ends; nothing follows.
  EXPECT_EQ(tokens({p("B", 14), p("X", 8)}), ", LB, 14");
  // ANSI text of fixed length up to 15; UTF-16 only in the 3, 4 and 256
  // character slots.
  EXPECT_EQ(tokens({p("A", 2, property_fixed_length, 0, 4)}), ", LA, 0xd402");
  EXPECT_EQ(tokens({p("A", 2, property_fixed_length, 0, 16)}), ", LA, 0");
  EXPECT_EQ(tokens({p("U", 1, property_fixed_length, 0, 3), p("V", 1, property_fixed_length, 0, 4),
                    p("W", 1, property_fixed_length, 0, 256)}),
            ", LU, 145, LV, 161, LW, 177");
  EXPECT_EQ(tokens({p("U", 1, property_fixed_length, 0, 5)}), ", LU, 0");
  // A length on a SID or a number means nothing.
  EXPECT_EQ(tokens({p("Sid", 19, property_fixed_length, 0, 2), p("N", 8, property_var_length, 0, 0)}),
            ", LSid, 19, LN, 8");
  // Fixed counts: 15 fits, 16 doesn't; a count of 1 (or 0, as the compiler
  // writes count="0") is the plain value.
  EXPECT_EQ(tokens({p("A", 8, property_fixed_count, 15)}), ", LA, 0xdf88");
  EXPECT_EQ(tokens({p("A", 8, property_fixed_count, 16)}), ", LA, 0");
  EXPECT_EQ(tokens({p("A", 8, property_fixed_count, 1), p("B", 8, property_fixed_count, 0)}), ", LA, 8, LB, 8");
  // (The array forms of each in-type are checked on TypeMangling.man.)
  EXPECT_EQ(tokens({p("B", 14, property_fixed_count | property_fixed_length, 4, 4)}), ", LB, 0xb284, 16");
  EXPECT_EQ(tokens({p("Z", 0)}), ", LZ, 0");
}

TEST(ManifestLayout, Structures) {
  // A single structure is its members in place; a member's length may refer
  // to a sibling.
  EXPECT_EQ(tokens({s("S", 2, 2), p("After", 8), p("Len", 6), p("Name", 1, property_var_length, 0, 2)}, 2),
            ", LLen, 6, LName, 0xa101, LAfter, 8");
  // Arrays of structures stop under the structure's name, fixed or variable.
  EXPECT_EQ(tokens({p("A", 8), s("S", 2, 1, property_struct | property_fixed_count, 2), p("M", 4)}, 2),
            ", LA, 8, LS, 0");
  EXPECT_EQ(tokens({p("N", 4), s("S", 2, 1, property_struct | property_var_count, 0), p("M", 4)}, 2),
            ", LN, 4, LS, 0");
  // A structure with count 1 flagged as an array is still one structure.
  EXPECT_EQ(tokens({s("S", 1, 1, property_struct | property_fixed_count, 1), p("M", 4)}, 1), ", LM, 4");
  // Member ranges past the table, and a structure that contains itself.
  EXPECT_EQ(tokens({s("S", 1, 5), p("M", 4)}, 1), ", LS, 0");
  std::string got = tokens({s("Loop", 0, 1)}, 1);
  EXPECT_EQ(got, ", LLoop, 0");
  // A stop inside a structure keeps the members before it.
  EXPECT_EQ(tokens({s("S", 1, 2), p("M", 4), p("Bad", 23)}, 1), ", LM, 4, LBad, 0");
}

TEST(ManifestLayout, NamesBudgetAndFormatting) {
  // Empty names give no "L" token; names are cleaned of token breakers.
  EXPECT_EQ(tokens({p("", 8), p("a,b!c", 4)}), ", 8, La_b_c, 4");
  // Words below 256 in decimal, family words in hexadecimal.
  EXPECT_EQ(tokens({p("T", 22), p("U", 1, property_fixed_count, 9)}), ", LT, 22, LU, 0x9981");
  // Only the top-level parameters are walked.
  EXPECT_EQ(tokens({p("A", 8), p("Member", 4)}, 1), ", LA, 8");
  // Out of budget: the layout stops at once.
  manifest_template t;
  t.param_count = 2;
  t.properties = {p("A", 8), p("B", 8)};
  uint64_t budget = 1;
  manifest_layout l = layout_of(t, budget);
  EXPECT_TRUE(l.stopped);
  ASSERT_EQ(l.fields.size(), 2u);
  EXPECT_EQ(l.fields[1].word, 0);
  EXPECT_EQ(l.fields[1].name, "B");
  EXPECT_EQ(budget, 0u);
  // A table of many structures, each holding all the others: bounded work.
  manifest_template big;
  big.param_count = 64;
  for (int i = 0; i < 64; ++i) big.properties.push_back(s(numbered("S", i), 0, 64));
  budget = 100000;
  manifest_layout lb = layout_of(big, budget);
  EXPECT_TRUE(lb.stopped);
  EXPECT_LE(lb.fields.size(), 4096u);
}

}  // namespace

namespace {

layout_stop why(std::vector<manifest_property> props, uint32_t params = UINT32_MAX) {
  manifest_template t;
  t.param_count = params == UINT32_MAX ? uint32_t(props.size()) : params;
  t.properties = std::move(props);
  uint64_t budget = 100000;
  manifest_layout l = layout_of(t, budget);
  EXPECT_EQ(l.stopped, l.stop != layout_stop::none);
  if (l.stopped) {
    EXPECT_EQ(l.fields.back().word, 0);
  }
  return l.stop;
}

// Every stop says why, so that a summary can count layouts by reason.
TEST(ManifestLayout, EachStopHasItsReason) {
  EXPECT_EQ(why({p("A", 8), p("B", 14)}), layout_stop::none);
  EXPECT_EQ(why({p("N", 4), s("S", 2, 1, property_struct | property_var_count, 0), p("M", 4)}, 2),
            layout_stop::struct_array);
  EXPECT_EQ(why({s("S", 1, 1, property_struct | property_fixed_count, 2), p("M", 4)}, 1),
            layout_stop::struct_array);
  EXPECT_EQ(why({p("A", 8, property_fixed_count, 16)}), layout_stop::count_over_15);
  EXPECT_EQ(why({p("A", 2, property_fixed_length, 0, 16)}), layout_stop::ansi_length_over_15);
  EXPECT_EQ(why({p("U", 1, property_fixed_length, 0, 5)}), layout_stop::utf16_length);
  // Sizes past the 16-bit parameter word: one blob, or an array of blobs.
  EXPECT_EQ(why({p("B", 14, property_fixed_length, 0, 65535)}), layout_stop::none);
  EXPECT_EQ(why({p("B", 14, property_fixed_length, 0, 65536)}), layout_stop::binary_length);
  EXPECT_EQ(why({p("B", 14, property_fixed_length | property_fixed_count, 15, 5000)}),
            layout_stop::binary_length);
  EXPECT_EQ(why({p("S", 19, property_fixed_count, 5)}), layout_stop::array_of_type);
  EXPECT_EQ(why({p("N", 4), p("S", 2, property_var_count, 0)}), layout_stop::array_of_type);
  EXPECT_EQ(why({p("B", 14, property_fixed_count, 3)}), layout_stop::array_of_type);
  EXPECT_EQ(why({p("C", 23)}), layout_stop::counted_ansi);
  EXPECT_EQ(why({p("C", 25)}), layout_stop::counted_binary);
  EXPECT_EQ(why({p("Z", 0)}), layout_stop::no_word);
  EXPECT_EQ(why({p("Z", 24)}), layout_stop::no_word);
  EXPECT_EQ(why({p("Z", 200)}), layout_stop::no_word);
  EXPECT_EQ(why({p("S", 1, property_var_length, 0, 1), p("Len", 4)}), layout_stop::out_of_reach);
  EXPECT_EQ(why({s("S", 1, 5), p("M", 4)}, 1), layout_stop::bad_structure);
  EXPECT_EQ(why({s("Loop", 0, 1)}, 1), layout_stop::bad_structure);
  manifest_template t;
  t.param_count = 2;
  t.properties = {p("A", 8), p("B", 8)};
  uint64_t budget = 1;
  EXPECT_EQ(layout_of(t, budget).stop, layout_stop::work_limit);

  std::set<std::string> texts;
  for (int i = 0; i < layout_stop_count; ++i) texts.insert(layout_stop_text(layout_stop(i)));
  EXPECT_EQ(texts.size(), size_t(layout_stop_count));
  EXPECT_EQ(texts.count("?"), 0u);
}

TEST(ManifestLayout, NamesAreSafeTokens) {
  EXPECT_EQ(layout_name("  a,b!c\td\x7f "), "a_b_c_d_");
  EXPECT_EQ(layout_name("   "), "");
  manifest_layout l;
  stop_layout(l, "Why", layout_stop::unknown_in_type);
  std::string out;
  append_layout_tokens(out, l.fields);
  EXPECT_EQ(out, ", LWhy, 0");
  EXPECT_TRUE(l.stopped);
}

}  // namespace
