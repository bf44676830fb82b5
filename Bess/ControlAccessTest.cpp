// Who may call what: on the read-only socket and with certificates over TCP.
#include "Bess/ControlAccess.h"

#include <fcntl.h>
#include <grp.h>
#include <grpcpp/create_channel_posix.h>
#include <grpcpp/generic/generic_stub.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "Bess/ControlTestFixture.h"
#include "Bess/LogLimit.h"

namespace bess {
namespace {

class ControlAccessTest : public ControlTest {
 protected:
  // The status of a call with an empty request, whatever kind of call it is.
  static grpc::StatusCode codeOf(const std::shared_ptr<grpc::Channel>& channel,
                                 const std::string& method) {
    grpc::GenericStub stub(channel);
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
    grpc::CompletionQueue queue;
    auto stream = stub.PrepareCall(&context, "/bess.pb.BESSControl/" + method, &queue);
    void* tag = nullptr;
    bool ok = false;
    stream->StartCall(nullptr);
    queue.Next(&tag, &ok);
    grpc::Status status;
    const grpc::ByteBuffer empty(nullptr, 0);
    if (ok) {
      stream->WriteLast(empty, {}, nullptr);
      queue.Next(&tag, &ok);
    }
    // Every answer until there is none.
    for (ok = true; ok;) {
      grpc::ByteBuffer answer;
      stream->Read(&answer, nullptr);
      queue.Next(&tag, &ok);
    }
    stream->Finish(&status, nullptr);
    queue.Next(&tag, &ok);
    return status.error_code();
  }

  // A client whose own end of the connection is bound to a path of its choice.
  static int connectedFrom(const std::string& own, const std::string& to) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto addressOf = [](const std::string& path) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::memcpy(address.sun_path, path.c_str(), path.size());
      return address;
    };
    const sockaddr_un mine = addressOf(own);
    const sockaddr_un theirs = addressOf(to);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&mine), sizeof(mine)), 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&theirs), sizeof(theirs)), 0);
    EXPECT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
    return fd;
  }

  std::shared_ptr<grpc::Channel> readChannel() const {
    return grpc::CreateChannel("unix:" + readSocket_, grpc::InsecureChannelCredentials());
  }
};

TEST_F(ControlAccessTest, refusesEveryCallThatIsNoReadOnTheReadSocket) {
  const std::set<std::string> reads = {
      "GetVersion",        "ListWorkers",    "ListPorts",   "GetPortStats", "GetModule",
      "ListModuleClasses", "GetModuleClass", "ListModules", "ListHooks",    "ListConnections",
      "ListTasks",         "ListPlugins",    "GetStats",    "GetCounters",  "ListStates",
      "GetState",          "GetSettings"};
  const auto* service = pb::EmptyRequest::descriptor()->file()->FindServiceByName("BESSControl");
  ASSERT_NE(service, nullptr);
  const auto channel = readChannel();
  size_t seen = 0;
  for (int i = 0; i < service->method_count(); ++i) {
    const std::string& name = service->method(i)->name();
    const bool read = reads.contains(name);
    seen += read ? 1 : 0;
    const grpc::StatusCode code = codeOf(channel, name);
    EXPECT_EQ(code == grpc::StatusCode::PERMISSION_DENIED, !read) << name << " " << code;
  }
  EXPECT_EQ(seen, reads.size());
  EXPECT_EQ(shutdowns_, 0);
  expectAlive(0);
}

