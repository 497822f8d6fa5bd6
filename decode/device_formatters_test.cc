#include "decode/device_formatters.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "decode/render.h"

namespace {

constexpr uint64_t kBase = 0x3000;

std::string render(decoded_fields& fields) {
  std::string out;
  render_fields(out, fields);
  return out;
}

std::vector<std::string> names(const decoded_fields& fields) {
  std::vector<std::string> out;
  for (const auto& e : fields) out.push_back(e.field.name);
  return out;
}

void append_u32(std::vector<uint8_t>& v, uint32_t x) {
  for (int i = 0; i < 4; ++i) v.push_back(uint8_t(x >> (8 * i)));
}

// A transfer URB's common part with 4-byte pointers: 36 bytes.
std::vector<uint8_t> transfer_part(uint32_t flags) {
  std::vector<uint8_t> v = {0x10, 0x00, 0x09, 0x00};
  append_u32(v, 0xC0000001);  // Status
  append_u32(v, 0x11223344);  // UsbDevHandle
  append_u32(v, 0x55667788);  // Flags
  append_u32(v, 0xAAAA0001);  // PipeHandle
  append_u32(v, flags);       // TransferFlags
  append_u32(v, 0x200);       // TransferBufferLength
  append_u32(v, 0xBBBB0002);  // TransferBuffer
  append_u32(v, 0xCCCC0003);  // TransferBufferMDL
  return v;
}

TEST(UrbFormatters, HeaderWidthFollowsPointers) {
  std::vector<uint8_t> p = {0x10, 0x00, 0x09, 0x00, 0x01, 0x00, 0x00, 0xc0,
                            0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55,
                            0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
  decoded_fields fields;
  EXPECT_EQ(format_urb_header(fields, p.data(), 24, p.data() + p.size(), kBase, false), 16);
  EXPECT_EQ(render(fields),
            "\"01-Length\":\"0x0010\";\"02-Function\":\"0x0009\";\"03-Status\":\"0xc0000001\";"
            "\"04-UsbDevHandle\":\"0x11223344\";\"05-Flags\":\"0x55667788\"");
  fields.clear();
  EXPECT_EQ(format_urb_header(fields, p.data(), 24, p.data() + p.size(), kBase, true, "URB_X"), 24);
  EXPECT_EQ(render(fields),
            "\"01-URB_X [Length]\":\"0x0010\";\"02-Function\":\"0x0009\";\"03-Status\":\"0xc0000001\";"
            "\"04-UsbDevHandle\":\"0x5566778811223344\";\"05-Flags\":\"0x0807060504030201\"");
  // Every field is generated and keyed at its offset.
  std::vector<uint64_t> keys;
  for (const auto& e : fields) {
    EXPECT_TRUE(e.field.generated);
    keys.push_back(e.key - kBase);
  }
  EXPECT_EQ(keys, (std::vector<uint64_t>{0, 2, 4, 8, 16}));
}

TEST(UrbFormatters, TransferFlagsNameTheBits) {
  struct {
    uint32_t flags;
    const char* name;
  } cases[] = {
      {3, "TransferFlags [USBD_TRANSFER_DIRECTION_IN| USBD_SHORT_TRANSFER_OK]"},
      {0, "TransferFlags [USBD_TRANSFER_DIRECTION_OUT]"},
      {4, "TransferFlags [USBD_TRANSFER_DIRECTION_OUT| USBD_START_ISO_TRANSFER_ASAP]"},
      {7, "TransferFlags [USBD_TRANSFER_DIRECTION_IN| USBD_SHORT_TRANSFER_OK| "
          "USBD_START_ISO_TRANSFER_ASAP]"},
  };
  for (const auto& c : cases) {
    std::vector<uint8_t> p = transfer_part(c.flags);
    decoded_fields fields;
    EXPECT_EQ(format_urb_transfer(fields, p.data(), 36, p.data() + 36, kBase, false, "P"), 36);
    EXPECT_EQ(names(fields),
              (std::vector<std::string>{"P [Length]", "Function", "Status", "UsbDevHandle", "Flags",
                                        "PipeHandle", c.name, "TransferBufferLength",
                                        "TransferBuffer", "TransferBufferMDL"}));
  }
}

TEST(UrbFormatters, HostControllerLoops) {
  // Bulk: UrbLinkPtr and eight hca pointers, with no size check.
  std::vector<uint8_t> bulk = transfer_part(1);
  for (uint32_t i = 0; i < 9; ++i) append_u32(bulk, 0x1000 + i);
  decoded_fields fields;
  EXPECT_EQ(format_urb_bulk(fields, bulk.data(), 36, bulk.data() + bulk.size(), kBase, false), 72);
  ASSERT_EQ(fields.size(), 19u);
  EXPECT_EQ(fields.begin()->field.name, "URB_BULK_OR_INTERRUPT_TRANSFER [Length]");
  EXPECT_EQ(fields.from_end(1)->name, "hca[7]");
  EXPECT_EQ(fields.from_end(1)->number, 0x1008u);

  // Control: the hca loop stops once the payload holds no more than four
  // bytes past the position; SetupPacket is read all the same.
  std::vector<uint8_t> control = transfer_part(0);
  for (uint32_t i = 0; i < 5; ++i) append_u32(control, 0x2000 + i);
  fields.clear();
  EXPECT_EQ(format_urb_control(fields, control.data(), 52, control.data() + control.size(), kBase,
                               false),
            56);
  const std::vector<std::string> all = names(fields);
  EXPECT_EQ(std::vector<std::string>(all.begin() + 10, all.end()), (std::vector<std::string>{"UrbLinkPtr", "hca[0]", "hca[1]", "hca[2]", "SetupPacket"}));
  EXPECT_EQ(fields.from_end(1)->number, 0x2004u);

  // Control ex: Timeout and Pad before the loop.
  fields.clear();
  EXPECT_EQ(format_urb_control_ex(fields, control.data(), 48, control.data() + control.size(),
                                  kBase, false),
            52);
  const std::vector<std::string> ex = names(fields);
  EXPECT_EQ(std::vector<std::string>(ex.begin() + 10, ex.end()), (std::vector<std::string>{"Timeout", "Pad", "hca[0]", "SetupPacket"}));
}

TEST(UrbFormatters, IsochPacketsStopAtWholeTriples) {
  // NumberOfPackets 10, but the payload holds two whole triples and 5 bytes.
  std::vector<uint8_t> p = transfer_part(4);
  append_u32(p, 0x9999);                            // UrbLinkPtr
  for (uint32_t i = 0; i < 8; ++i) append_u32(p, i);  // hca
  append_u32(p, 77);                                // StartFrame
  append_u32(p, 10);                                // NumberOfPackets
  append_u32(p, 0);                                 // ErrorCount
  for (uint32_t i = 0; i < 6; ++i) append_u32(p, 0x100 + i);
  p.insert(p.end(), {1, 2, 3, 4, 5});
  ASSERT_EQ(p.size(), 113u);
  decoded_fields fields;
  EXPECT_EQ(format_urb_isoch(fields, p.data(), 113, p.data() + p.size(), kBase, false), 108);
  ASSERT_EQ(fields.size(), 28u);
  const std::vector<std::string> all = names(fields);
  EXPECT_EQ(std::vector<std::string>(all.end() - 9, all.end()),
            (std::vector<std::string>{"StartFrame", "NumberOfPackets", "ErrorCount",
                                      "IsoPacket[0] [Offset]", "Length", "Status",
                                      "IsoPacket[1] [Offset]", "Length", "Status"}));
  EXPECT_EQ(fields.from_end(1)->number, 0x105u);
}

TEST(UsbFormatters, IsoPacketTriples) {
  std::vector<uint8_t> p;
  for (uint32_t i = 0; i < 6; ++i) append_u32(p, i + 1);
  decoded_fields fields;
  EXPECT_EQ(format_usb_iso_packets(fields, p.data(), 24, p.data() + 24, kBase, 2), 24);
  EXPECT_EQ(render(fields),
            "\"01-Offset\":\"0x00000001\";\"02-Length\":\"0x00000002\";\"03-Status\":\"0x00000003\";"
            "\"04-Offset\":\"0x00000004\";\"05-Length\":\"0x00000005\";\"06-Status\":\"0x00000006\"");
  fields.clear();
  EXPECT_EQ(format_usb_iso_packets(fields, p.data(), 24, p.data() + 24, kBase, 3), 0);
  EXPECT_EQ(format_usb_iso_packets(fields, p.data(), 24, p.data() + 24, kBase, 0), 0);
  EXPECT_TRUE(fields.empty());
}

TEST(UsbFormatters, ConfigurationDescriptor) {
  // TotalLength 9: the header alone.
  const std::vector<uint8_t> alone = {0x09, 0x02, 0x09, 0x00, 0x01, 0x01, 0x00, 0x80, 0x32};
  decoded_fields fields;
  EXPECT_EQ(format_usb_configuration_descriptor(fields, alone.data(), 9, alone.data() + 9, kBase), 9);
  EXPECT_EQ(render(fields),
            "\"01-USB_CONFIGURATION_DESCRIPTOR [Length]\":\"0x09\";\"02-DescriptorType\":\"0x02\";"
            "\"03-TotalLength\":\"0x0009\";\"04-NumInterfaces\":\"0x01\";"
            "\"05-ConfigurationValue\":\"0x01\";\"06-Configuration\":\"0x00\";"
            "\"07-Attributes\":\"0x80\";\"08-MaxPower\":\"0x32\"");

  // An interface, an endpoint, then a class-specific descriptor of 4 bytes
  // that no formatter knows: one "Paylod" field, a number at that size.
  const std::vector<uint8_t> full = {
      0x09, 0x02, 0x1d, 0x00, 0x01, 0x01, 0x00, 0x80, 0x32,  // configuration, total 29
      0x09, 0x04, 0x00, 0x00, 0x01, 0x08, 0x06, 0x50, 0x00,  // interface
      0x07, 0x05, 0x81, 0x02, 0x00, 0x02, 0x00,              // endpoint
      0x04, 0x24, 0xaa, 0xbb,                                // unknown type 0x24
  };
  fields.clear();
  EXPECT_EQ(format_usb_configuration_descriptor(fields, full.data(), 29, full.data() + 29, kBase), 29);
  ASSERT_EQ(fields.size(), 8u + 9u + 6u + 1u);
  EXPECT_EQ(names(fields)[8], "USB_INTERFACE_DESCRIPTOR [Length]");
  EXPECT_EQ(names(fields)[17], "USB_ENDPOINT_DESCRIPTOR [Length]");
  EXPECT_EQ(names(fields)[21], "MaxPacketSize");
  EXPECT_EQ(fields.from_end(2)->number, 0u);  // Interval
  EXPECT_EQ(fields.from_end(1)->name, "Paylod");
  EXPECT_EQ(fields.from_end(1)->number, 0xbbaa2404u);
  EXPECT_TRUE(fields.from_end(1)->bytes.empty());
  std::string text = render(fields);
  EXPECT_NE(text.find("\"24-Paylod\":\"0xbbaa2404\""), std::string::npos);

  // An unknown descriptor of 3 bytes stays bytes.
  std::vector<uint8_t> odd = alone;
  odd[2] = 12;
  odd.insert(odd.end(), {0x03, 0x30, 0x01});
  fields.clear();
  EXPECT_EQ(format_usb_configuration_descriptor(fields, odd.data(), 12, odd.data() + 12, kBase), 12);
  EXPECT_EQ(fields.from_end(1)->name, "Paylod");
  const std::string odd_text = render(fields);
  EXPECT_EQ(odd_text.substr(odd_text.size() - 20), "\"09-Paylod\":\"033001\"");

  // A TotalLength beyond the buffer: the walk stops at the buffer's end. The
  // nested descriptor claims a type 2 again, and so on; nesting is bounded.
  std::vector<uint8_t> nested;
  for (int i = 0; i < 20; ++i) nested.insert(nested.end(), {0x09, 0x02, 0xff, 0x00, 0, 0, 0, 0, 0});
  std::unique_ptr<uint8_t[]> heap(new uint8_t[nested.size()]);
  std::copy(nested.begin(), nested.end(), heap.get());
  fields.clear();
  format_usb_configuration_descriptor(fields, heap.get(), int32_t(nested.size()),
                                      heap.get() + nested.size(), kBase);
  EXPECT_LE(fields.size(), size_t(8 * kMaxDescriptorDepth + 1));
}

TEST(UsbFormatters, StringAndFixedDescriptors) {
  const std::vector<uint8_t> s = {0x08, 0x03, 'a', 0, 'b', 0, 'c', 0};
  decoded_fields fields;
  EXPECT_EQ(format_usb_string_descriptor(fields, s.data(), 8, s.data() + 8, kBase), 8);
  EXPECT_EQ(render(fields),
            "\"01-USB_STRING_DESCRIPTOR [Length]\":\"0x08\";\"02-DescriptorType\":\"0x03\";"
            "\"03-String\":\"abc\"");
  // A length below 2 has no string and takes its two bytes.
  const std::vector<uint8_t> bad = {0x01, 0x03};
  fields.clear();
  EXPECT_EQ(format_usb_string_descriptor(fields, bad.data(), 2, bad.data() + 2, kBase), 2);
  EXPECT_EQ(fields.size(), 2u);

  // Device descriptor: 18 bytes, 14 fields.
  std::vector<uint8_t> dev(18, 0);
  dev[0] = 18;
  dev[1] = 1;
  dev[8] = 0x5e;
  dev[9] = 0x04;  // idVendor 0x045e
  fields.clear();
  EXPECT_EQ(format_usb_device_descriptor(fields, dev.data(), 18, dev.data() + 18, kBase), 18);
  EXPECT_EQ(fields.size(), 14u);
  EXPECT_EQ(names(fields)[7], "idVendor");
  EXPECT_EQ(fields.from_end(7)->number, 0x045eu);

  // Hub descriptor: 7 bytes, then a 64-byte mask kept as bytes.
  std::vector<uint8_t> hub(71, 0xAB);
  fields.clear();
  EXPECT_EQ(format_usb_hub_descriptor(fields, hub.data(), 71, hub.data() + 71, kBase), 71);
  EXPECT_EQ(fields.from_end(1)->name, "RemoveAndPowerMask");
  EXPECT_EQ(fields.from_end(1)->bytes.size(), 64u);

  // Port info, PCI identity, pipe handles, device info: sizes by pointer width.
  std::vector<uint8_t> zeros(64, 0);
  fields.clear();
  EXPECT_EQ(format_usb_port_info(fields, zeros.data(), 10, zeros.data() + 64, kBase), 10);
  EXPECT_EQ(format_pci_device(fields, zeros.data(), 16, zeros.data() + 64, kBase, false), 16);
  EXPECT_EQ(format_pci_device(fields, zeros.data(), 20, zeros.data() + 64, kBase, true), 20);
  EXPECT_EQ(format_usb_pipe_handles(fields, zeros.data(), 24, zeros.data() + 64, kBase, true), 24);
  fields.clear();
  EXPECT_EQ(format_usb_device_info(fields, zeros.data(), 48, zeros.data() + 64, kBase, true), 48);
  EXPECT_EQ(names(fields)[4], "PortPath[0]");
  EXPECT_EQ(names(fields)[9], "PortPath[5]");
  EXPECT_EQ(format_usb_endpoint_descriptor(fields, zeros.data(), 7, zeros.data() + 64, kBase), 7);
  EXPECT_EQ(format_usb_superspeed_companion(fields, zeros.data(), 6, zeros.data() + 64, kBase), 6);
  EXPECT_EQ(format_usb_superspeedplus_companion(fields, zeros.data(), 6, zeros.data() + 64, kBase), 6);
  EXPECT_EQ(format_usb_interface_descriptor(fields, zeros.data(), 9, zeros.data() + 64, kBase), 9);

  EXPECT_EQ(run_device_formatter(dc_sqm_payload, fields, zeros.data(), 64, zeros.data() + 64, kBase,
                                 false),
            -1);
  EXPECT_EQ(run_device_formatter(dc_usb_endpoint_descriptor, fields, zeros.data(), 64,
                                 zeros.data() + 64, kBase, false),
            7);
}

TEST(DeviceFormatters, NeverReadPastTheBuffer) {
  // Fixed formatters trust the template for the payload's size, but stop at
  // the end of the buffer. Heap blocks of the exact size let the address
  // sanitizer catch a read past them.
  std::unique_ptr<uint8_t[]> ten(new uint8_t[10]());
  decoded_fields fields;
  EXPECT_EQ(format_pci_device(fields, ten.get(), 10, ten.get() + 10, kBase, false), 10);
  EXPECT_EQ(names(fields), (std::vector<std::string>{"DeviceObj", "PCIBus", "PCIDevice"}));

  std::unique_ptr<uint8_t[]> hub(new uint8_t[17]());
  fields.clear();
  EXPECT_EQ(format_usb_hub_descriptor(fields, hub.get(), 17, hub.get() + 17, kBase), 17);
  EXPECT_EQ(fields.from_end(1)->bytes.size(), 10u);  // the mask, cut to the buffer

  for (uint16_t code = 0x8006; code <= 0x8017; ++code) {
    for (uint32_t size = 1; size <= 40; ++size) {
      std::unique_ptr<uint8_t[]> p(new uint8_t[size]);
      for (uint32_t i = 0; i < size; ++i) p[i] = uint8_t(0xF0 + i);
      fields.clear();
      int32_t n = run_device_formatter(code, fields, p.get(), int32_t(size), p.get() + size, kBase,
                                       true);
      EXPECT_GE(n, code == dc_usb_iso_packets ? -1 : 0);
      fields.clear();
      format_sqm_payload(fields, p.get(), int32_t(size), p.get() + size, kBase);
    }
  }
}

TEST(SqmPayload, HeadAndTail) {
  std::vector<uint8_t> head(16, 0x11);
  append_u32(head, 0x1234);  // SqmID
  decoded_fields fields;
  std::vector<uint8_t> p19(head.begin(), head.begin() + 19);
  EXPECT_FALSE(format_sqm_payload(fields, p19.data(), 19, p19.data() + 19, kBase));
  EXPECT_TRUE(fields.empty());

  std::vector<uint8_t> p24 = head;
  append_u32(p24, 5);  // SqmType
  EXPECT_TRUE(format_sqm_payload(fields, p24.data(), 24, p24.data() + 24, kBase));
  EXPECT_EQ(render(fields),
            "\"01-SqmSessionGuid\":\"11111111-1111-1111-1111-111111111111\";"
            "\"02-SqmID\":\"0x00001234\";\"03-SqmType\":\"0x00000005\"");

  // Types 5 and 6 carry a DWORD value.
  std::vector<uint8_t> p28 = p24;
  append_u32(p28, 0xCAFE);
  fields.clear();
  EXPECT_TRUE(format_sqm_payload(fields, p28.data(), 28, p28.data() + 28, kBase));
  EXPECT_EQ(fields.from_end(1)->name, "SqmDWORDDatapointValue");
  EXPECT_EQ(fields.from_end(1)->number, 0xCAFEu);

  // Type 7: no DWORD, but the tail still starts at 28. Tag 2: a byte length,
  // then UTF-16 text.
  std::vector<uint8_t> text = head;
  append_u32(text, 7);
  append_u32(text, 0);  // the DWORD slot, unused
  append_u32(text, 2);
  append_u32(text, 6);
  text.insert(text.end(), {'h', 0, 'i', 0, '!', 0});
  fields.clear();
  EXPECT_TRUE(format_sqm_payload(fields, text.data(), int32_t(text.size()),
                                 text.data() + text.size(), kBase));
  EXPECT_EQ(fields.size(), 4u);
  EXPECT_EQ(fields.from_end(1)->name, "utf16");
  EXPECT_EQ(fields.from_end(1)->text, "hi!");
  EXPECT_EQ((fields.end() - 1)->key, kBase + 36);

  // Any other first tag: sized entries. Tag 1 with a stored length of 12
  // (8 of tag and length) holds 4 raw bytes. The first tag led nowhere, so
  // the key stands 4 bytes short of the read position.
  std::vector<uint8_t> sized = head;
  append_u32(sized, 7);
  append_u32(sized, 0);
  append_u32(sized, 9);
  append_u32(sized, 1);
  append_u32(sized, 12);
  sized.insert(sized.end(), {0xde, 0xad, 0xbe, 0xef, 0, 0, 0, 0});
  fields.clear();
  EXPECT_TRUE(format_sqm_payload(fields, sized.data(), int32_t(sized.size()),
                                 sized.data() + sized.size(), kBase));
  ASSERT_EQ(fields.size(), 4u);
  EXPECT_EQ(fields.from_end(1)->bytes, (std::vector<uint8_t>{0xde, 0xad, 0xbe, 0xef}));
  EXPECT_EQ((fields.end() - 1)->key, kBase + 36);
  const std::string sized_text = render(fields);
  EXPECT_EQ(sized_text.substr(sized_text.size() - 15), "\"04\":\"deadbeef\"");
}

}  // namespace
