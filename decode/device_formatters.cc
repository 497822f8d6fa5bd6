#include "decode/device_formatters.h"

#include <string>

#include "decode/render.h"
#include "support/byte_reader.h"
#include "support/qv_string.h"

namespace {

// Adds one formatter's fields back to back from `p`. Every read stays below
// `buffer_end`; the first field that would cross it stops the writer, and
// every later field is dropped, so a formatter ends early rather than
// inventing values.
class field_writer {
 public:
  field_writer(decoded_fields& fields, const uint8_t* p, int32_t remaining,
               const uint8_t* buffer_end, uint64_t base, bool pointers_are_64)
      : fields_(fields), p_(p), base_(base), pointer_size_(pointers_are_64 ? 8 : 4) {
    // The buffer's end bounds every read; without one, the payload's does.
    if (!p) {
      avail_ = 0;
    } else if (buffer_end) {
      avail_ = buffer_end > p ? static_cast<size_t>(buffer_end - p) : 0;
    } else {
      avail_ = remaining > 0 ? static_cast<size_t>(remaining) : 0;
    }
  }

  uint32_t off = 0;   // read position, from `p`
  uint32_t lag = 0;   // bytes read that don't move the key (SQM tags that fall through)

  bool stopped() const { return stopped_; }
  size_t avail() const { return avail_; }
  const uint8_t* at(uint32_t o) const { return p_ + o; }
  bool readable(uint32_t o, uint32_t n) const { return o <= avail_ && n <= avail_ - o; }

  uint64_t peek(uint32_t o, uint32_t width) const {
    switch (width) {
      case 1: return qv::rd_u8(p_, avail_, o);
      case 2: return qv::rd_u16(p_, avail_, o);
      case 4: return qv::rd_u32(p_, avail_, o);
      default: return qv::rd_u64(p_, avail_, o);
    }
  }

  uint64_t u8(std::string_view name) { return number(name, 1, 4); }
  uint64_t u16(std::string_view name) { return number(name, 2, 6); }
  uint64_t u32(std::string_view name) { return number(name, 4, 8); }
  uint64_t ptr(std::string_view name) { return number(name, pointer_size_, 16); }

  // Raw bytes; a run of 1, 2, 4 or 8 bytes is kept as a number instead.
  // Cut to what the buffer holds.
  void blob(std::string_view name, uint32_t size) {
    uint32_t n = take(size);
    if (n == 0) return;
    if (decoded_field* f = add(name, 14, n)) {
      if (n == 1 || n == 2 || n == 4 || n == 8) {
        f->number = peek(off, n);
      } else {
        f->bytes.assign(p_ + off, p_ + off + n);
      }
    }
    off += n;
  }

  // Raw bytes at every size, stored under `type`.
  void raw(uint8_t type, uint32_t size) {
    uint32_t n = take(size);
    if (n == 0) return;
    if (decoded_field* f = add({}, type, n)) f->bytes.assign(p_ + off, p_ + off + n);
    off += n;
  }

  // A GUID shown as text, without braces.
  void guid_text(std::string_view name) {
    if (!fits(16)) return;
    if (decoded_field* f = add(name, 15, 16)) qv::append_guid_text(f->text, p_ + off);
    off += 16;
  }

  // `size` bytes of UTF-16 text; cut to what the buffer holds.
  void utf16(std::string_view name, uint32_t size) {
    uint32_t n = take(size);
    if (n == 0) return;
    if (decoded_field* f = add(name, 1, n)) qv::utf16_text(p_ + off, f->text, n, false);
    off += n;
  }

  // UTF-16 text up to its terminator within `limit` bytes. Returns the bytes
  // consumed, terminator included; 0 adds nothing.
  uint32_t utf16_terminated(std::string_view name, uint32_t limit) {
    if (off > avail_) return 0;
    if (limit > avail_ - off) limit = static_cast<uint32_t>(avail_ - off);
    if (limit == 0) return 0;
    thread_local std::string text;
    uint32_t n = qv::utf16_text(p_ + off, text, limit, true);
    if (n == 0) return 0;
    if (n > limit) n = limit;
    if (decoded_field* f = add(name, 1, n)) f->text = text;
    off += n;
    return n;
  }