TEST_F(ControlAccessTest, answersReadsOnTheReadSocketAndSaysWhyItRefuses) {
  const auto stub = pb::BESSControl::NewStub(readChannel());
  {
    grpc::ClientContext context;
    pb::VersionResponse version;
    EXPECT_TRUE(stub->GetVersion(&context, {}, &version).ok());
    EXPECT_EQ(version.version(), "1.2.3");
  }
  grpc::ClientContext context;
  pb::CreateModuleRequest request;
  request.set_class_name("Sink");
  pb::CreateModuleResponse response;
  const grpc::Status status = stub->CreateModule(&context, request, &response);
  EXPECT_EQ(status.error_code(), grpc::StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(status.error_message(),
            "CreateModule changes the daemon, and this client may only read");
  expectAlive(0);
  // The other socket still takes it.
  EXPECT_FALSE(call(&Stub::CreateModule, request).has_error());
}

TEST_F(ControlAccessTest, isNotFooledByTheAddressOfAClient) {
  std::filesystem::create_directory(directory_.file("mine"));
  const int fd = connectedFrom(directory_.file("mine/s"), readSocket_);
  const auto channel = grpc::CreateInsecureChannelFromFd("localhost", fd);
  EXPECT_EQ(codeOf(channel, "GetVersion"), grpc::StatusCode::OK);
  EXPECT_EQ(codeOf(channel, "PauseAll"), grpc::StatusCode::PERMISSION_DENIED);
}

TEST_F(ControlAccessTest, takesBothSocketsAway) {
  struct stat found {};
  EXPECT_EQ(lstat(readSocket_.c_str(), &found), 0);
  EXPECT_EQ(found.st_mode, mode_t{S_IFSOCK | S_IRUSR | S_IWUSR});
  server_.reset();
  EXPECT_TRUE(std::filesystem::is_empty(directory_.file("run")));
}

TEST(LogLimit, letsAFewLinesThroughEachSecondAndCountsTheRest) {
  LogLimit limit;
  const auto start = LogLimit::Clock::now();
  uint64_t dropped = 0;
  for (unsigned i = 0; i < LogLimit::kPerSecond; ++i) {
    EXPECT_TRUE(limit.admit(&dropped, start));
    EXPECT_EQ(dropped, 0u);
  }
  EXPECT_FALSE(limit.admit(&dropped, start));
  EXPECT_FALSE(limit.admit(&dropped, start + std::chrono::milliseconds(999)));
  EXPECT_TRUE(limit.admit(&dropped, start + std::chrono::seconds(1)));
  EXPECT_EQ(dropped, 2u);
  EXPECT_TRUE(limit.admit(&dropped, start + std::chrono::seconds(1)));
  EXPECT_EQ(dropped, 0u);
}

// A little authority made with the openssl program.
class Certificates {
 public:
  explicit Certificates(const TemporaryDirectory& directory) : directory_(directory) {
    authority("ca");
    authority("other");
    signedBy("ca", "server", "/CN=server", "IP:127.0.0.1");
    signedBy("ca", "admin", "/CN=admin", "DNS:admin.example");
    signedBy("ca", "watcher", "/CN=someone", "DNS:watcher.example");
    signedBy("other", "stranger", "/CN=admin", "DNS:admin.example");
    signedBy("other", "next", "/CN=server", "IP:127.0.0.1");
  }

  // Puts another certificate, its key and the authority of its clients in the place of those.
  void replace(const std::string& name, const std::string& by, const std::string& ca) const {
    for (const auto& [from, to] : {std::pair(cert(by), cert(name)), std::pair(key(by), key(name)),
                                   std::pair(cert(ca), cert(name + "-clients"))}) {
      std::filesystem::copy_file(from, to + ".new",
                                 std::filesystem::copy_options::overwrite_existing);
      std::filesystem::rename(to + ".new", to);
    }
  }

  std::string cert(const std::string& name) const { return directory_.file(name + ".pem"); }
  std::string key(const std::string& name) const { return directory_.file(name + ".key"); }

 private:
  void authority(const std::string& name) const {
    run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=" +
        name + " -keyout " + key(name) + " -out " + cert(name));
  }
  void signedBy(const std::string& authority,
                const std::string& name,
                const std::string& subject,
                const std::string& alternative) const {
    const std::string request = directory_.file(name + ".csr");
    const std::string extension = directory_.file(name + ".ext");
    std::ofstream(extension) << "subjectAltName=" << alternative << "\n";
    run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj " + subject +
        " -keyout " + key(name) + " -out " + request);
    run("openssl x509 -req -days 2 -CAcreateserial -in " + request + " -CA " + cert(authority) +
        " -CAkey " + key(authority) + " -extfile " + extension + " -out " + cert(name));
  }
  static void run(const std::string& command) {
    ASSERT_EQ(std::system((command + " 2>/dev/null").c_str()), 0) << command;
  }

  const TemporaryDirectory& directory_;
};

class ControlTlsTest : public ControlAccessTest {
 protected:
  ControlTlsTest() : certificates_(directory_) {
    ControlExtensions extensions;
    extensions.readOnlyNames = {"watcher.example"};
    tlsService_ = std::make_unique<ControlService>(control_, extensions);
    tlsServer_ = std::make_unique<ControlServer>(tlsService_.get(), tlsOptions());
  }

  ControlServerOptions tlsOptions() const {
    ControlServerOptions options;
    options.socket = directory_.file("tls.sock");
    options.listen = "127.0.0.1:0";
    options.tls = {.cert = certificates_.cert("server"),
                   .key = certificates_.key("server"),
                   .ca = certificates_.cert("ca")};
    return options;
  }

  static std::string read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  // Over TCP, with a certificate; none when the name is empty.
  std::shared_ptr<grpc::Channel> as(const std::string& name, const std::string& ca = "ca") const {
    return asOn(*tlsServer_, name, ca);
  }
  std::shared_ptr<grpc::Channel> asOn(const ControlServer& server,
                                      const std::string& name,
                                      const std::string& ca) const {
    grpc::SslCredentialsOptions options;
    options.pem_root_certs = read(certificates_.cert(ca));
    if (!name.empty()) {
      options.pem_private_key = read(certificates_.key(name));
      options.pem_cert_chain = read(certificates_.cert(name));
    }
    return grpc::CreateChannel("127.0.0.1:" + std::to_string(server.tcpPort()),
                               grpc::SslCredentials(options));
  }

