/* live555src's key-frame gate: what each access unit from the depayloader
 * holds, and the wait for a connection's (or a loss's) first key frame, with
 * the parameter sets of the units dropped meanwhile put in front of it. */
#include "live555keygate.h"

/* What an access unit from the depayloader holds, for starting a decoder. */
typedef enum {
  UNIT_NO_PICTURE, /* parameter sets, SEI: passed while waiting */
  UNIT_DELTA,      /* a picture that needs earlier ones */
  UNIT_KEY,        /* a picture a decoder can start with */
} Live555Unit;

static Live555Unit live555_classify_nal(Live555Codec codec, guint8 header) {
  guint type;
  if (codec == LIVE555_CODEC_H264) {
    type = header & 0x1f;
    if (type == 5) return UNIT_KEY; /* IDR */
    return type >= 1 && type <= 4 ? UNIT_DELTA : UNIT_NO_PICTURE;
  }
  type = (header >> 1) & 0x3f;
  if (type >= 16 && type <= 21) return UNIT_KEY; /* IRAP: BLA, IDR, CRA */
  return type <= 31 ? UNIT_DELTA : UNIT_NO_PICTURE;
}

static gboolean live555_is_parameter_set(Live555Codec codec, guint8 header) {
  guint type = codec == LIVE555_CODEC_H264 ? (header & 0x1fu) : ((header >> 1) & 0x3fu);
  return codec == LIVE555_CODEC_H264 ? (type == 7 || type == 8) : (type >= 32 && type <= 34);
}

/* Bytes of the NAL length prefix in the depayloader's output; 0 for a byte
 * stream with start codes. */
guint live555_nal_length_size(GstCaps* caps, Live555Codec codec) {
  const GstStructure* s;
  const gchar* format;
  const GValue* v;
  guint size = 0;
  GstMapInfo map;

  if (!caps) return 0;
  s = gst_caps_get_structure(caps, 0);
  format = gst_structure_get_string(s, "stream-format");
  if (format && g_strcmp0(format, "byte-stream") != 0) {
    size = 4;
    v = gst_structure_get_value(s, "codec_data");
    if (v && G_VALUE_HOLDS(v, GST_TYPE_BUFFER) &&
        gst_buffer_map(gst_value_get_buffer(v), &map, GST_MAP_READ)) {
      /* lengthSizeMinusOne: avcC byte 4, hvcC byte 21 */
      gsize at = codec == LIVE555_CODEC_H264 ? 4 : 21;
      if (map.size > at) size = (map.data[at] & 3) + 1;
      gst_buffer_unmap(gst_value_get_buffer(v), &map);
    }
  }
  return size;
}

/* Finds the NAL unit at or after *pos: [*start, *start + *len). Returns
 * FALSE when there is none (or the rest does not parse). */
static gboolean live555_next_nal(const guint8* data, gsize size, guint nal_length_size, gsize* pos,
                                 gsize* start, gsize* len) {
  gsize i, end;
  if (nal_length_size == 0) {
    for (i = *pos; i + 3 < size; ++i) {
      if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) break;
    }
    if (i + 3 >= size) return FALSE;
    *start = i + 3;
    for (end = *start; end + 2 < size; ++end) {
      if (data[end] == 0 && data[end + 1] == 0 && data[end + 2] == 1) break;
    }
    if (end + 2 >= size) end = size;
    *pos = end;
    /* Zero bytes before the next start code belong to it. */
    while (end > *start + 1 && data[end - 1] == 0) --end;
    *len = end - *start;
    return TRUE;
  }
  if (size - *pos <= nal_length_size || *pos > size) return FALSE;
  *len = 0;
  for (i = 0; i < nal_length_size; ++i) *len = (*len << 8) | data[*pos + i];
  *start = *pos + nal_length_size;
  if (*len == 0 || *len > size - *start) return FALSE;
  *pos = *start + *len;
  return TRUE;
}

static void live555_keep_nal(Live555KeyWait* wait, const guint8* nal, gsize len) {
  static const guint8 start_code[4] = {0, 0, 0, 1};
  guint8 prefix[4];
  guint i;
  if (wait->nal_length_size > 0 && wait->nal_length_size < 4 &&
      len >= ((gsize)1 << (8 * wait->nal_length_size)))
    return; /* cannot be written with this prefix */
  if (!wait->headers) wait->headers = g_byte_array_new();
  if (wait->nal_length_size == 0) {
    g_byte_array_append(wait->headers, start_code, sizeof(start_code));
  } else {
    for (i = 0; i < wait->nal_length_size; ++i)
      prefix[i] = (guint8)(len >> (8 * (wait->nal_length_size - 1 - i)));
    g_byte_array_append(wait->headers, prefix, wait->nal_length_size);
  }
  g_byte_array_append(wait->headers, nal, (guint)len);
}

/* Classifies one access unit. Of a delta unit (which is dropped) the
 * parameter sets are kept for the key unit: the depayloader sends the
 * stream's parameter sets once, with the first unit of a connection. */
static Live555Unit live555_scan(GstBuffer* buf, Live555KeyWait* wait) {
  Live555Unit unit = UNIT_NO_PICTURE, nal;
  GstMapInfo map;
  gsize pos = 0, start, len;

  if (wait->codec == LIVE555_CODEC_JPEG) return UNIT_KEY; /* every picture stands alone */
  if (!gst_buffer_map(buf, &map, GST_MAP_READ)) return UNIT_NO_PICTURE;
  while (unit != UNIT_KEY &&
         live555_next_nal(map.data, map.size, wait->nal_length_size, &pos, &start, &len)) {
    nal = live555_classify_nal(wait->codec, map.data[start]);
    if (nal > unit) unit = nal;
  }
  if (unit == UNIT_DELTA) {
    pos = 0;
    while (live555_next_nal(map.data, map.size, wait->nal_length_size, &pos, &start, &len)) {
      if (live555_is_parameter_set(wait->codec, map.data[start]))
        live555_keep_nal(wait, map.data + start, len);
    }
  }
  gst_buffer_unmap(buf, &map);
  return unit;
}

/* Applies the wait to one unit: FALSE when it is to be dropped. A key unit
 * gets the kept parameter sets in front and ends the wait. */
gboolean live555_key_wait_apply(GstBuffer** buf, Live555KeyWait* wait) {
  Live555Unit unit;
  if (!wait->waiting) return TRUE;
  unit = live555_scan(*buf, wait);
  if (unit == UNIT_DELTA) return FALSE;
  if (unit == UNIT_KEY) {
    wait->waiting = FALSE;
    if (wait->headers && wait->headers->len > 0) {
      gsize n = wait->headers->len;
      guint8* bytes = g_byte_array_free(wait->headers, FALSE);
      *buf = gst_buffer_make_writable(*buf);
      gst_buffer_prepend_memory(*buf, gst_memory_new_wrapped(0, bytes, n, 0, n, bytes, g_free));
      wait->headers = NULL;
    }
  }
  return TRUE;
}

gboolean live555_key_wait_apply_in_list(GstBuffer** buf, guint idx, gpointer user_data) {
  (void)idx;
  if (!live555_key_wait_apply(buf, (Live555KeyWait*)user_data)) {
    gst_buffer_unref(*buf);
    *buf = NULL; /* removes it */
  }
  return TRUE;
}
