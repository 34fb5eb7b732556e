// Access units in, pictures out: parser, GStreamer decoder and videoconvert
// to packed BGR, RGB or grey, behind a source pad of our own that the caller
// pushes into. The push runs the chain on the caller's thread, so every
// picture a unit completes is in the sink when Decode returns.
#ifndef QO_PYTHON_DECODER_H_
#define QO_PYTHON_DECODER_H_

#include <gst/gst.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/qo_ndarray.h"

namespace qopy {

// One decoded picture; holds the sample until it is copied out.
class Picture {
 public:
  explicit Picture(GstSample* sample);
  ~Picture();
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }
  int channels() const { return channels_; }
  // Copies the rows, without their padding, to out (height x width x channels).
  bool CopyTo(uint8_t* out) const;

 private:
  GstSample* sample_;
  int width_ = 0, height_ = 0, channels_ = 0;
};

class Decoder {
 public:
  // codec: "h264", "h265" or "mjpeg"; out: "bgr", "rgb" or "gray". Throws
  // std::invalid_argument for others, std::runtime_error when GStreamer
  // lacks an element.
  Decoder(const std::string& codec, const std::string& out);
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  // Decodes one access unit (array keeps its bytes alive, without a copy,
  // while GStreamer holds them; else they are copied) and appends the
  // pictures that came out.
  void Decode(const uint8_t* data, size_t size, const qo::NDArray& array,
              std::vector<std::unique_ptr<Picture>>* pictures);
  // Drains the pictures the decoder still holds; decoding may go on after.
  void Flush(std::vector<std::unique_ptr<Picture>>* pictures);

 private:
  void Release();
  void Push(GstBuffer* buffer);
  void StartSegment();
  // Throws the first error the pipeline posted, if any.
  void CheckBus();
  void TakeDecoded(std::vector<std::unique_ptr<Picture>>* pictures);

  std::mutex mutex_;
  GstElement* pipeline_ = nullptr;
  GstElement* sink_ = nullptr;
  GstPad* src_ = nullptr;
  GstCaps* caps_ = nullptr;
  // What the sink received during the current push (under mutex_).
  std::vector<std::unique_ptr<Picture>> decoded_;
};

}  // namespace qopy

#endif  // QO_PYTHON_DECODER_H_