  Certificates certificates_;
  std::unique_ptr<ControlService> tlsService_;
  std::unique_ptr<ControlServer> tlsServer_;
};

TEST_F(ControlTlsTest, takesClientsOfItsAuthorityAlone) {
  EXPECT_EQ(codeOf(as("admin"), "GetVersion"), grpc::StatusCode::OK);
  EXPECT_EQ(codeOf(as("admin"), "PauseAll"), grpc::StatusCode::OK);
  EXPECT_EQ(codeOf(as("admin"), "ResumeAll"), grpc::StatusCode::OK);
  testing::internal::CaptureStderr();
  EXPECT_EQ(codeOf(as(""), "GetVersion"), grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(codeOf(as("stranger"), "GetVersion"), grpc::StatusCode::UNAVAILABLE);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("peer did not return a certificate"), std::string::npos) << log;
  EXPECT_NE(log.find("certificate verify failed"), std::string::npos) << log;
  const auto plain = grpc::CreateChannel("127.0.0.1:" + std::to_string(tlsServer_->tcpPort()),
                                         grpc::InsecureChannelCredentials());
  EXPECT_EQ(codeOf(plain, "GetVersion"), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(ControlTlsTest, letsTheNamedCertificatesOnlyRead) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(codeOf(as("watcher"), "GetVersion"), grpc::StatusCode::OK);
  EXPECT_EQ(codeOf(as("watcher"), "PauseAll"), grpc::StatusCode::PERMISSION_DENIED);
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("refused PauseAll to ipv4:127.0.0.1:"), std::string::npos) << log;
  EXPECT_NE(log.find("watcher.example someone"), std::string::npos) << log;
}

TEST_F(ControlTlsTest, takesReplacedFilesForNewConnectionsAndKeepsTheOldOnes) {
  certificates_.replace("changing", "server", "ca");
  ControlServerOptions options = tlsOptions();
  options.socket = directory_.file("changing.sock");
  options.tls = {.cert = certificates_.cert("changing"),
                 .key = certificates_.key("changing"),
                 .ca = certificates_.cert("changing-clients"),
                 .refreshSeconds = 1};
  ControlService service(control_, {});
  const ControlServer server(&service, options);
  const auto before = asOn(server, "admin", "ca");
  ASSERT_EQ(codeOf(before, "GetVersion"), grpc::StatusCode::OK);
  ASSERT_EQ(codeOf(asOn(server, "stranger", "other"), "GetVersion"), grpc::StatusCode::UNAVAILABLE);

  certificates_.replace("changing", "next", "other");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  grpc::StatusCode after = grpc::StatusCode::UNAVAILABLE;
  while (after != grpc::StatusCode::OK && std::chrono::steady_clock::now() < deadline) {
    ASSERT_EQ(codeOf(before, "GetVersion"), grpc::StatusCode::OK);
    after = codeOf(asOn(server, "stranger", "other"), "GetVersion");
  }
  EXPECT_EQ(after, grpc::StatusCode::OK);
  EXPECT_EQ(codeOf(before, "GetVersion"), grpc::StatusCode::OK);
  EXPECT_EQ(before->GetState(false), GRPC_CHANNEL_READY);
  EXPECT_EQ(codeOf(asOn(server, "admin", "ca"), "GetVersion"), grpc::StatusCode::UNAVAILABLE);
}

TEST_F(ControlTlsTest, saysWhichFileIsWrong) {
  const auto complaint = [this](TlsFiles files) -> std::string {
    try {
      tlsCredentials(files);
    } catch (const ControlSocketError& error) {
      return error.what();
    }
    return "";
  };
  const TlsFiles good = tlsOptions().tls;
  EXPECT_EQ(complaint(good), "");
  TlsFiles wrong = good;
  wrong.cert = directory_.file("missing.pem");
  EXPECT_NE(complaint(wrong).find(wrong.cert + ": No such file"), std::string::npos);
  wrong = good;
  wrong.cert = wrong.key;
  EXPECT_NE(complaint(wrong).find(wrong.cert + " holds no certificate"), std::string::npos);
  wrong = good;
  wrong.key = certificates_.key("admin");
  EXPECT_NE(complaint(wrong).find(wrong.key + " holds no private key of"), std::string::npos);
  wrong = good;
  wrong.ca = certificates_.key("ca");
  EXPECT_NE(complaint(wrong).find(wrong.ca + " holds no certificate of"), std::string::npos);
  wrong = good;
  wrong.ca = "";
  EXPECT_NE(complaint(wrong).find("needs"), std::string::npos);
  std::filesystem::permissions(good.key, std::filesystem::perms::others_read,
                               std::filesystem::perm_options::add);
  EXPECT_NE(complaint(good).find("chmod o= " + good.key), std::string::npos) << complaint(good);
}

}  // namespace
}  // namespace bess
