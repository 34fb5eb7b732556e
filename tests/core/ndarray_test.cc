// Arrays shared across threads and the serialised MediaTask header.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>

#include "core/qo_c_runtime_api.h"
#include "core/qo_media_task.h"
#include "core/qo_ndarray.h"

namespace {

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
  for (size_t size : {size_t{0}, size_t{1}, size_t{4000}, size_t{128 * 1024},
                      size_t{3 * 1024 * 1024 + 5}}) {
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

}  // namespace
