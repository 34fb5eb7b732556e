// The framework core: log lines and checks, arrays shared across threads and
// the MediaTask header, frame memory, argument packing and type texts, the
// owning return slot, the parameter store's refusals, task queues and the
// output port's sender on a full queue.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/qo_c_runtime_api.h"
#include "core/qo_logging.h"
#include "core/qo_media_task.h"
#include "core/qo_ndarray.h"
#include "core/qo_node.h"
#include "core/qo_packed_func.h"
#include "core/qo_prop.h"
#include "core/qo_registry.h"
#include "core/qo_task_queue.h"
#include "test_common.h"

namespace {

using qo::testutil::ErrorText;

const std::string kHead = R"(Host-\d+\[\d\d:\d\d:\d\d:\d\d\d\] )";

TEST(LoggingTest, LinesGatingFatalMessagesAndChecks) {
  qo::testutil::LogCapture capture(3);
  int count = 0;
  LOG(2) << "filtered " << ++count;  // not even built
  LOG(3) << "shown " << ++count;
  EXPECT_EQ(count, 1);
  qo::LogMessage(nullptr, 7).stream() << "dropped";  // a null file ends the line after the time
  std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(
      std::regex_match(lines[0], std::regex(kHead + R"(.*core_test\.cc:\d+: shown 1\n)")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(kHead))) << lines[1];
  ASSERT_TRUE(qo::LogMessage::mutex_.try_lock());  // released all the same
  qo::LogMessage::mutex_.unlock();

  std::string fatal = ErrorText([] { LOG(5) << "Stream Open failed !!!"; });
  EXPECT_TRUE(std::regex_match(
      fatal,
      std::regex(R"(\[\d\d:\d\d:\d\d:\d\d\d\] .*core_test\.cc:\d+: Stream Open failed !!!)"
                 R"(\nStack trace:\n(  \[bt\] \(\d\) .*\n){1,9}\n)")))
      << fatal;
  EXPECT_EQ(capture.Lines().size(), 2u);  // a fatal message never reaches the sink
  qo::g_log_level = 6;                    // silences fatal messages, not checks
  LOG(5) << "not thrown";
  int i = 3, num_args = 3;  // the binary checks' text is proven with the packed arguments
  EXPECT_NE(ErrorText([&] {
              CHECK(i != num_args) << "key";
            }).find(": Check failed: i != num_args: key\nStack trace:\n"),
            std::string::npos);
  EXPECT_EQ(ErrorText([&] { CHECK_EQ(i, num_args) << "never built"; }), "");
  bool else_taken = false;  // a check inside an if leaves the else to that if
  if (i == 0)
    CHECK_EQ(i, 1);
  else
    else_taken = true;
  EXPECT_TRUE(else_taken);
}

TEST(LoggingTest, ThreadsNeverInterleaveLines) {
  qo::testutil::LogCapture capture(0);
  constexpr int kThreads = 8, kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int n = 0; n < kLines; ++n)
        LOG(1) << "T" << t << "-" << n << "-" << std::string(200, 'a' + t);
    });
  }
  for (std::thread& th : threads) th.join();
  std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::regex one(kHead + R"([^ ]+:\d+: T(\d)-(\d+)-([a-h])\3{199}\n)");
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, one)) << line;
    EXPECT_EQ(std::stoi(m[2]), next[std::stoi(m[1])]++);  // each thread's lines in order
  }
}

std::atomic<int> g_deleter_runs{0};

qo::NDArray MakeFrame() {
  auto* bytes = new uint8_t[6]{1, 2, 3, 4, 5, 6};
  return qo::NDArray::UserEmpty(
      {2, 3}, DLDataType{kDLInt, 8, 1}, DLContext{kDLCPU, 0}, qo::ExtInfo(),
      [](qo::NDArray::Container* c) {
        g_deleter_runs.fetch_add(1);
        delete[] static_cast<uint8_t*>(c->manager_ctx);
        delete c;
      },
      bytes, bytes);
}

TEST(NDArrayTest, DeleterRunsOnceWhenSharedAcrossThreads) {
  g_deleter_runs = 0;
  for (int round = 0; round < 200; ++round) {
    qo::NDArray frame = MakeFrame();
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([copy = frame]() mutable {
        qo::NDArray more = copy;
        copy = qo::NDArray();
        more.reset();
      });
    }
    frame.reset();  // the last reference may drop on any thread
    for (std::thread& th : threads) th.join();
    ASSERT_EQ(g_deleter_runs.load(), round + 1);
  }
}

