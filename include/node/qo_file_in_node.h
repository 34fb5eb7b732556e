// File input node: reads encoded elementary-stream files (one file or a list,
// optionally looping), feeds them to the file decoder and sends the parsed
// frames downstream as MediaTasks, or hands them to its owner in sync mode.
#ifndef QO_NODE_QO_FILE_IN_NODE_H_
#define QO_NODE_QO_FILE_IN_NODE_H_

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "core/qo_export.h"
#include "core/qo_ndarray.h"
#include "core/qo_node.h"
#include "hal_mm_file_in.h"

namespace qo {
namespace mm {

class QO_EXPORT FileInput : public Thread {
 public:
  FileInput();
  // Does not stop the node: a started node must be stopped first.
  ~FileInput() override;

  // Opens a decoder for the configured input and starts the feeding thread
  // and, unless "sync-mode" is 1, the output thread.
  void Start() override;
  // Stops the decoder, joins the threads and closes the decoder. Also needed
  // after a natural end of input.
  void Stop() override;
  // The node has no input; data handed in is ignored.
  void Proc(void* task, int port, POutType type) override;

  // Places up to len bytes of the file sequence in buf; 0 when nothing was
  // read (a file ended, could not be opened, or no file is left). Virtual so
  // that a derived node can supply bytes from elsewhere.
  virtual int GetData(unsigned char* buf, int len);

  // Sync mode only: pulls one frame, waiting up to timeout seconds.
  // 0 frame in out, 1 end of stream, 2 time-out, -1 not started or not in
  // sync mode.
  int GetFrame(NDArray& out, int timeout);

 protected:
  // The next file to read, "" when the input is exhausted.
  std::string GetNextFile();
  void GetNextFileSingle(std::string& name);
  void GetNextFileFromList(std::string& name);
  // Fills file_list_ from path_ (one file, or the lines of a list file) and
  // normalises the list range.
  void CreateFileList();

  static void StreamIn(void* node);
  static void StreamOut(void* node);
  // 0 frame, 1 end of stream, 2 time-out; out is an empty array unless 0.
  int GetFrameInternal(NDArray& out, int timeout);
  // One task per enabled port among the first four.
  void SendStream(NDArray& frame, unsigned int status);
  // Packet release, called by the decoder with the packet as cookie.
  static void StreamFree(void* priv);
  // Array deleter: returns the frame buffer to the decoder.
  static void FrameFree(NDArray::Container* c);

  qo_VideoFileHandle decoder_ = nullptr;
  std::thread strm_out_thread_;
  std::thread strm_in_thread_;
  int32_t stream_id_ = 0;
  int32_t sync_mode_ = 0;
  std::vector<std::string> file_list_;
  std::string path_;
  std::ifstream in_file_;
  bool use_list_ = false;
  int32_t start_index_ = -1;
  int32_t stop_index_ = -1;
  int32_t index_ = 0;
  int32_t loop_cnt_ = 0;
  int32_t loop_ = 0;
  // Written by Stop on the owner's thread, read by the feeding thread.
  std::atomic<bool> eos_{false};
  int32_t read_size_ = 0x40000;
};

}  // namespace mm
}  // namespace qo

#endif  // QO_NODE_QO_FILE_IN_NODE_H_
