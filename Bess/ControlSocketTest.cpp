#include "Bess/ControlSocket.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "Bess/ControlTestFixture.h"

namespace bess {
namespace {

// A socket bound to a path; it listens until it goes, and its file stays.
class Listener {
 public:
  explicit Listener(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(listen(fd_, 1), 0);
  }
  ~Listener() { close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  int fd_;
};

template <class Call>
std::string complaint(Call&& call) {
  try {
    call();
  } catch (const ControlSocketError& error) {
    return error.what();
  }
  return "";
}

mode_t modeOf(const std::string& path) {
  struct stat found {};
  return lstat(path.c_str(), &found) == 0 ? found.st_mode : 0;
}

TEST(ListenAddress, takesLoopbackAddressesWithoutTls) {
  EXPECT_EQ(listenAddress("127.0.0.1:10514", false), "127.0.0.1:10514");
  EXPECT_EQ(listenAddress("127.8.0.1:0", false), "127.8.0.1:0");
  EXPECT_EQ(listenAddress("[::1]:10514", false), "[::1]:10514");
  EXPECT_EQ(listenAddress("localhost:10514", false), "127.0.0.1:10514");
}

TEST(ListenAddress, refusesEveryOtherAddressWithItsReason) {
  for (const char* text : {"0.0.0.0:10514", "192.0.2.1:10514", "[::]:10514", "[2001:db8::1]:10514",
                           "example.net:10514", "[::ffff:192.0.2.1]:1"}) {
    EXPECT_NE(complaint([&] { listenAddress(text, false); }).find("without TLS"), std::string::npos)
        << text;
  }
}

TEST(ListenAddress, takesEveryAddressWithTls) {
  for (const char* text : {"0.0.0.0:10514", "192.0.2.1:10514", "[::]:10514", "127.0.0.1:1"}) {
    EXPECT_EQ(listenAddress(text, true), text);
  }
  EXPECT_NE(complaint([] { listenAddress("example.net:1", true); }).find("IP address"),
            std::string::npos);
}

TEST(ListenAddress, refusesWhatIsNoHostAndPort) {
  for (const char* text : {"", "127.0.0.1", "127.0.0.1:", ":10514", "127.0.0.1:65536",
                           "127.0.0.1:-1", "127.0.0.1:1x"}) {
    EXPECT_NE(complaint([&] { listenAddress(text, false); }).find("HOST:PORT"), std::string::npos)
        << text;
  }
}

TEST(ControlSocket, isItsOwnersAloneInADirectoryThatItMakes) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("a/b/s.sock");
  {
    ControlSocket socket(path);
    const Listener listener(socket.bindPath());
    socket.publish();
    EXPECT_EQ(modeOf(path), S_IFSOCK | S_IRUSR | S_IWUSR);
    const std::filesystem::directory_iterator entries(directory.file("a/b"));
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory.file("a/b")));
}

TEST(ControlSocket, isItsGroupsToo) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root may give a file to any group";
  }
  const TemporaryDirectory directory;
  const std::string path = directory.file("s.sock");
  const group* other = getgrnam("daemon");
  ASSERT_NE(other, nullptr);
  ControlSocket socket(path, "daemon");
  const Listener listener(socket.bindPath());
  // Until it is whole it is in a directory of its owner.
  const std::string place = std::filesystem::path(socket.bindPath()).parent_path();
  EXPECT_EQ(modeOf(place), mode_t{S_IFDIR | S_IRWXU});
  socket.publish();
  EXPECT_EQ(modeOf(path), mode_t{S_IFSOCK | S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP});
  struct stat found {};
  ASSERT_EQ(lstat(path.c_str(), &found), 0);
  EXPECT_EQ(found.st_gid, other->gr_gid);
}

TEST(ControlSocket, refusesAGroupThatIsNotThere) {
  const TemporaryDirectory directory;
  const std::string said =
      complaint([&] { ControlSocket(directory.file("s.sock"), "no-such-group"); });
  EXPECT_NE(said.find("no group 'no-such-group'"), std::string::npos) << said;
  EXPECT_EQ(directory.entries(), 0u);
}

TEST(ControlSocket, replacesTheSocketOfADeadProcess) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("s.sock");
  { const Listener dead(path); }
  ControlSocket socket(path);
  const Listener listener(socket.bindPath());
  socket.publish();
  EXPECT_EQ(modeOf(path), S_IFSOCK | S_IRUSR | S_IWUSR);
}

TEST(ControlSocket, leavesALiveProcessItsSocket) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("s.sock");
  const Listener live(path);
  {
    ControlSocket socket(path);
    const Listener listener(socket.bindPath());
    const std::string said = complaint([&] { socket.publish(); });
    EXPECT_NE(said.find("another daemon answers on " + path), std::string::npos) << said;
  }
  EXPECT_TRUE(S_ISSOCK(modeOf(path)));
  EXPECT_EQ(directory.entries(), 1u);
}

TEST(ControlSocket, leavesAFileThatIsNoSocket) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("s.sock");
  std::ofstream(path) << "precious";
  ControlSocket socket(path);
  const Listener listener(socket.bindPath());
  EXPECT_NE(complaint([&] { socket.publish(); }).find("is not a socket"), std::string::npos);
  EXPECT_TRUE(S_ISREG(modeOf(path)));
}

TEST(ControlSocket, leavesTheSocketOfItsSuccessor) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("s.sock");
  std::unique_ptr<Listener> successor;
  {
    ControlSocket socket(path);
    const Listener listener(socket.bindPath());
    socket.publish();
    unlink(path.c_str());
    successor = std::make_unique<Listener>(path);
  }
  EXPECT_TRUE(S_ISSOCK(modeOf(path)));
}

TEST(ControlSocket, refusesPathsThatNoAddressHolds) {
  const TemporaryDirectory directory;
  EXPECT_NE(
      complaint([&] { ControlSocket(directory.file(std::string(200, 'x'))); }).find("too long"),
      std::string::npos);
  EXPECT_NE(complaint([] { ControlSocket(""); }).find("empty"), std::string::npos);
  EXPECT_EQ(directory.entries(), 0u);
}

TEST(ControlSocket, saysWhyADirectoryCannotBeMade) {
  const std::string said = complaint([] { ControlSocket("/dev/null/x/s.sock"); });
  EXPECT_NE(said.find("/dev/null/x"), std::string::npos) << said;
}

}  // namespace
}  // namespace bess