qo::NDArray Serialise(qo::NDArray data, std::vector<uint8_t> extra) {
  auto* task = new qo::MediaTask();
  task->data = std::move(data);
  task->source_id = -2;
  task->time_stamp = 0x0102030405060708LL;
  task->flag = 1;
  task->extra = std::move(extra);
  return qo::TaskSerializeCustom<qo::MediaTask>(task);
}

TEST(NDArrayTest, MediaTaskSerialisesHeaderAndCutsExtra) {
  g_deleter_runs = 0;
  qo::NDArray frame = MakeFrame();
  qo::NDArray out = Serialise(frame, std::vector<uint8_t>(100, 0xab));
  EXPECT_EQ(out.get(), frame.get());
  EXPECT_EQ(out.use_count(), 2);  // the task's own reference is gone
  const uint8_t header[20] = {0xfe, 0xff, 0xff, 0xff, 8, 7, 6, 5, 4, 3,
                              2,    1,    0,    0,    0, 0, 1, 0, 0, 0};
  const auto* bear = static_cast<const uint8_t*>(out.GetBearData());
  EXPECT_EQ(std::memcmp(bear, header, 20), 0);
  ASSERT_EQ(out.GetBearDataSize(), out.GetBearDataCap());  // extra cut to the room
  EXPECT_EQ(bear[out.GetBearDataCap() - 1], 0xab);
  EXPECT_EQ(out.Shape(), (std::vector<int64_t>{2, 3}));  // an empty shape keeps it
  EXPECT_EQ(Serialise(frame, {9, 8, 7}).GetBearDataSize(), 23u);
  // A side buffer of exactly 20 bytes keeps only the header; a smaller one is left alone.
  for (size_t cap : {20u, 10u}) {
    auto* c = new qo::NDArray::Container();
    c->bear_data = QOMemAlloc(cap, 64);
    c->bear_cap = cap;
    EXPECT_EQ(Serialise(qo::NDArray(c), {1, 2, 3}).GetBearDataSize(), cap == 20 ? 20u : 0u);
  }
  out.reset();
  frame.reset();
  EXPECT_EQ(g_deleter_runs.load(), 1);
}

// Frame memory: small blocks and large ones (mapped on their own) keep
// their alignment and every byte, also when freed on another thread.
TEST(FrameMemoryTest, SmallAndLargeBlocksAreAlignedAndWhole) {
  for (size_t size :
       {size_t{0}, size_t{1}, size_t{4000}, size_t{128 * 1024}, size_t{3 * 1024 * 1024 + 5}}) {
    for (size_t alignment : {size_t{8}, size_t{64}, size_t{4096}}) {
      auto* p = static_cast<uint8_t*>(QOMemAlloc(size, alignment));
      ASSERT_NE(p, nullptr) << size;
      EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignment, 0u) << size << " " << alignment;
      memset(p, 0xa5, size);
      std::thread([p] { QOMemFree(p); }).join();
    }
  }
  EXPECT_EQ(QOMemAlloc(16, 48), nullptr);  // not a power of two
  EXPECT_EQ(QOMemAlloc(SIZE_MAX - 8, 64), nullptr);
  QOMemFree(nullptr);
}

using qo::QOArgValue;

template <typename T>
QOArgValue Arg(int code, T v) {
  qo::QOValue value;
  if constexpr (std::is_pointer_v<T>) value.v_handle = v;
  if constexpr (!std::is_pointer_v<T>) value.v_int64 = v;
  return QOArgValue(value, code);
}

// The message between the "[time] file:line: " prefix and the stack trace.
std::string Body(const std::string& text) {
  size_t start = text.find(": ", text.find("] ")) + 2;
  return text.substr(start, text.find("\nStack trace:") - start);
}

