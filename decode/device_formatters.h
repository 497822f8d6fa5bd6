// Hand-written formatters for kernel structures that a table of field words
// can't describe: USB request blocks and descriptors, PCI device identities,
// SQM data points. A template names one by a special word (family 8), and
// the interpreter hands it the rest of the payload.
//
// Every formatter takes:
//   fields      the event's decoded fields; each formatter adds its own
//   p           the payload at the current position
//   remaining   bytes from `p` to the end of the payload
//   buffer_end  one past the last byte of the trace buffer holding `p`
//   base        the file offset of `p`
// and returns the bytes it consumed. Fields are laid back to back with no
// alignment; each is keyed at `base` plus its offset and has `generated` set.
//
// Value kinds and the `type` they store:
//   u8 4, u16 6, u32 8, ptr 16 (8 or 4 bytes), blob 14 (bytes; a blob of
//   1, 2, 4 or 8 bytes is a number instead), GUID as text 15, UTF-16 text 1,
//   raw8 4 or 10 (8 raw bytes).
//
// The fixed formatters (and the bulk URB) read their fields without looking
// at `remaining`: the template that names them vouches for the payload's
// size, so they may read on into the buffer. They never read past
// `buffer_end`: a field that doesn't fit there ends the formatter early.
#pragma once

#include <cstdint>
#include <string_view>

#include "decode/decoded_field.h"

// Dispatch codes: a template word with its argument nibble cleared.
enum device_code : uint16_t {
  dc_sqm_payload = 0x8003,
  dc_pci_device = 0x8006,
  dc_usb_device_info = 0x8007,
  dc_usb_pipe_handles = 0x8008,
  dc_usb_port_info = 0x8009,
  dc_usb_iso_packets = 0x800A,  // count from an earlier field (nibble)
  dc_urb_header = 0x800B,
  dc_urb_bulk = 0x800C,
  dc_urb_isoch = 0x800D,
  dc_urb_control = 0x800E,
  dc_urb_control_ex = 0x800F,
  dc_usb_endpoint_descriptor = 0x8010,
  dc_usb_superspeed_companion = 0x8011,
  dc_usb_superspeedplus_companion = 0x8012,
  dc_usb_device_descriptor = 0x8013,
  dc_usb_hub_descriptor = 0x8014,
  dc_usb_configuration_descriptor = 0x8015,
  dc_usb_interface_descriptor = 0x8016,
  dc_usb_string_descriptor = 0x8017,
};

// Runs the formatter of `code` for the codes that take nothing but the
// common arguments (0x8006 to 0x8009, 0x800B to 0x8017). Returns the bytes
// consumed, or -1 when `code` isn't one of them.
int32_t run_device_formatter(uint16_t code, decoded_fields& fields, const uint8_t* p,
                             int32_t remaining, const uint8_t* buffer_end, uint64_t base,
                             bool pointers_are_64);

int32_t format_pci_device(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                          const uint8_t* buffer_end, uint64_t base, bool pointers_are_64);
int32_t format_usb_device_info(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                               const uint8_t* buffer_end, uint64_t base, bool pointers_are_64);
int32_t format_usb_pipe_handles(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                                const uint8_t* buffer_end, uint64_t base, bool pointers_are_64);
int32_t format_usb_port_info(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                             const uint8_t* buffer_end, uint64_t base);

// `count` triples of Offset, Length, Status (u32 each). Nothing when `count`
// is 0 or the triples don't fit in `remaining`.
int32_t format_usb_iso_packets(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                               const uint8_t* buffer_end, uint64_t base, uint64_t count);

// The URB header: Length (named `prefix` + " [Length]" when a prefix is
// given), Function, Status, UsbDevHandle, Flags (pointer-wide).
int32_t format_urb_header(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                          const uint8_t* buffer_end, uint64_t base, bool pointers_are_64,
                          std::string_view prefix = {});
// The common part of the transfer URBs: header, PipeHandle, TransferFlags
// (its name spells out the flag bits), TransferBufferLength, TransferBuffer,
// TransferBufferMDL.
int32_t format_urb_transfer(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                            const uint8_t* buffer_end, uint64_t base, bool pointers_are_64,
                            std::string_view prefix);
int32_t format_urb_bulk(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                        const uint8_t* buffer_end, uint64_t base, bool pointers_are_64);
int32_t format_urb_isoch(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                         const uint8_t* buffer_end, uint64_t base, bool pointers_are_64);
int32_t format_urb_control(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                           const uint8_t* buffer_end, uint64_t base, bool pointers_are_64);
int32_t format_urb_control_ex(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                              const uint8_t* buffer_end, uint64_t base, bool pointers_are_64);

int32_t format_usb_endpoint_descriptor(decoded_fields& fields, const uint8_t* p,
                                       int32_t remaining, const uint8_t* buffer_end,
                                       uint64_t base);
int32_t format_usb_superspeed_companion(decoded_fields& fields, const uint8_t* p,
                                        int32_t remaining, const uint8_t* buffer_end,
                                        uint64_t base);
int32_t format_usb_superspeedplus_companion(decoded_fields& fields, const uint8_t* p,
                                            int32_t remaining, const uint8_t* buffer_end,
                                            uint64_t base);
int32_t format_usb_device_descriptor(decoded_fields& fields, const uint8_t* p,
                                     int32_t remaining, const uint8_t* buffer_end,
                                     uint64_t base);
int32_t format_usb_hub_descriptor(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                                  const uint8_t* buffer_end, uint64_t base);
int32_t format_usb_interface_descriptor(decoded_fields& fields, const uint8_t* p,
                                        int32_t remaining, const uint8_t* buffer_end,
                                        uint64_t base);
// Length L, DescriptorType, then "String": L - 2 bytes of UTF-16. Returns L
// (2 when L is below 2, with no string).
int32_t format_usb_string_descriptor(decoded_fields& fields, const uint8_t* p,
                                     int32_t remaining, const uint8_t* buffer_end,
                                     uint64_t base);
// Nine bytes of configuration header, then the descriptors inside its
// TotalLength, each by its type byte; an unknown type takes the rest as one
// "Paylod" blob. Nested configuration descriptors recurse, up to
// kMaxDescriptorDepth levels; deeper ones are kept as a blob.
int32_t format_usb_configuration_descriptor(decoded_fields& fields, const uint8_t* p,
                                            int32_t remaining, const uint8_t* buffer_end,
                                            uint64_t base);
constexpr int kMaxDescriptorDepth = 8;

// An SQM data point: session GUID, id, type, an optional DWORD value, then a
// tagged tail. False, with nothing added, when `remaining` is below 20.
bool format_sqm_payload(decoded_fields& fields, const uint8_t* p, int32_t remaining,
                        const uint8_t* buffer_end, uint64_t base);
