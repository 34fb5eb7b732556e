// Log lines, level gating, fatal messages and checks.
#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "core/qo_logging.h"
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
      std::regex_match(lines[0], std::regex(kHead + R"(.*logging_test\.cc:\d+: shown 1\n)")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(kHead))) << lines[1];
  ASSERT_TRUE(qo::LogMessage::mutex_.try_lock());  // released all the same
  qo::LogMessage::mutex_.unlock();

  std::string fatal = ErrorText([] { LOG(5) << "Stream Open failed !!!"; });
  EXPECT_TRUE(std::regex_match(
      fatal,
      std::regex(R"(\[\d\d:\d\d:\d\d:\d\d\d\] .*logging_test\.cc:\d+: Stream Open failed !!!)"
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

}  // namespace