TEST(PackedFuncTest, ConversionsPackingAndTheirExactFailures) {
  qo::QOValue values[3] = {};
  int32_t codes[3] = {kDLInt, kDLInt, kDLInt};
  qo::QOArgs args(values, codes, 3);
  int x = 0;
  const std::pair<std::function<void()>, std::string> failures[] = {
      {[&] { args[3]; },
       "Check failed: i < num_args (3 vs. 3) : not enough argument passed, 3 passed but "
       "request arg[3]."},
      {[] { static_cast<int>(Arg(kDLInt, 2147483648LL)); },
       "Check failed: value_.v_int64 <= std::numeric_limits<int>::max() "
       "(2147483648 vs. 2147483647) : "},
      {[&] { static_cast<void*>(Arg(qo::kNodeHandle, &x)); },
       "Check failed: type_code_ == kHandle (8 vs. 3) :  expected handle but get NodeHandle"},
      {[&] { static_cast<void*>(Arg(20, &x)); },
       "unknown type_code=20"},  // name lookup fails first
  };
  for (const auto& [convert, message] : failures) EXPECT_EQ(Body(ErrorText(convert)), message);
  EXPECT_EQ(args[-1].type_code(), qo::kNull);  // one-sided check, read safely
  EXPECT_EQ(static_cast<int>(Arg(kDLInt, -5000000000LL)), static_cast<int>(-5000000000LL));
  EXPECT_EQ(static_cast<void*>(Arg(qo::kNull, &x)), nullptr);
  qo::QOValue type_value;
  type_value.v_type = DLDataType{kDLFloat, 16, 4};
  EXPECT_EQ(static_cast<std::string>(QOArgValue(type_value, qo::kQOType)), "float16x4");

  qo::Registry::Register("qo.test.pack").set_body([](qo::QOArgs a, qo::QORetValue* rv) {
    std::string text = static_cast<std::string>(a[3]);  // checked before anything is read
    text += static_cast<std::string>(a[4]) + static_cast<std::string>(a[7]);
    for (int i = 0; i < a.size(); ++i) text += " " + std::to_string(a.type_codes[i]);
    *rv = text + " " + std::to_string(static_cast<int>(a[0]) + a.values[1].v_float64);
  });
  std::string owned = "s";
  qo::QOByteArray bytes{"b\0y", 3};
  EXPECT_EQ((*qo::Registry::Get("qo.test.pack"))(40, 2.5, nullptr, "l", owned, &x,
                                                 DLDataType{kDLFloat, 32, 1}, bytes)
                .AsString(),
            std::string("ls") + std::string("b\0y", 3) + " 0 2 4 11 11 3 5 12 42.500000");
  EXPECT_THROW((*qo::Registry::Get("qo.test.pack"))(1), qo::Error);  // reads arg[3] of 1
}

std::vector<int> Fields(DLDataType t) { return {t.code, t.bits, t.lanes}; }

// Type texts: the width is read as 8 bits and 0 falls back to 32; what the
// parser leaves unread is refused, an unknown name even before that.
TEST(PackedFuncTest, TypeTextsParseAndPrintBack) {
  const struct {
    std::string text;
    std::vector<int> fields;  // code, bits, lanes
    std::string printed;
  } types[] = {
      {"int8", {kDLInt, 8, 1}, "int8"},
      {"int", {kDLInt, 32, 1}, "int32"},
      {"int256", {kDLInt, 32, 1}, "int32"},
      {"uint16", {kDLUInt, 16, 1}, "uint16"},
      {"float32x4", {kDLFloat, 32, 4}, "float32x4"},
      {"handle", {qo::kHandle, 64, 1}, "handle"},
      {"bool", {kDLUInt, 1, 1}, "bool"},
      {"", {qo::kHandle, 0, 0}, ""},
  };
  for (const auto& t : types) {
    const DLDataType type = qo::String2QOType(t.text);
    EXPECT_EQ(Fields(type), t.fields) << t.text;
    EXPECT_EQ(qo::QOType2String(type), t.printed) << t.text;
  }
  const std::string unread = "Check failed: endpt == s.c_str() + s.length(): unknown type ";
  for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
           {"int8y", unread + "int8y"},
           {"float32x4x2", unread + "float32x4x2"},
           {"bool8", "unknown type bool8"},
       })
    EXPECT_EQ(Body(ErrorText([&] { qo::String2QOType(text); })), message);
  qo::testutil::LogCapture silenced(6);  // the unknown name still fails the end check
  EXPECT_EQ(Body(ErrorText([] { qo::String2QOType("double"); })), unread + "double");
}