 private:
  bool fits(uint32_t n) {
    if (!stopped_ && readable(off, n)) return true;
    stopped_ = true;
    return false;
  }
  // How many of `size` bytes can be taken; fewer than asked stops the writer.
  uint32_t take(uint32_t size) {
    if (stopped_ || size == 0) return 0;
    if (off >= avail_) {
      stopped_ = true;
      return 0;
    }
    size_t left = avail_ - off;
    if (size > left) {
      stopped_ = true;
      return static_cast<uint32_t>(left);
    }
    return size;
  }

  uint64_t number(std::string_view name, uint32_t width, uint8_t type) {
    if (!fits(width)) return 0;
    uint64_t v = peek(off, width);
    if (decoded_field* f = add(name, type, width)) f->number = v;
    off += width;
    return v;
  }

  decoded_field* add(std::string_view name, uint8_t type, uint32_t size) {
    decoded_field* f = fields_.add(base_ + off - lag);
    if (!f) return nullptr;
    f->type = type;
    f->generated = true;
    f->size = size;
    f->name.assign(name.data(), name.size());
    return f;
  }

  decoded_fields& fields_;
  const uint8_t* p_;
  uint64_t base_;
  uint32_t pointer_size_;
  size_t avail_ = 0;
  bool stopped_ = false;
};

// "prefix[i]suffix" in a reused buffer.
std::string_view indexed_name(std::string_view prefix, uint32_t i, std::string_view suffix = {}) {
  thread_local std::string name;
  name.assign(prefix.data(), prefix.size());
  name += '[';
  append_decimal(name, i);
  name += ']';
  name.append(suffix.data(), suffix.size());
  return name;
}

void urb_header(field_writer& w, std::string_view prefix) {
  if (prefix.empty()) {
    w.u16("Length");
  } else {
    thread_local std::string name;
    name.assign(prefix.data(), prefix.size());
    name += " [Length]";
    w.u16(name);
  }
  w.u16("Function");
  w.u32("Status");
  w.ptr("UsbDevHandle");
  w.ptr("Flags");  // pointer-wide: it takes that much room in the structure
}

void urb_transfer(field_writer& w, std::string_view prefix) {
  urb_header(w, prefix);
  w.ptr("PipeHandle");
  if (!w.readable(w.off, 4)) {
    w.u32({});  // stops the writer
    return;
  }
  const uint64_t flags = w.peek(w.off, 4);
  thread_local std::string name;
  name = "TransferFlags [";
  name += (flags & 1) ? "USBD_TRANSFER_DIRECTION_IN" : "USBD_TRANSFER_DIRECTION_OUT";
  if (flags & 2) name += "| USBD_SHORT_TRANSFER_OK";
  if (flags & 4) name += "| USBD_START_ISO_TRANSFER_ASAP";
  name += ']';
  w.u32(name);
  w.u32("TransferBufferLength");
  w.ptr("TransferBuffer");
  w.ptr("TransferBufferMDL");
}

// Up to eight host controller pointers, while the payload holds more than
// four bytes past the current position.
void guarded_hca(field_writer& w, int32_t remaining) {
  for (uint32_t i = 0; i < 8 && !w.stopped(); ++i) {
    if (int64_t{remaining} <= int64_t{w.off} + 3) break;
    w.ptr(indexed_name("hca", i));
  }
}

void endpoint_descriptor(field_writer& w) {
  w.u8("USB_ENDPOINT_DESCRIPTOR [Length]");
  w.u8("DescriptorType");
  w.u8("EndpointAddress");
  w.u8("Attributes");
  w.u16("MaxPacketSize");
  w.u8("Interval");
}

void interface_descriptor(field_writer& w) {
  w.u8("USB_INTERFACE_DESCRIPTOR [Length]");
  w.u8("DescriptorType");
  w.u8("InterfaceNumber");
  w.u8("AlternateSetting");
  w.u8("NumEndpoints");
  w.u8("InterfaceClass");
  w.u8("InterfaceSubClass");
  w.u8("InterfaceProtocol");
  w.u8("Interface");
}

void device_descriptor(field_writer& w) {
  w.u8("USB_DEVICE_DESCRIPTOR [Length]");
  w.u8("DescriptorType");
  w.u16("bcdUSB");
  w.u8("DeviceClass");
  w.u8("DeviceSubClass");
  w.u8("DeviceProtocol");
  w.u8("MaxPacketSize0");
  w.u16("idVendor");
  w.u16("idProduct");
  w.u16("bcdDevice");
  w.u8("Manufacturer");
  w.u8("Product");
  w.u8("SerialNumber");
  w.u8("NumConfigurations");
}

int32_t string_descriptor(field_writer& w) {
  const uint32_t length = static_cast<uint32_t>(w.u8("USB_STRING_DESCRIPTOR [Length]"));
  w.u8("DescriptorType");
  if (w.stopped()) return static_cast<int32_t>(w.off);
  // A length below 2 can't even cover its own two bytes: no string then,
  // and the two bytes read are what was consumed.
  if (length < 2) return 2;
  w.utf16("String", length - 2);
  return static_cast<int32_t>(length);
}

int32_t configuration_descriptor(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                                 const uint8_t* buffer_end, uint64_t base, int depth) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  w.u8("USB_CONFIGURATION_DESCRIPTOR [Length]");
  w.u8("DescriptorType");
  const uint32_t total = static_cast<uint32_t>(w.u16("TotalLength"));
  w.u8("NumInterfaces");
  w.u8("ConfigurationValue");
  w.u8("Configuration");
  w.u8("Attributes");
  w.u8("MaxPower");

