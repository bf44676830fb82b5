// Metrics: what may be in a scrape, what modules may offer, and the HTTP server in front of it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <prometheus/text_serializer.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>
#include <urcu-qsbr.h>

#include <future>
#include <thread>

#include "Base/RcuCallbacks.h"
#include "Bess/ControlThread.h"
#include "bessd/FrameworkMetrics.h"
#include "bessd/MetricFamilies.h"
#include "bessd/MetricsServer.h"
#include "bessd/StateMetrics.h"

namespace Bessd {
namespace {

std::string textOf(MetricFamilies& families) {
  return prometheus::TextSerializer().Serialize(families.take());
}

TEST(MetricFamilies, mergeSamplesOfOneName) {
  MetricFamilies families;
  EXPECT_TRUE(families.counter({"a_total", "help"}, {{"k", "1"}}, 5));
  EXPECT_TRUE(families.gauge({"b", "other"}, {}, 0.5));
  EXPECT_TRUE(families.counter({"a_total", "another help"}, {{"k", "2"}}, 7));
  EXPECT_EQ(textOf(families),
            "# HELP a_total help\n# TYPE a_total counter\na_total{k=\"1\"} 5\na_total{k=\"2\"} 7\n"
            "# HELP b other\n# TYPE b gauge\nb 0.5\n");
  EXPECT_EQ(textOf(families), "");
}

TEST(MetricFamilies, refuseWhatWouldSpoilTheScrape) {
  MetricFamilies families;
  ASSERT_TRUE(families.counter({"good", "h"}, {{"a", "1"}, {"b", "2"}}, 1));
  EXPECT_FALSE(families.counter({"good", "h"}, {{"b", "2"}, {"a", "1"}}, 2)) << "twice";
  EXPECT_FALSE(families.gauge({"good", "h"}, {}, 2)) << "two types";
  for (const char* name : {"", "1a", "a-b", "a b", "\xc3\xa4"}) {
    EXPECT_FALSE(families.gauge({name, "h"}, {}, 1)) << name;
  }
  for (const char* label : {"", "1a", "a-b", "__a", "a:b"}) {
    EXPECT_FALSE(families.gauge({"g", "h"}, {{label, "v"}}, 1)) << label;
  }
  EXPECT_FALSE(families.gauge({"g", "h"}, {{"a", "1"}, {"a", "2"}}, 1)) << "a label twice";
  EXPECT_EQ(textOf(families), "# HELP good h\n# TYPE good counter\ngood{a=\"1\",b=\"2\"} 1\n");
}

TEST(MetricFamilies, writeHistogramsAsSums) {
  MetricFamilies families;
  EXPECT_TRUE(families.histogram({"h", "help"}, {}, {{1, 2}, {2, 0}, {4, 3}}, 12));
  EXPECT_EQ(textOf(families),
            "# HELP h help\n# TYPE h histogram\nh_count 5\nh_sum 12\nh_bucket{le=\"1\"} 2\n"
            "h_bucket{le=\"2\"} 2\nh_bucket{le=\"4\"} 5\nh_bucket{le=\"+Inf\"} 5\n");
}

TEST(PrintableUtf8, keepsTextAndMarksTheRest) {
  EXPECT_EQ(printableUtf8("a \xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80"),
            "a \xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_EQ(printableUtf8("\xff \xc3 \xc0\x80 \xed\xa0\x80 \n\x7f"), "? ? ?? ??? ??");
}

struct Retired {
  rcu_head head{};
};

void retire(Retired* retired) {
  RcuCallbacks::queued();
  urcu_qsbr_call_rcu(&retired->head, [](rcu_head* head) {
    delete caa_container_of(head, Retired, head);
    RcuCallbacks::ran();
  });
}

std::string frameworkText() {
  MetricFamilies families;
  addFrameworkMetrics(EventCounters(), &families);
  return textOf(families);
}

// RCU's thread stays for the other tests: signals are for their threads.
void startReclaimer() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  urcu_qsbr_get_default_call_rcu_data();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(FrameworkMetrics, showFreesThatWaitForAReader) {
  startReclaimer();
  urcu_qsbr_register_thread();  // the reader: it may still look at what is retired
  retire(new Retired);
  retire(new Retired);
  const std::string waiting = frameworkText();
  EXPECT_NE(waiting.find("\nbessd_rcu_callbacks_waiting 2\n"), std::string::npos) << waiting;
  EXPECT_NE(waiting.find("\nbessd_rcu_callbacks_queued_total 2\n"), std::string::npos) << waiting;
  EXPECT_NE(waiting.find("\nbessd_rcu_callbacks_run_total 0\n"), std::string::npos) << waiting;
  urcu_qsbr_barrier();
  const std::string done = frameworkText();
  EXPECT_NE(done.find("\nbessd_rcu_callbacks_waiting 0\n"), std::string::npos) << done;
  EXPECT_NE(done.find("\nbessd_rcu_callbacks_run_total 2\n"), std::string::npos) << done;
  urcu_qsbr_unregister_thread();
}

constexpr const char* kHeader = "type\tname\thelp\tlabels\tvalue\n";

TEST(StateMetrics, areReadByTheNamesOfTheirColumns) {
  MetricFamilies families;
  const auto result =
      addStateMetrics("m",
                      "value\tmore\tname\ttype\thelp\tlabels\n"
                      "3\tx\ta_total\tcounter\tHelp\tvrf=\"a,b=\\\"c\\\\\",k=\"\",plain=1\n"
                      "0.25\tx\tg\tgauge\tHelp\t\n",
                      &families);
  EXPECT_EQ(result.taken, 2u);
  EXPECT_EQ(result.refused, 0u) << result.firstRefused;
  EXPECT_EQ(textOf(families),
            "# HELP a_total Help\n# TYPE a_total counter\n"
            "a_total{k=\"\",module=\"m\",plain=\"1\",vrf=\"a,b=\\\"c\\\\\"} 3\n"
            "# HELP g Help\n# TYPE g gauge\ng{module=\"m\"} 0.25\n");
}

TEST(StateMetrics, leaveOutLinesThatAreNone) {
  MetricFamilies families;
  const auto result = addStateMetrics(
      "m",
      std::string(kHeader) + "counter\tgood\th\t\t1\n" + "counter\tbad-name\th\t\t1\n" +
          "counter\tshort\n" + "counter\tminus\th\t\t-1\n" + "summary\ts\th\t\t1\n" +
          "gauge\tg\th\tnolabel\t1\n" + "gauge\tg\th\ta=\"open\t1\n" +
          "gauge\tg\th\ta=\"1\"b=\"2\"\t1\n" + "gauge\tg\th\t\tx1\n" + "gauge\tg\th\t\tnan\n" +
          "gauge\tg\th\t\t\n" + "gauge\tg\th\tmodule=other\t1\n",
      &families);
  EXPECT_EQ(result.taken, 1u);
  EXPECT_EQ(result.refused, 11u);
  EXPECT_EQ(result.firstRefused, "counter?bad-name?h??1");
  EXPECT_EQ(textOf(families), "# HELP good h\n# TYPE good counter\ngood{module=\"m\"} 1\n");
}

TEST(StateMetrics, refuseATableOfOtherColumns) {
  MetricFamilies families;
  EXPECT_EQ(addStateMetrics("m", "a\tb\n1\t2\n", &families).refused, 1u);
  EXPECT_EQ(addStateMetrics("m", "", &families).refused, 1u);
  EXPECT_EQ(addStateMetrics("m", kHeader, &families).refused, 0u);
}

class MetricsServerTest : public testing::Test {
 protected:
  MetricsServerTest()
      : server_("127.0.0.1:0", control_, [this](MetricFamilies* families) {
          EXPECT_TRUE(control_.onThread());
          families->gauge({"answer", "h"}, {{"big", std::string(size_, 'x')}}, ++scrapes_);
        }) {}

  int open(const std::string& request) const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server_.port()));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    return fd;
  }

