// qo-rtsp-server through its test helper: stream arguments, and the fault
// controls seen from a plain RTSP client socket.
#include "rtsp_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "test_rtsp_server.h"

namespace qo {
namespace test {
namespace {

using tools::RtspCodec;
using tools::RtspStreamSpec;

TEST(RtspStreamSpecTest, ParsesStreamArguments) {
  RtspStreamSpec s;
  std::string err;
  ASSERT_TRUE(RtspStreamSpec::Parse("cam=h265,size=1920x1080,fps=25,key-int=50", &s, &err)) << err;
  EXPECT_EQ(s.mount, "/cam");
  EXPECT_EQ(s.codec, RtspCodec::kH265);
  EXPECT_EQ(s.width, 1920);
  EXPECT_EQ(s.height, 1080);
  EXPECT_EQ(s.fps, 25);
  EXPECT_EQ(s.key_int, 50);
  ASSERT_TRUE(RtspStreamSpec::Parse("/clip=mjpeg,file=/tmp/a b.mjpeg", &s, &err)) << err;
  EXPECT_EQ(s.mount, "/clip");
  EXPECT_EQ(s.codec, RtspCodec::kMjpeg);
  EXPECT_EQ(s.file, "/tmp/a b.mjpeg");
  EXPECT_EQ(s.width, 320);  // defaults stay
  for (const char* bad : {"h264", "=h264", "x=vp8", "x=h264,size=12", "x=h264,fps=0",
                          "x=h264,fps=-3", "x=h264,file=", "x=h264,colour=red"}) {
    EXPECT_FALSE(RtspStreamSpec::Parse(bad, &s, &err)) << bad;
  }
}

// A minimal RTSP client: connect, and ask OPTIONS.
class RawClient {
 public:
  explicit RawClient(int port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
    connect_errno_ = connected_ ? 0 : errno;
  }
  ~RawClient() { close(fd_); }
  bool connected() const { return connected_; }
  int connect_errno() const { return connect_errno_; }

  // Sends OPTIONS; true when a "RTSP/1.0 200" reply arrives within timeout.
  bool Options(int timeout_ms) {
    std::string req = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    if (send(fd_, req.data(), req.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(req.size()))
      return false;
    return Read(timeout_ms).rfind("RTSP/1.0 200", 0) == 0;
  }
  // What arrives within timeout; "" on timeout, "<eof>" when closed.
  std::string Read(int timeout_ms) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return "";
    char buf[1024];
    ssize_t n = recv(fd_, buf, sizeof(buf), 0);
    if (n <= 0) return "<eof>";
    return std::string(buf, static_cast<size_t>(n));
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  int connect_errno_ = 0;
};

class RtspServerFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TestRtspServer::Options opts;
    opts.streams = {"h264=h264"};
    server_ = std::make_unique<TestRtspServer>(opts);
    ASSERT_TRUE(server_->Start()) << server_->error();
    ASSERT_GT(server_->port(), 0);
  }
  std::unique_ptr<TestRtspServer> server_;
};

TEST_F(RtspServerFaultTest, RefuseAndAcceptAgainOnTheSamePort) {
  int port = server_->port();
  ASSERT_TRUE(server_->Refuse());
  RawClient refused(port);
  EXPECT_FALSE(refused.connected());
  EXPECT_EQ(refused.connect_errno(), ECONNREFUSED);
  ASSERT_TRUE(server_->Accept());
  EXPECT_EQ(server_->port(), port);
  RawClient ok(port);
  ASSERT_TRUE(ok.connected());
  EXPECT_TRUE(ok.Options(5000));
}

TEST_F(RtspServerFaultTest, DropClosesConnectedClients) {
  RawClient c(server_->port());
  ASSERT_TRUE(c.connected());
  ASSERT_TRUE(c.Options(5000));
  EXPECT_EQ(server_->ClientCount(), 1);
  ASSERT_TRUE(server_->Drop());
  EXPECT_EQ(c.Read(5000), "<eof>");
  EXPECT_EQ(server_->ClientCount(), 0);
  RawClient again(server_->port());  // still listening
  EXPECT_TRUE(again.Options(5000));
}

TEST_F(RtspServerFaultTest, FrozenServerAcceptsButNeverAnswers) {
  server_->Freeze();
  RawClient c(server_->port());
  ASSERT_TRUE(c.connected());  // the kernel completes the handshake
  EXPECT_FALSE(c.Options(300));
  server_->Thaw();
  EXPECT_NE(c.Read(5000), "");  // the pending request is answered now
}

TEST_F(RtspServerFaultTest, RestartServesOnTheSamePort) {
  int port = server_->port();
  server_->Kill();
  EXPECT_FALSE(RawClient(port).connected());
  ASSERT_TRUE(server_->Restart()) << server_->error();
  EXPECT_EQ(server_->port(), port);
  RawClient c(port);
  EXPECT_TRUE(c.Options(5000));
  server_->Stop();  // a clean quit
  EXPECT_FALSE(server_->running());
}

}  // namespace
}  // namespace test
}  // namespace qo