// Each owned value is released exactly once when the slot is overwritten
// (the leak checker and the counter see both ways of getting it wrong).
TEST(PackedFuncTest, ReturnSlotReleasesWhatItOwns) {
  static int released = 0;
  int node = 0;
  qo::QORetValue rv;
  rv = std::string("owned");
  rv = qo::NDArray::UserEmpty(
      {4}, DLDataType{kDLInt, 8, 1}, DLContext{kDLCPU, 0}, qo::ExtInfo(),
      [](qo::NDArray::Container* c) {
        ++released;
        delete c;
      },
      nullptr, &node);
  EXPECT_EQ(rv.AsNDArray().use_count(), 2);
  rv = &node;
  EXPECT_EQ(released, 1);
  rv = qo::PackedFunc([](qo::QOArgs, qo::QORetValue* out) { *out = 5; });
  qo::QORetValue moved(std::move(rv));
  EXPECT_EQ(rv.type_code(), qo::kNull);
  EXPECT_EQ((*moved.AsFunc())().AsInt64(), 5);
  moved = 2.5;
  EXPECT_THROW(moved.AsInt64(), qo::Error);
}

// Only declared names of the right kind are set, within inclusive ranges;
// a refused value leaves the old one. Reads of unknown names warn.
TEST(PropTest, RefusalsAndWarningsNameKeyAndRange) {
  qo::Prop p;
  p.SetDefault("size", 0, 0, 10);
  p.SetDefault("framerate", 25.0, 0.0, 120.0);
  p.SetDefault("file", std::string("a"));
  const std::string unknown = " not exist! Call SetDefault before Set.",
                    range = "Check failed: (vs.low <= _val) && (vs.upper >= _val): ";
  const std::pair<std::function<void()>, std::string> refusals[] = {
      {[&] { p.Set("nope", 1); }, "Check failed: int_paras_.count(_key) > 0: key nope" + unknown},
      {[&] { p.Set("size", 11); }, range + "size:11 exceeds range [0, 10]"},
      {[&] { p.Set("size", -1); }, range + "size:-1 exceeds range [0, 10]"},
      {[&] { p.Set("framerate", 120.5); }, range + "framerate:120.5 exceeds range [0, 120]"},
      {[&] { p.Set("framerate", -0.25); }, range + "framerate:-0.25 exceeds range [0, 120]"},
      {[&] { p.Set("size", 2.0); },
       "Check failed: double_paras_.count(_key) > 0: key size" + unknown},
      {[&] { p.Set("file", 1); }, "Check failed: int_paras_.count(_key) > 0: key file" + unknown},
      {[&] { p.Set("size", "3"); },
       "Check failed: string_paras_.count(_key) > 0: key size" + unknown},
  };
  for (const auto& [set, message] : refusals) EXPECT_EQ(Body(ErrorText(set)), message);
  int size = -1;
  double rate = -1;
  std::string file = "?";
  EXPECT_TRUE(p.Get("size", size) && p.Get("framerate", rate) && p.Get("file", file));
  EXPECT_EQ(std::make_tuple(size, rate, file), std::make_tuple(0, 25.0, std::string("a")));
  for (int v : {0, 10}) p.Set("size", v);  // both bounds are in range
  for (double v : {120.0, 0.0}) p.Set("framerate", v);
  p.Set("file", static_cast<const char*>(nullptr));
  EXPECT_TRUE(p.Get("size", size) && p.Get("framerate", rate) && p.Get("file", file));
  EXPECT_EQ(std::make_tuple(size, rate, file), std::make_tuple(10, 0.0, std::string()));

  for (int level : {3, 4}) {  // warnings of severity 3; the output is left alone
    qo::testutil::LogCapture logs(level);
    EXPECT_FALSE(p.Get("framerate", size) || p.Get("size", rate) || p.Get("size", file));
    EXPECT_EQ(std::make_tuple(size, rate, file), std::make_tuple(10, 0.0, std::string()));
    for (const char* line :
         {": int_paras has no attribute framerate\n", ": double_paras has no attribute size\n",
          ": string_paras has no attribute size\n"})
      EXPECT_EQ(logs.Count(line), level == 3 ? 1u : 0u) << line;
  }
}

using qo::TaskQueue;
using std::chrono::milliseconds;

std::atomic<int> g_freed{0};

TaskQueue::Task IntTask(int v) {
  auto info = std::make_shared<qo::TaskTypeInfo>();
  info->free = [](TaskQueue::Task t) {
    g_freed.fetch_add(1);
    delete static_cast<int*>(t.data);
  };
  return TaskQueue::Task{new int(v), info};
}