  std::string get(const std::string& path) const {
    const int fd = open("GET " + path + " HTTP/1.0\r\n\r\n");
    std::string answer;
    char buffer[4096];
    for (ssize_t n = 0; (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;) {
      answer.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return answer;
  }

  ControlThread control_;
  std::atomic<int> scrapes_{0};
  std::atomic<size_t> size_{1};
  MetricsServer server_;
};

TEST_F(MetricsServerTest, gathersOncePerScrape) {
  EXPECT_NE(get("/metrics").find("answer{big=\"x\"} 1\n"), std::string::npos);
  EXPECT_NE(get("/metrics").find("answer{big=\"x\"} 2\n"), std::string::npos);
}

TEST_F(MetricsServerTest, showsNothingElse) {
  for (const char* path : {"/", "/etc/passwd", "/../../etc/passwd", "//etc/passwd"}) {
    const std::string answer = get(path);
    EXPECT_EQ(answer.find("root:"), std::string::npos) << path;
    EXPECT_EQ(answer.find(" 200 "), std::string::npos) << path << answer;
  }
  EXPECT_EQ(scrapes_, 0);
}

TEST_F(MetricsServerTest, isNotHeldUpByASlowScraper) {
  size_ = 32 << 20;  // more than the kernel keeps for a socket
  std::vector<int> slow;
  for (int i = 0; i < MetricsServer::kThreads - 1; ++i) {
    slow.push_back(open("GET /metrics HTTP/1.0\r\n\r\n"));
  }
  slow.push_back(open("GET /met"));
  while (scrapes_ < MetricsServer::kThreads - 1) {
    std::this_thread::yield();
  }
  size_ = 1;
  // The daemon goes on.
  EXPECT_EQ(control_.call([] { return 7; }), 7);
  for (const int fd : slow) {
    close(fd);
  }
  EXPECT_NE(get("/metrics").find("answer{"), std::string::npos);
}

TEST_F(MetricsServerTest, saysWhenItCannotListen) {
  const std::string taken = "127.0.0.1:" + std::to_string(server_.port());
  try {
    const MetricsServer second(taken, control_, [](MetricFamilies*) {});
    FAIL() << "two servers on " << taken;
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(taken), std::string::npos) << error.what();
  }
}

TEST_F(MetricsServerTest, answersWithoutMetricsOnceTheControlThreadHasEnded) {
  control_.stop();
  EXPECT_EQ(get("/metrics").find("answer"), std::string::npos);
}

}  // namespace
}  // namespace Bessd
