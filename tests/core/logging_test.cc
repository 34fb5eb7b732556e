// Log lines, level gating, fatal messages, checks and stack traces.
#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "core/qo_logging.h"
#include "log_capture.h"

namespace {

const char kTime[] = R"(\d\d:\d\d:\d\d:\d\d\d)";

int Evaluated(int* count) { return ++*count; }

TEST(LoggingTest, LineFormatAndLevelGating) {
  LogCapture capture(3);
  int count = 0;
  LOG(2) << "filtered " << Evaluated(&count);
  EXPECT_EQ(count, 0);
  LOG(3) << "shown " << Evaluated(&count);
  LOG(4) << "FileInput is NULL !!!";
  EXPECT_EQ(count, 1);
  std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  std::regex line(std::string(R"(Host-(\d+)\[)") + kTime +
                  R"(\] .*logging_test\.cc:\d+: shown 1\n)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lines[0], m, line)) << lines[0];
  EXPECT_NE(lines[1].find(": FileInput is NULL !!!\n"), std::string::npos);

  // Level 6 silences everything, fatal messages included, but not checks.
  qo::g_log_level = 6;
  LOG(5) << "not thrown " << Evaluated(&count);
  EXPECT_EQ(count, 1);
  EXPECT_THROW(CHECK_EQ(count, 0), std::runtime_error);
  EXPECT_EQ(capture.lines().size(), 2u);
}

TEST(LoggingTest, NullFileStopsAfterTimeAndReleasesTheLock) {
  LogCapture capture(0);
  qo::LogMessage(nullptr, 7).stream() << "dropped";
  std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_TRUE(
      std::regex_match(lines[0], std::regex(std::string(R"(Host-\d+\[)") + kTime + R"(\] )")))
      << lines[0];
  ASSERT_TRUE(qo::LogMessage::mutex_.try_lock());
  qo::LogMessage::mutex_.unlock();
}

TEST(LoggingTest, FatalMessageThrowsWithStackTraceAndSkipsTheSink) {
  LogCapture capture(5);
  std::string text = ErrorText([] { LOG(5) << "Stream Open failed !!!"; });
  std::regex shape(std::string(R"(\[)") + kTime +
                   R"(\] .*logging_test\.cc:\d+: Stream Open failed !!!\nStack trace:\n)"
                   R"(((  \[bt\] \(\d\) .*\n){1,9})\n)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(text, m, shape)) << text;
  // Frames are numbered from 0 in order.
  std::string frames = m[1];
  std::regex number(R"(  \[bt\] \((\d)\) )");
  int expected = 0;
  for (auto it = std::sregex_iterator(frames.begin(), frames.end(), number);
       it != std::sregex_iterator(); ++it) {
    EXPECT_EQ(std::stoi((*it)[1]), expected++);
  }
  EXPECT_GE(expected, 1);
  EXPECT_TRUE(capture.lines().empty());
}

TEST(LoggingTest, CheckMessages) {
  int i = 3, num_args = 3;
  EXPECT_NE(ErrorText([&] {
              CHECK_LT(i, num_args) << "tail";
            }).find(": Check failed: i < num_args (3 vs. 3) : tail\nStack trace:\n"),
            std::string::npos);
  EXPECT_NE(
      ErrorText([&] { CHECK(i != num_args) << "key"; }).find("Check failed: i != num_args: key\n"),
      std::string::npos);
  EXPECT_NE(ErrorText([&] { CHECK_GE(i, 4); }).find("Check failed: i >= 4 (3 vs. 4) : \n"),
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
  LogCapture capture(0);
  constexpr int kThreads = 8, kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int n = 0; n < kLines; ++n)
        LOG(1) << "T" << t << "-" << n << "-" << std::string(200, 'a' + t);
    });
  }
  for (std::thread& th : threads) th.join();
  std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::regex one(R"(Host-\d+\[[^\]]+\] [^ ]+:\d+: T(\d)-(\d+)-([a-h])\3{199}\n)");
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, one)) << line;
    int t = std::stoi(m[1]);
    EXPECT_EQ(std::stoi(m[2]), next[t]++);  // each thread's lines in order
  }
}

TEST(LoggingTest, StackTraceAndDemangle) {
  EXPECT_EQ(qo::StackTrace(1000, 10), "Stack trace:\n");
  std::string trace = qo::StackTrace(0, 3);
  EXPECT_EQ(trace.rfind("Stack trace:\n  [bt] (0) ", 0), 0u) << trace;
  EXPECT_EQ(trace.find("  [bt] (3) "), std::string::npos);
  EXPECT_EQ(qo::Demangle("lib.so(_ZN2qo5ErrorD0Ev+0x1e) [0x1]"),
            "lib.so(qo::Error::~Error()+0x1e) [0x1]");
  EXPECT_EQ(qo::Demangle("_ZN2qo5ErrorD0Ev"), "qo::Error::~Error()");
  EXPECT_EQ(qo::Demangle("prog(_Zbogus+0x1) [0x2]"), "prog(_Zbogus+0x1) [0x2]");
  EXPECT_EQ(qo::Demangle("prog(+0x1) [0x2]"), "prog(+0x1) [0x2]");
}

}  // namespace