int Take(TaskQueue* q, int timeout_ms = -1) {
  TaskQueue::Task t;
  if (!q->Pop(&t, timeout_ms)) return -1;
  int v = *static_cast<int*>(t.data);
  TaskQueue::Dispose(t);
  return v;
}

TEST(TaskQueueTest, BackPressureTimeoutsAndClose) {
  TaskQueue q(2);
  ASSERT_TRUE(q.Push(IntTask(1)) && q.Push(IntTask(2)));
  TaskQueue::Task third = IntTask(3);
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(q.Push(third, 50));  // full: times out, the caller keeps the task
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(45));
  std::atomic<bool> pushed{false};
  std::thread producer([&] { pushed = q.Push(third); });
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_FALSE(pushed.load());  // blocked while full
  EXPECT_EQ(Take(&q), 1);
  producer.join();
  EXPECT_TRUE(pushed.load());
  EXPECT_EQ(Take(&q), 2);
  EXPECT_EQ(Take(&q), 3);
  EXPECT_EQ(Take(&q, 20), -1);

  // Close wakes a blocked consumer and a blocked producer; queued tasks can
  // still be taken, new ones are refused; what is left goes with the queue.
  g_freed = 0;
  std::thread consumer([&] {
    EXPECT_EQ(Take(&q), 4);
    EXPECT_EQ(Take(&q), -1);
  });
  {
    TaskQueue full(1), leftovers(2);
    ASSERT_TRUE(full.Push(IntTask(7)) && leftovers.Push(IntTask(9)));
    TaskQueue::Task blocked = IntTask(8);
    std::thread pusher([&] { EXPECT_FALSE(full.Push(blocked)); });
    std::this_thread::sleep_for(milliseconds(20));
    ASSERT_TRUE(q.Push(IntTask(4)));
    std::this_thread::sleep_for(milliseconds(20));
    q.Close();
    full.Close();
    consumer.join();
    pusher.join();
    EXPECT_FALSE(full.Push(blocked));
    TaskQueue::Dispose(blocked);
    EXPECT_EQ(Take(&full), 7);
  }
  EXPECT_EQ(g_freed.load(), 4);  // 4, 8 and 7 taken or disposed, 9 with its queue
}

// A sender waits on a full queue without polling; it moves on when the port
// is released (its task disposed of), when the port gets another queue (its
// task goes there), and when the queue is taken away or closed.
TEST(PortTest, ASenderOnAFullQueueMovesOnWhenReleasedOrRedirected) {
  qo::POUT port;
  port.SetTypeInfo("int", nullptr, [](TaskQueue::Task t) {
    g_freed.fetch_add(1);
    delete static_cast<int*>(t.data);
  });
  g_freed = 0;
  TaskQueue full(1), other(1);
  ASSERT_TRUE(full.Push(IntTask(1)));
  port.SetTxQue(&full);
  // Each change while a sender waits, repeated to meet the races between a
  // sender's last look at the port and the change.
  const std::vector<std::function<void()>> changes = {
      [&] { port.SetReleased(true); },
      [&] { port.SetTxQue(&other); },
      [&] { port.SetTxQue(nullptr); },
  };
  for (int round = 0; round < 200; ++round) {
    const size_t change = static_cast<size_t>(round) % changes.size();
    port.SetReleased(false);
    port.SetTxQue(&full);
    std::atomic<int> result{-1};
    std::thread sender([&] { result = port.Send(new int(round)) ? 1 : 0; });
    if (round < 3) {
      std::this_thread::sleep_for(milliseconds(30));
      EXPECT_EQ(result.load(), -1) << "did not wait on the full queue";
    }
    changes[change]();
    sender.join();  // a lost wake-up hangs here
    EXPECT_EQ(result.load(), change == 1 ? 1 : 0) << "round " << round;
    if (change == 1) {
      EXPECT_EQ(Take(&other), round);
    }
  }
  EXPECT_EQ(g_freed.load(), 200);  // every task taken or disposed of, none twice

  // A closed queue ends the wait as well.
  port.SetReleased(false);
  port.SetTxQue(&full);
  std::thread sender([&] { EXPECT_FALSE(port.Send(new int(0))); });
  std::this_thread::sleep_for(milliseconds(20));
  full.Close();
  sender.join();
  EXPECT_EQ(Take(&full), 1);
}

}  // namespace
