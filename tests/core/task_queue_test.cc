// Task queues, output ports and the node base's port handling.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/qo_media_task.h"
#include "core/qo_node.h"

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

// A node whose ports are typed like the source nodes' ports.
class MediaNode : public qo::Thread {
 public:
  MediaNode() {
    for (int i = 0; i < 4; ++i)
      pout_[i]->SetTypeInfo("qo::MediaTask", qo::TaskSerializeCustom<qo::MediaTask>, nullptr);
  }
  void Start() override {}
  void Stop() override {}
  void Proc(void*, int, qo::POutType) override {}
};

qo::MediaTask* NewTask(int flag) {
  auto* task = new qo::MediaTask();
  task->data = qo::NDArray::Empty(0, 0);
  task->flag = flag;
  return task;
}

// Tasks that cannot be sent are freed with their frames (the leak checker
// sees it); a sent task keeps its type after the node is gone.
TEST(TaskQueueTest, PortsSendOrDisposeAndTasksKeepTheirType) {
  TaskQueue q(4);
  TaskQueue::Task got;
  {
    MediaNode node;
    EXPECT_TRUE(node.SetTxQue(&q, 14));
    EXPECT_FALSE(node.SetTxQue(&q, 15));
    EXPECT_TRUE(node.SetTxQue(nullptr, 14));
    for (int i = 0; i < qo::Thread::kMaxPorts; ++i) EXPECT_FALSE(node.GetPOUT(i)->enabled()) << i;
    EXPECT_FALSE(node.GetPOUT(0)->Send(NewTask(0)));  // no queue
    node.SetOutput(NewTask(0), 15);                   // no such port
    ASSERT_TRUE(node.SetTxQue(&q, 1));
    node.SetOutput(NewTask(5), 1);
    ASSERT_TRUE(q.Pop(&got, 0));
    q.Close();
    EXPECT_FALSE(node.GetPOUT(1)->Send(NewTask(0)));  // closed queue
  }
  EXPECT_EQ(got.info->type_name, "qo::MediaTask");
  qo::NDArray array = got.info->serialise(got.data);
  EXPECT_EQ(static_cast<const uint8_t*>(array.GetBearData())[16], 5);
}

}  // namespace