  // The descriptors inside go by TotalLength, not by the payload's size.
  // Nested formatters get this writer's own bound as their buffer end.
  const uint8_t* end = w.at(0) + w.avail();
  while (!w.stopped() && w.off < total) {
    const uint32_t left = total - w.off;
    if (!w.readable(w.off, 2)) break;
    const uint8_t type = static_cast<uint8_t>(w.peek(w.off + 1, 1));
    const uint8_t* sub_p = w.at(w.off);
    const uint64_t sub_base = base + w.off;
    const int32_t sub_left = static_cast<int32_t>(left);
    int32_t n = 0;
    if (type == 1) {
      n = format_usb_device_descriptor(fields, sub_p, sub_left, end, sub_base);
    } else if (type == 2 && depth + 1 < kMaxDescriptorDepth) {
      n = configuration_descriptor(fields, sub_p, sub_left, end, sub_base, depth + 1);
    } else if (type == 3) {
      n = format_usb_string_descriptor(fields, sub_p, sub_left, end, sub_base);
    } else if (type == 4) {
      n = format_usb_interface_descriptor(fields, sub_p, sub_left, end, sub_base);
    } else if (type == 5) {
      n = format_usb_endpoint_descriptor(fields, sub_p, sub_left, end, sub_base);
    } else {
      w.blob("Paylod", left);  // the rest, under the name the format spells so
      break;
    }
    if (n <= 0) break;
    w.off += static_cast<uint32_t>(n);
  }
  return static_cast<int32_t>(w.off);
}

}  // namespace

