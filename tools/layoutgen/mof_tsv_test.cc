#include "tools/layoutgen/mof_tsv.h"

#include <gtest/gtest.h>

#include <string>

#include "tools/layoutgen/gen_common.h"

namespace layoutgen {
namespace {

TEST(MofTsv, ParsesAKernelRow) {
  mof_row row;
  ASSERT_EQ(row_fault::none,
            parse_mof_row("Windows Kernel Trace\t{CE1DBFB4-137e-4da6-87b0-3f59aa102cbc}\t46\t2\t"
                          "PerfInfo_SampleProf_V2(UInt32 InstructionPointer, UInt32 ThreadId, "
                          "UInt16 Count, UInt16 Reserved)\tSampleProf\tSampled Profile\r",
                          row));
  EXPECT_EQ("Windows Kernel Trace", row.provider);
  EXPECT_EQ("ce1dbfb4-137e-4da6-87b0-3f59aa102cbc", row.guid);
  EXPECT_EQ(46, row.event_type);
  EXPECT_EQ(2, row.version);
  EXPECT_EQ("PerfInfo_SampleProf_V2", row.event_name);
  EXPECT_EQ("SampleProf", row.type_name);
  ASSERT_EQ(4u, row.properties.size());
  EXPECT_EQ("UInt32", row.properties[0].type);
  EXPECT_EQ("InstructionPointer", row.properties[0].name);
  EXPECT_EQ("UInt16", row.properties[3].type);
  EXPECT_EQ("Reserved", row.properties[3].name);
}

TEST(MofTsv, EventNamesWithBlanksAndEmptyFieldLists) {
  std::string name;
  std::vector<mof_property> props;
  ASSERT_TRUE(parse_event_fields("Thread_Kernel Queue Enqueue_V2(UInt32 Entry, UInt32 ThreadId)",
                                 name, props));
  EXPECT_EQ("Thread_Kernel Queue Enqueue_V2", name);
  ASSERT_EQ(2u, props.size());
  EXPECT_EQ("ThreadId", props[1].name);

  ASSERT_TRUE(parse_event_fields("Image_LoaderLockAttempt_V2()", name, props));
  EXPECT_EQ("Image_LoaderLockAttempt_V2", name);
  EXPECT_TRUE(props.empty());
}

TEST(MofTsv, RefusesHostileRows) {
  mof_row row;
  EXPECT_EQ(row_fault::header,
            parse_mof_row("provider\tcategory\tevent_id\tversion\tevent(fields)\tevent_type\tdescription", row));
  EXPECT_EQ(row_fault::columns, parse_mof_row("", row));
  EXPECT_EQ(row_fault::columns, parse_mof_row("a\tb\tc", row));
  EXPECT_EQ(row_fault::guid,
            parse_mof_row("P\t{not-a-guid}\t1\t0\tA_B(UInt32 X)\tB\td", row));
  EXPECT_EQ(row_fault::guid,
            parse_mof_row("P\t{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc\t1\t0\tA_B(UInt32 X)\tB\td", row));
  EXPECT_EQ(row_fault::number,
            parse_mof_row("P\t{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc}\t65536\t0\tA_B(UInt32 X)\tB\td", row));
  EXPECT_EQ(row_fault::number,
            parse_mof_row("P\t{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc}\t-1\t0\tA_B(UInt32 X)\tB\td", row));
  EXPECT_EQ(row_fault::number,
            parse_mof_row("P\t{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc}\t1\t99999999999\tA_B()\tB\td", row));
  // Field lists that don't close, nest, or lack a type or a name.
  for (const char* fields : {"A_B(UInt32 X", "A_B UInt32 X)", "A_B((UInt32 X))", "A_B(UInt32)",
                             "A_B(UInt32 X, )", "(UInt32 X)", "A_B(, UInt32 X)"}) {
    std::string line = std::string("P\t{ce1dbfb4-137e-4da6-87b0-3f59aa102cbc}\t1\t0\t") + fields + "\tB\td";
    EXPECT_EQ(row_fault::fields, parse_mof_row(line, row)) << fields;
  }
}

TEST(MofTsv, RefusesMoreFieldsThanATemplateHolds) {
  std::string text = "A_B(";
  for (size_t i = 0; i <= kMaxFields; ++i) text += (i ? ", UInt8 F" : "UInt8 F") + std::to_string(i);
  text += ")";
  std::string name;
  std::vector<mof_property> props;
  EXPECT_FALSE(parse_event_fields(text, name, props));
}

TEST(MofTsv, Numbers) {
  uint16_t v = 0;
  EXPECT_TRUE(parse_u16("65535", v));
  EXPECT_EQ(65535, v);
  EXPECT_TRUE(parse_u16(" 7 ", v));
  EXPECT_EQ(7, v);
  EXPECT_FALSE(parse_u16("", v));
  EXPECT_FALSE(parse_u16("0x10", v));
  EXPECT_FALSE(parse_u16("123456", v));
}

}  // namespace
}  // namespace layoutgen
