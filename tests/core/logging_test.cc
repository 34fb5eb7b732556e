// Log lines, level gating, fatal messages, checks and stack traces.
#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "core/qo_logging.h"
#include "test_common.h"

namespace {

using qo::testutil::ErrorText;
using qo::testutil::LogCapture;

const char kTime[] = R"(\d\d:\d\d:\d\d:\d\d\d)";

int Evaluated(int* count) { return ++*count; }

TEST(LoggingTest, LineFormatGatingAndNullFile) {
  LogCapture capture(3);
  int count = 0;
  LOG(2) << "filtered " << Evaluated(&count);  // not even built
  EXPECT_EQ(count, 0);
  LOG(3) << "shown " << Evaluated(&count);
  EXPECT_EQ(count, 1);
  // A null file fails the stream: the line stops after the time.
  qo::LogMessage(nullptr, 7).stream() << "dropped";
  std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(std::string(R"(Host-\d+\[)") + kTime +
                                                    R"(\] .*logging_test\.cc:\d+: shown 1\n)")))
      << lines[0];
  EXPECT_TRUE(
      std::regex_match(lines[1], std::regex(std::string(R"(Host-\d+\[)") + kTime + R"(\] )")))
      << lines[1];
  ASSERT_TRUE(qo::LogMessage::mutex_.try_lock());  // released all the same
  qo::LogMessage::mutex_.unlock();

  // Level 6 silences everything, fatal messages included, but not checks.
  qo::g_log_level = 6;
  LOG(5) << "not thrown " << Evaluated(&count);
  EXPECT_EQ(count, 1);
  EXPECT_THROW(CHECK_EQ(count, 0), std::runtime_error);
  EXPECT_EQ(capture.Lines().size(), 2u);
}

TEST(LoggingTest, FatalMessagesChecksAndStackTraces) {
  LogCapture capture(5);
  std::string text = ErrorText([] { LOG(5) << "Stream Open failed !!!"; });
  std::smatch m;
  ASSERT_TRUE(std::regex_match(
      text, m,
      std::regex(std::string(R"(\[)") + kTime +
                 R"(\] .*logging_test\.cc:\d+: Stream Open failed !!!\nStack trace:\n)"
                 R"(((  \[bt\] \(\d\) .*\n){1,9})\n)")))
      << text;
  std::string frames = m[1];
  std::regex number(R"(  \[bt\] \((\d)\) )");
  int expected = 0;  // numbered from 0, in order
  for (auto it = std::sregex_iterator(frames.begin(), frames.end(), number);
       it != std::sregex_iterator(); ++it) {
    EXPECT_EQ(std::stoi((*it)[1]), expected++);
  }
  EXPECT_TRUE(capture.Lines().empty());  // never reaches the sink

  int i = 3, num_args = 3;
  const std::pair<std::function<void()>, std::string> checks[] = {
      {[&] { CHECK_LT(i, num_args) << "tail"; },
       ": Check failed: i < num_args (3 vs. 3) : tail\nStack trace:\n"},
      {[&] { CHECK(i != num_args) << "key"; }, ": Check failed: i != num_args: key\n"},
      {[&] { CHECK_GE(i, 4); }, ": Check failed: i >= 4 (3 vs. 4) : \n"},
  };
  for (const auto& [check, message] : checks)
    EXPECT_NE(ErrorText(check).find(message), std::string::npos) << message;
  EXPECT_EQ(ErrorText([&] { CHECK_EQ(i, num_args) << "never built"; }), "");
  bool else_taken = false;  // a check inside an if leaves the else to that if
  if (i == 0)
    CHECK_EQ(i, 1);
  else
    else_taken = true;
  EXPECT_TRUE(else_taken);

  EXPECT_EQ(qo::StackTrace(1000, 10), "Stack trace:\n");
  EXPECT_EQ(qo::StackTrace(0, 3).find("  [bt] (3) "), std::string::npos);
  const std::pair<const char*, const char*> demangled[] = {
      {"lib.so(_ZN2qo5ErrorD0Ev+0x1e) [0x1]", "lib.so(qo::Error::~Error()+0x1e) [0x1]"},
      {"prog(_Zbogus+0x1) [0x2]", "prog(_Zbogus+0x1) [0x2]"},
  };
  for (const auto& [in, out] : demangled) EXPECT_EQ(qo::Demangle(in), out);
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
  std::vector<std::string> lines = capture.Lines();
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  std::regex one(R"(Host-\d+\[[^\]]+\] [^ ]+:\d+: T(\d)-(\d+)-([a-h])\3{199}\n)");
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, one)) << line;
    EXPECT_EQ(std::stoi(m[2]), next[std::stoi(m[1])]++);  // each thread's lines in order
  }
}

}  // namespace
