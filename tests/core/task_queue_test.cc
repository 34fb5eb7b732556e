// Task queues: back-pressure, time-outs, close, and disposal of what is left.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/qo_task_queue.h"

namespace {

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

}  // namespace
