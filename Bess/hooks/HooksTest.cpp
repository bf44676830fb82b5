#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "Bess/Modules/Sink.h"
#include "Bess/Testing/ModuleHarness.h"
#include "Bess/hooks/PcapCapture.h"
#include "Bess/hooks/Track.h"

namespace {

using bess::PacketBatch;
using bess::PacketPtr;
using ::testing::HasSubstr;

class Hooks : public ::testing::Test {
 protected:
  Hooks() {
    char name[] = "/tmp/hooks_test.XXXXXX";
    directory_ = mkdtemp(name);
    file_ = directory_ + "/capture.pcap";
  }
  ~Hooks() override {
    unlink(file_.c_str());
    rmdir(directory_.c_str());
  }

  void show(GateHook& hook, const std::vector<std::string>& packets) {
    PacketBatch batch;
    batch.clear();
    for (const std::string& bytes : packets) {
      batch.add(harness_.packet(bytes).release());
    }
    hook.ProcessBatch(&batch);
    bess::Packet::Free(&batch);
  }

  std::string fileBytes() const {
    std::ifstream in(file_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  static uint32_t word(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof(value));
    return value;
  }

  // The packets of a capture file, after a look at its headers.
  static std::vector<std::string> records(const std::string& bytes) {
    std::vector<std::string> result;
    EXPECT_GE(bytes.size(), 24U);
    EXPECT_EQ(word(bytes, 0), 0xa1b23c4dU);
    EXPECT_EQ(word(bytes, 4), 4U << 16 | 2U);
    EXPECT_EQ(word(bytes, 16), 65535U);
    EXPECT_EQ(word(bytes, 20), 1U);
    for (size_t at = 24; at < bytes.size();) {
      EXPECT_LT(word(bytes, at + 4), 1'000'000'000U);
      uint32_t captured = word(bytes, at + 8);
      EXPECT_EQ(captured, word(bytes, at + 12));
      EXPECT_LE(at + 16 + captured, bytes.size());
      result.push_back(bytes.substr(at + 16, captured));
      at += 16 + captured;
    }
    return result;
  }

  bess::testing::ModuleHarness harness_;
  std::string directory_;
  std::string file_;
};

TEST_F(Hooks, trackCountsPacketsBytesAndBatches) {
  Track track;
  EXPECT_TRUE(track.handlesBatches());
  show(track, {"abc", "defgh"});
  show(track, {"i"});
  EXPECT_EQ(track.stats().packets, 3U);
  EXPECT_EQ(track.stats().bytes, 9U);
  EXPECT_EQ(track.stats().batches, 2U);
}

TEST_F(Hooks, captureWritesEveryPacketInOrder) {
  std::vector<std::string> sent;
  {
    PcapCapture capture(file_);
    for (int i = 0; i < 100; ++i) {
      sent.push_back("packet " + std::to_string(i));
      show(capture, {sent.back()});
    }
    EXPECT_EQ(capture.stats().packets, 100U);
    EXPECT_EQ(capture.stats().batches, 100U);
  }
  EXPECT_EQ(records(fileBytes()), sent);
}

TEST_F(Hooks, captureWritesAllSegments) {
  PacketPtr pkt = harness_.packet("head,");
  rte_pktmbuf_chain(pkt->mbuf(), harness_.packet("middle,").release()->mbuf());
  rte_pktmbuf_chain(pkt->mbuf(), harness_.packet("tail").release()->mbuf());
  {
    PcapCapture capture(file_);
    PacketBatch batch;
    batch.clear();
    batch.add(pkt.get());
    capture.ProcessBatch(&batch);
  }
  EXPECT_EQ(records(fileBytes()), std::vector<std::string>{"head,middle,tail"});
}

TEST_F(Hooks, captureOfNothingIsAFileWithoutRecords) {
  { PcapCapture capture(file_); }
  EXPECT_TRUE(records(fileBytes()).empty());
}

TEST_F(Hooks, captureOverwritesAnOldFile) {
  std::ofstream(file_) << std::string(1000, 'o');
  { PcapCapture capture(file_); }
  EXPECT_EQ(fileBytes().size(), 24U);
}

TEST_F(Hooks, captureRefusesAFileItCannotWrite) {
  auto refusal = [](const std::string& file) -> std::string {
    try {
      PcapCapture capture(file);
    } catch (const std::system_error& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_THAT(refusal(""), HasSubstr("needs the name of its file"));
  EXPECT_THAT(refusal(directory_ + "/none/x"), HasSubstr("No such file or directory"));
  EXPECT_THAT(refusal(directory_), HasSubstr("cannot be written: Is a directory"));
  EXPECT_THAT(refusal("/dev/full"), HasSubstr("No space left"));
}

// Leaves out what its buffer has no room for, and says so: the file is slower than this loop.
TEST_F(Hooks, captureNeverWaitsForItsFile) {
  PacketBatch batch;
  batch.clear();
  for (size_t i = 0; i < PacketBatch::kMaxBurst; ++i) {
    batch.add(harness_.packet(std::string(2000, 'x')).release());
  }
  uint64_t shown = 0;
  GateHookStats stats;
  {
    PcapCapture capture("/dev/null");
    for (int i = 0; i < 1000; ++i) {
      capture.ProcessBatch(&batch);
      shown += PacketBatch::kMaxBurst;
    }
    stats = capture.stats();
    uint64_t missed = shown - stats.packets;
    EXPECT_THAT(capture.state(), HasSubstr("/dev/null, " + std::to_string(missed) + " packets"));
  }
  EXPECT_GT(stats.packets, 0U);
  EXPECT_EQ(stats.bytes, stats.packets * 2000);
  bess::Packet::Free(&batch);
}

TEST_F(Hooks, goOnAnyGateByTheirNames) {
  Sink& first = harness_.create<Sink>("Sink", bess::pb::SinkArg(), "first");
  auto& from = harness_.create<Module>("Source", [] {
    bess::pb::SourceArg arg;
    arg.set_packet("template");
    return arg;
  }());
  ASSERT_FALSE(ModuleGraph::connect(from.name(), 0, first.name(), 0).has_error());
  ModuleGraph::GateRef out{from.name(), true, 0};
  ModuleGraph::GateRef in{first.name(), false, 0};
  ASSERT_FALSE(ModuleGraph::addHook("track", out, "").has_error());
  ASSERT_FALSE(ModuleGraph::addHook("pcap", in, file_).has_error());
  EXPECT_TRUE(ModuleGraph::addHook("pcap", out, directory_).has_error());
  harness_.runTask(from, 0);
  for (const ModuleGraph::HookRef& ref : ModuleGraph::hooks()) {
    EXPECT_EQ(ref.hook->stats().packets, 32U) << ref.hook->name();
  }
  ASSERT_FALSE(ModuleGraph::removeHook("pcap", in).has_error());
  EXPECT_EQ(records(fileBytes()), std::vector<std::string>(32, "template"));
}

}  // namespace