int32_t format_pci_device(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                          const uint8_t* buffer_end, uint64_t base, bool pointers_are_64) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  w.ptr("DeviceObj");
  w.u32("PCIBus");
  w.u16("PCIDevice");
  w.u16("PCIFunction");
  w.u16("PCIVendor");
  w.u16("PCIDeviceID");
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_pipe_handles(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                                const uint8_t* buffer_end, uint64_t base, bool pointers_are_64) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  w.ptr("Endpoint");
  w.ptr("PipeHandle");
  w.ptr("DeviceHandle");
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_port_info(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                             const uint8_t* buffer_end, uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  w.u8("PortIsConnectable");
  w.u8("PortConnectorType");
  w.u32("Reserved0");
  w.u32("Reserved1");
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_device_info(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                               const uint8_t* buffer_end, uint64_t base, bool pointers_are_64) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  w.ptr("DevHandle");
  w.u16("IDVendor");
  w.u16("IDProduct");
  w.u32("PortPathDepth");
  for (uint32_t i = 0; i < 6; ++i) w.u32(indexed_name("PortPath", i));
  w.u32("DeviceSpeed");
  w.u32("DeviceAddr");
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_iso_packets(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                               const uint8_t* buffer_end, uint64_t base, uint64_t count) {
  if (count == 0 || remaining <= 0 || uint64_t(remaining) / 12 < count) return 0;
  field_writer w(fields, p, remaining, buffer_end, base, false);
  for (uint64_t i = 0; i < count && !w.stopped(); ++i) {
    w.u32("Offset");
    w.u32("Length");
    w.u32("Status");
  }
  return static_cast<int32_t>(w.off);
}

int32_t format_urb_header(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                          const uint8_t* buffer_end, uint64_t base, bool pointers_are_64,
                          std::string_view prefix) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  urb_header(w, prefix);
  return static_cast<int32_t>(w.off);
}

int32_t format_urb_transfer(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                            const uint8_t* buffer_end, uint64_t base, bool pointers_are_64,
                            std::string_view prefix) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  urb_transfer(w, prefix);
  return static_cast<int32_t>(w.off);
}

int32_t format_urb_bulk(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                        const uint8_t* buffer_end, uint64_t base, bool pointers_are_64) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  urb_transfer(w, "URB_BULK_OR_INTERRUPT_TRANSFER");
  w.ptr("UrbLinkPtr");
  for (uint32_t i = 0; i < 8; ++i) w.ptr(indexed_name("hca", i));
  return static_cast<int32_t>(w.off);
}

int32_t format_urb_isoch(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                         const uint8_t* buffer_end, uint64_t base, bool pointers_are_64) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  urb_transfer(w, "URB_ISOCH_TRANSFER");
  w.ptr("UrbLinkPtr");
  guarded_hca(w, remaining);
  w.u32("StartFrame");
  const uint64_t packets = w.u32("NumberOfPackets");
  w.u32("ErrorCount");
  for (uint64_t i = 0; i < packets && !w.stopped(); ++i) {
    if (int64_t{remaining} <= int64_t{w.off} + 11) break;
    w.u32(indexed_name("IsoPacket", static_cast<uint32_t>(i), " [Offset]"));
    w.u32("Length");
    w.u32("Status");
  }
  return static_cast<int32_t>(w.off);
}

int32_t format_urb_control(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                           const uint8_t* buffer_end, uint64_t base, bool pointers_are_64) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  urb_transfer(w, "URB_CONTROL_TRANSFER");
  w.ptr("UrbLinkPtr");
  guarded_hca(w, remaining);
  w.u32("SetupPacket");  // four bytes of the eight-byte setup packet
  return static_cast<int32_t>(w.off);
}

