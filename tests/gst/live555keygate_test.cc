// live555src's key-frame gate on byte arrays: which access units pass while
// a connection waits for its first key picture, which parameter sets are
// kept and put in front of it, in start-code and length-prefixed framing,
// for H.264, H.265 and JPEG; and malformed units that must not be read past.
#include "live555keygate.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qo {
namespace test {
namespace {

using Bytes = std::vector<uint8_t>;

// NAL units by their header bytes, with a short payload.
const Bytes kSps264 = {0x67, 0x42, 0x00, 0x1e}, kPps264 = {0x68, 0xce, 0x38, 0x80};
const Bytes kIdr264 = {0x65, 0x88, 0x84, 0x21}, kP264 = {0x41, 0x9a, 0x02, 0x03};
const Bytes kSei264 = {0x06, 0x05, 0x01, 0x80};
const Bytes kVps265 = {0x40, 0x01, 0x0c, 0x01}, kSps265 = {0x42, 0x01, 0x01, 0x01};
const Bytes kPps265 = {0x44, 0x01, 0xc1, 0x72}, kCra265 = {0x2a, 0x01, 0xaf, 0x06};
const Bytes kTrail265 = {0x02, 0x01, 0xd0, 0x0a};

// Frames NAL units with start codes (prefix 0) or n-byte length prefixes.
Bytes Frame(const std::vector<Bytes>& nals, unsigned prefix) {
  Bytes out;
  for (const Bytes& n : nals) {
    if (prefix == 0) {
      out.insert(out.end(), {0, 0, 0, 1});
    } else {
      for (unsigned i = 0; i < prefix; ++i)
        out.push_back(uint8_t(n.size() >> (8 * (prefix - 1 - i))));
    }
    out.insert(out.end(), n.begin(), n.end());
  }
  return out;
}

GstBuffer* Buffer(const Bytes& b) {
  gst_init(nullptr, nullptr);  // once per process; later calls return at once
  GstBuffer* buf = gst_buffer_new_allocate(nullptr, b.size(), nullptr);
  gst_buffer_fill(buf, 0, b.data(), b.size());
  return buf;
}

Bytes Contents(GstBuffer* buf) {
  Bytes out(gst_buffer_get_size(buf));
  if (!out.empty()) gst_buffer_extract(buf, 0, out.data(), out.size());
  return out;
}

// Each step: the unit that arrives, whether it passes, and (when it passes)
// the bytes that go out.
struct Step {
  Bytes in;
  bool pass;
  Bytes out;
};

void Gate(Live555Codec codec, unsigned prefix, const std::vector<Step>& steps) {
  Live555KeyWait wait{codec, prefix, TRUE, nullptr};
  for (size_t i = 0; i < steps.size(); ++i) {
    GstBuffer* buf = Buffer(steps[i].in);
    const bool pass = live555_key_wait_apply(&buf, &wait);
    EXPECT_EQ(pass, steps[i].pass) << "step " << i;
    if (pass) {
      EXPECT_EQ(Contents(buf), steps[i].out) << "step " << i;
    }
    gst_buffer_unref(buf);
  }
  if (wait.headers) g_byte_array_unref(wait.headers);
}

TEST(Live555KeyGate, WaitsForTheFirstKeyPictureAndKeepsTheParameterSets) {
  for (unsigned prefix : {0u, 4u, 2u}) {
    SCOPED_TRACE("prefix " + std::to_string(prefix));
    auto f = [prefix](const std::vector<Bytes>& nals) { return Frame(nals, prefix); };
    Gate(LIVE555_CODEC_H264, prefix,
         {{f({kSei264}), true, f({kSei264})},                    // no picture: passes
          {f({kSps264, kPps264, kP264}), false, {}},             // delta: dropped, sets kept
          {f({kP264}), false, {}},                               //
          {f({kIdr264}), true, f({kSps264, kPps264, kIdr264})},  // key: the sets in front
          {f({kP264}), true, f({kP264})}});                      // the wait is over
    Gate(LIVE555_CODEC_H265, prefix,
         {{f({kVps265, kSps265, kPps265, kTrail265}), false, {}},
          {f({kCra265}), true, f({kVps265, kSps265, kPps265, kCra265})},
          {f({kTrail265}), true, f({kTrail265})}});
    // A key picture that brings its own sets needs nothing kept.
    Gate(LIVE555_CODEC_H264, prefix,
         {{f({kSps264, kPps264, kIdr264}), true, f({kSps264, kPps264, kIdr264})}});
  }
  const Bytes jpeg = {0xff, 0xd8, 0xff, 0xe0, 0x00, 0x10, 0xff, 0xd9};
  Gate(LIVE555_CODEC_JPEG, 0, {{jpeg, true, jpeg}});
}

// Units that do not parse are judged by what can be read, never past the end.
TEST(Live555KeyGate, MalformedUnitsAreNotReadPastTheirEnd) {
  const Bytes cut_length = {0x00, 0x00, 0x00, 0x40, 0x65, 0x88};  // says 64, holds 2
  const Bytes no_start_code = {0x65, 0x88, 0x84};
  const Bytes only_start_code = {0x00, 0x00, 0x01};
  Gate(LIVE555_CODEC_H264, 4, {{cut_length, true, cut_length}, {{}, true, {}}});
  Gate(LIVE555_CODEC_H264, 0, {{no_start_code, true, no_start_code}});
  Gate(LIVE555_CODEC_H264, 0, {{only_start_code, true, only_start_code}});
  const Bytes one_byte_unit = {1, 0x41};  // 1-byte prefix, a P slice header
  Gate(LIVE555_CODEC_H264, 1, {{one_byte_unit, false, {}}});
}

TEST(Live555KeyGate, PrefixLengthFromTheCapsAndDropsFromAList) {
  gst_init(nullptr, nullptr);  // before the caps
  const struct {
    const char* caps;
    Bytes codec_data;
    Live555Codec codec;
    guint size;
  } cases[] = {
      {"video/x-h264,stream-format=byte-stream", {}, LIVE555_CODEC_H264, 0},
      {"video/x-h264,stream-format=avc", {}, LIVE555_CODEC_H264, 4},
      {"video/x-h264,stream-format=avc", {1, 0x42, 0, 0x1e, 0xfd}, LIVE555_CODEC_H264, 2},
      {"video/x-h265,stream-format=hvc1", Bytes(22, 0xfc), LIVE555_CODEC_H265, 1},
  };
  for (const auto& c : cases) {
    GstCaps* caps = gst_caps_from_string(c.caps);
    if (!c.codec_data.empty()) {
      GstBuffer* cd = Buffer(c.codec_data);
      gst_caps_set_simple(caps, "codec_data", GST_TYPE_BUFFER, cd, nullptr);
      gst_buffer_unref(cd);
    }
    EXPECT_EQ(live555_nal_length_size(caps, c.codec), c.size) << c.caps;
    gst_caps_unref(caps);
  }
  EXPECT_EQ(live555_nal_length_size(nullptr, LIVE555_CODEC_H264), 0u);

  Live555KeyWait wait{LIVE555_CODEC_H264, 0, TRUE, nullptr};
  GstBufferList* list = gst_buffer_list_new();
  gst_buffer_list_add(list, Buffer(Frame({kP264}, 0)));
  gst_buffer_list_add(list, Buffer(Frame({kIdr264}, 0)));
  gst_buffer_list_add(list, Buffer(Frame({kP264}, 0)));
  gst_buffer_list_foreach(list, live555_key_wait_apply_in_list, &wait);
  ASSERT_EQ(gst_buffer_list_length(list), 2u);
  EXPECT_EQ(Contents(gst_buffer_list_get(list, 0)), Frame({kIdr264}, 0));
  gst_buffer_list_unref(list);
}

}  // namespace
}  // namespace test
}  // namespace qo