int32_t format_urb_control_ex(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                              const uint8_t* buffer_end, uint64_t base, bool pointers_are_64) {
  field_writer w(fields, p, remaining, buffer_end, base, pointers_are_64);
  urb_transfer(w, "URB_CONTROL_TRANSFER_EX");
  w.u32("Timeout");
  w.u32("Pad");
  guarded_hca(w, remaining);
  w.u32("SetupPacket");
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_endpoint_descriptor(decoded_fields& fields, const uint8_t* p,
                                       int32_t remaining, const uint8_t* buffer_end,
                                       uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  endpoint_descriptor(w);
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_superspeed_companion(decoded_fields& fields, const uint8_t* p,
                                        int32_t remaining, const uint8_t* buffer_end,
                                        uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  w.u8("USB_SUPERSPEED_ENDPOINT_COMPANION_DESCRIPTOR [Length]");
  w.u8("DescriptorType");
  w.u8("MaxBurst");
  w.u8("Attributes");
  w.u16("BytesPerInterval");
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_superspeedplus_companion(decoded_fields& fields, const uint8_t* p,
                                            int32_t remaining, const uint8_t* buffer_end,
                                            uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  w.u8("USB_SUPERSPEEDPLUS_ISOCH_ENDPOINT_COMPANION_DESCRIPTOR [Length]");
  w.u8("DescriptorType");
  w.u16("Reserved");
  w.u16("BytesPerInterval");
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_device_descriptor(decoded_fields& fields, const uint8_t* p,
                                     int32_t remaining, const uint8_t* buffer_end,
                                     uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  device_descriptor(w);
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_hub_descriptor(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                                  const uint8_t* buffer_end, uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  w.u8("USB_HUB_DESCRIPTOR [Length]");
  w.u8("DescriptorType");
  w.u8("NumberOfPorts");
  w.u16("HubCharacteristics");
  w.u8("PowerOnToPowerGood");
  w.u8("HubControlCurrent");
  w.blob("RemoveAndPowerMask", 64);
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_interface_descriptor(decoded_fields& fields, const uint8_t* p,
                                        int32_t remaining, const uint8_t* buffer_end,
                                        uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  interface_descriptor(w);
  return static_cast<int32_t>(w.off);
}

int32_t format_usb_string_descriptor(decoded_fields& fields, const uint8_t* p,
                                     int32_t remaining, const uint8_t* buffer_end,
                                     uint64_t base) {
  field_writer w(fields, p, remaining, buffer_end, base, false);
  return string_descriptor(w);
}

int32_t format_usb_configuration_descriptor(decoded_fields& fields, const uint8_t* p,
                                            int32_t remaining, const uint8_t* buffer_end,
                                            uint64_t base) {
  return configuration_descriptor(fields, p, remaining, buffer_end, base, 0);
}

// SQM data point layout:
//   0   16  session GUID            "SqmSessionGuid"
//   16  4   data point id           "SqmID"
//   20  4   data point type         "SqmType"
//   24  4   DWORD value, types 5, 6 "SqmDWORDDatapointValue"
//   28  ... tagged tail
// The first tag of the tail sets the mode of the rest. Tags 1, 2 and 3 mean
// fixed entries: tag 1 eight raw bytes, tag 3 eight raw bytes of another
// kind, tag 2 UTF-16 text (the first one behind a 32-bit byte length, later
// ones to their terminator). Any other first tag means sized entries: tag 0
// ends, tag 1 a 32-bit length then raw bytes, tag 2 a 32-bit length then
// UTF-16 text; a stored length above 8 counts the 8 bytes of tag and length.
// A tag that leads nowhere is stepped over without moving the keys.
bool format_sqm_payload(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                        const uint8_t* buffer_end, uint64_t base) {
  if (remaining < 20) return false;
  field_writer w(fields, p, remaining, buffer_end, base, false);
  w.guid_text("SqmSessionGuid");
  w.u32("SqmID");
  if (remaining <= 20) return true;
  const uint64_t sqm_type = w.u32("SqmType");
  if (remaining <= 24) return true;
  if (sqm_type == 5 || sqm_type == 6) w.u32("SqmDWORDDatapointValue");
  w.off = 28;
  if (remaining <= 28) return true;
  int64_t rest = int64_t{remaining} - 28;
  if (rest < 4) return true;

  auto read_u32 = [&]() -> uint32_t {
    uint32_t v = static_cast<uint32_t>(w.peek(w.off, 4));
    w.off += 4;
    rest -= 4;
    return v;
  };
  // `rest` is the bytes left to read; it bounds every text read.
  auto rest_u32 = [&]() { return rest > 0 ? static_cast<uint32_t>(rest) : 0u; };

  bool fixed = false;
  const uint32_t first = read_u32();
  if (first == 1 || first == 3) {
    fixed = true;
    if (rest >= 8) {
      w.raw(first == 1 ? 4 : 10, 8);
      rest -= 8;
    } else {
      w.lag += 4;
    }
  } else if (first == 2) {
    fixed = true;
    uint32_t length = read_u32();
    if (rest >= 4) {
      if (length != 0) {
        if (length > rest_u32()) length = rest_u32();
        w.utf16("utf16", length);
        rest -= length;
      } else {
        rest -= w.utf16_terminated("utf16", rest_u32());
      }
    }
  } else {
    w.lag += 4;
  }

  if (rest <= 3) return true;
  while (rest >= 12 && !w.stopped()) {
    const uint32_t tag = read_u32();
    if (fixed) {
      if (tag == 1 && rest >= 8) {
        w.raw(4, 8);
        rest -= 8;
      } else if (tag == 2 && rest >= 4) {
        uint32_t n = w.utf16_terminated("utf16", rest_u32());
        if (n == 0) break;
        rest -= n;
      } else {
        w.lag += 4;
      }
      continue;
    }
    if (tag == 0) break;
    if (tag == 1 && rest >= 12) {
      int32_t length = static_cast<int32_t>(read_u32());
      if (length > 8) length -= 8;
      if (length < 0) break;  // a negative length would step backwards
      if (length <= rest) w.raw(4, static_cast<uint32_t>(length));
      else w.off += static_cast<uint32_t>(length);
      rest -= length;
    } else if (tag == 2 && rest >= 4) {
      int32_t length = static_cast<int32_t>(read_u32());
      if (length > 8) length -= 8;
      if (length < 0 || length > rest) continue;
      uint32_t n = 0;
      if (length != 0) {
        w.utf16("utf16", static_cast<uint32_t>(length));
        n = static_cast<uint32_t>(length);
      } else {
        n = w.utf16_terminated("utf16", rest_u32());
      }
      if (n == 0) break;
      rest -= n;
    } else {
      w.lag += 4;
    }
  }
  return true;
}

int32_t run_device_formatter(uint16_t code, decoded_fields& fields, const uint8_t* p,
                             int32_t remaining, const uint8_t* buffer_end, uint64_t base,
                             bool pointers_are_64) {
  switch (code) {
    case dc_pci_device:
      return format_pci_device(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_usb_device_info:
      return format_usb_device_info(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_usb_pipe_handles:
      return format_usb_pipe_handles(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_usb_port_info:
      return format_usb_port_info(fields, p, remaining, buffer_end, base);
    case dc_urb_header:
      return format_urb_header(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_urb_bulk:
      return format_urb_bulk(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_urb_isoch:
      return format_urb_isoch(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_urb_control:
      return format_urb_control(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_urb_control_ex:
      return format_urb_control_ex(fields, p, remaining, buffer_end, base, pointers_are_64);
    case dc_usb_endpoint_descriptor:
      return format_usb_endpoint_descriptor(fields, p, remaining, buffer_end, base);
    case dc_usb_superspeed_companion:
      return format_usb_superspeed_companion(fields, p, remaining, buffer_end, base);
    case dc_usb_superspeedplus_companion:
      return format_usb_superspeedplus_companion(fields, p, remaining, buffer_end, base);
    case dc_usb_device_descriptor:
      return format_usb_device_descriptor(fields, p, remaining, buffer_end, base);
    case dc_usb_hub_descriptor:
      return format_usb_hub_descriptor(fields, p, remaining, buffer_end, base);
    case dc_usb_configuration_descriptor:
      return format_usb_configuration_descriptor(fields, p, remaining, buffer_end, base);
    case dc_usb_interface_descriptor:
      return format_usb_interface_descriptor(fields, p, remaining, buffer_end, base);
    case dc_usb_string_descriptor:
      return format_usb_string_descriptor(fields, p, remaining, buffer_end, base);
    default:
      return -1;
  }
}
