#define FUSE_USE_VERSION 26

#include "SfeModules/Fuse.h"

#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <urcu-qsbr.h>

#include <array>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Base/Gemlog/Gemlog.h"

namespace {

// Speaks to the callbacks as FUSE does, from this thread.
class FuseTest : public testing::Test {
 protected:
  ~FuseTest() override {
    for (const std::string& name : names_) {
      fuseDeRegister(name);
    }
    fuseUpdateBufferSize(0);
  }

  void addFile(const std::string& name, std::function<std::string()> generator) {
    names_.push_back(name);
    fuseRegister(name, std::move(generator));
  }
  void addFile(const std::string& name, const std::string& text) {
    addFile(name, [text] { return text; });
  }

  // Returns: what read() returns, with the text in text_.
  int read(const std::string& name, size_t size, off_t offset) {
    std::string buffer(size, '?');
    fuse_file_info info{};
    const int result = fuseOperations().read(name.c_str(), buffer.data(), size, offset, &info);
    text_ = buffer.substr(0, result > 0 ? static_cast<size_t>(result) : 0);
    return result;
  }

  int open(const std::string& name, int flags) {
    info_ = {};
    info_.flags = flags;
    return fuseOperations().open(name.c_str(), &info_);
  }

  int getattr(const std::string& name) {
    return fuseOperations().getattr(name.c_str(), &attributes_);
  }

  std::vector<std::string> list(const std::string& directory, int expectedResult = 0) {
    std::vector<std::string> entries;
    const auto filler = [](void* into, const char* name, const struct stat* attributes,
                           off_t next) {
      EXPECT_EQ(nullptr, attributes);
      EXPECT_EQ(0, next);
      static_cast<std::vector<std::string>*>(into)->emplace_back(name);
      return 1;  // ignored
    };
    fuse_file_info info{};
    EXPECT_EQ(expectedResult,
              fuseOperations().readdir(directory.c_str(), &entries, filler, 0, &info));
    return entries;
  }

  std::vector<std::string> names_;
  std::string text_;
  fuse_file_info info_{};
  struct stat attributes_ {};
};

using Names = std::vector<std::string>;

TEST_F(FuseTest, listsOnlyTheDotsWhenNothingIsRegistered) {
  EXPECT_EQ((Names{".", ".."}), list("/"));
}

TEST_F(FuseTest, listsFilesInOrderWithoutTheirSlash) {
  addFile("/b", "");
  addFile("/Mroute4_default", "");
  addFile("/a", "");
  EXPECT_EQ((Names{".", "..", "Mroute4_default", "a", "b"}), list("/"));
}

TEST_F(FuseTest, hasNoOtherDirectory) {
  addFile("/a", "");
  EXPECT_EQ(Names{}, list("/a", -ENOENT));
  EXPECT_EQ(Names{}, list("/none", -ENOENT));
}

TEST_F(FuseTest, leavesNamesOutThatWouldBreakTheListing) {
  addFile("/a", "");
  addFile("/b/c", "text");
  addFile("/", "");
  addFile("", "");
  addFile("/" + std::string(300, 'x'), "");
  EXPECT_EQ((Names{".", "..", "a"}), list("/"));
}

TEST_F(FuseTest, reportsTheRootAsADirectory) {
  EXPECT_EQ(0, getattr("/"));
  EXPECT_EQ(static_cast<mode_t>(S_IFDIR | 0755), attributes_.st_mode);
  EXPECT_EQ(2U, attributes_.st_nlink);
  EXPECT_EQ(0, attributes_.st_size);
}

TEST_F(FuseTest, reportsAFileWithTheSizeThatWasSet) {
  addFile("/a", "text");
  attributes_.st_uid = 77;
  fuseUpdateBufferSize(1500);
  EXPECT_EQ(0, getattr("/a"));
  EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0444), attributes_.st_mode);
  EXPECT_EQ(1U, attributes_.st_nlink);
  EXPECT_EQ(1500, attributes_.st_size);
  EXPECT_EQ(0U, attributes_.st_uid);
}

TEST_F(FuseTest, knowsNoFileThatIsNotRegistered) {
  addFile("/a", "text");
  for (const char* name : {"/b", "a", "/a/", "", "/aa"}) {
    EXPECT_EQ(-ENOENT, getattr(name)) << name;
    EXPECT_EQ(-ENOENT, open(name, O_RDONLY)) << name;
    EXPECT_EQ(-ENOENT, read(name, 10, 0)) << name;
  }
}

TEST_F(FuseTest, opensForReadingOnly) {
  addFile("/a", "text");
  EXPECT_EQ(0, open("/a", O_RDONLY));
  EXPECT_EQ(0, open("/a", O_RDONLY | O_NONBLOCK));
  EXPECT_EQ(-EACCES, open("/a", O_WRONLY));
  EXPECT_EQ(-EACCES, open("/a", O_RDWR));
  EXPECT_EQ(-EACCES, open("/none", O_WRONLY));
}

TEST_F(FuseTest, opensPastTheKernelsCache) {
  addFile("/a", "text");
  EXPECT_EQ(0, open("/a", O_RDONLY));
  EXPECT_EQ(1U, info_.direct_io);
  EXPECT_EQ(0U, info_.fh);
}

TEST_F(FuseTest, readsTheSliceThatWasAskedFor) {
  std::string text;
  for (int i = 0; i < 100; ++i) {
    text += static_cast<char>('a' + i % 26);
  }
  addFile("/a", text);
  EXPECT_EQ(100, read("/a", 4096, 0));
  EXPECT_EQ(text, text_);
  EXPECT_EQ(10, read("/a", 10, 0));
  EXPECT_EQ(text.substr(0, 10), text_);
  EXPECT_EQ(5, read("/a", 10, 95));
  EXPECT_EQ(text.substr(95), text_);
  EXPECT_EQ(1, read("/a", 10, 99));
  EXPECT_EQ(0, read("/a", 10, 100));
  EXPECT_EQ(0, read("/a", 10, 5000000000));
  EXPECT_EQ(0, read("/a", 10, -1));
  EXPECT_EQ(0, read("/a", 0, 0));
}

TEST_F(FuseTest, readsAnEmptyText) {
  addFile("/a", "");
  EXPECT_EQ(0, read("/a", 10, 0));
}

TEST_F(FuseTest, buildsTheTextForEveryRead) {
  int built = 0;
  addFile("/a", [&built] { return std::to_string(++built); });
  read("/a", 10, 0);
  EXPECT_EQ("1", text_);
  read("/a", 10, 0);
  EXPECT_EQ("2", text_);
}

TEST_F(FuseTest, readsTheSecondGeneratorOfAName) {
  addFile("/a", "first");
  addFile("/a", "second");
  EXPECT_EQ((Names{".", "..", "a"}), list("/"));
  read("/a", 10, 0);
  EXPECT_EQ("second", text_);
}

TEST_F(FuseTest, failsAReadWhoseGeneratorThrows) {
  addFile("/a", []() -> std::string { throw std::runtime_error("broken"); });
  addFile("/b", []() -> std::string { throw 5; });
  EXPECT_EQ(-EIO, read("/a", 10, 0));
  EXPECT_EQ(-EIO, read("/b", 10, 0));
  fuseDeRegister("/a");  // does not wait for a run that is over
  EXPECT_EQ(-ENOENT, read("/a", 10, 0));
}

TEST_F(FuseTest, ignoresTheRemovalOfAFileThatIsNotThere) {
  addFile("/a", "text");
  fuseDeRegister("/b");
  EXPECT_EQ(4, read("/a", 10, 0));
}

TEST_F(FuseTest, runsAGeneratorOnAnOnlineReader) {
  int online = 0;
  addFile("/a", [&online] {
    online = urcu_qsbr_read_ongoing();
    return std::string();
  });
  std::thread([&] {
    for (int i = 0; i < 2; ++i) {
      online = 0;
      read("/a", 10, 0);
      EXPECT_NE(0, online);
      EXPECT_EQ(0, urcu_qsbr_read_ongoing());
    }
  }).join();
  urcu_qsbr_synchronize_rcu();  // the ended thread is not waited for
}

TEST_F(FuseTest, leavesAReaderOnlineThatCallsWhileOnline) {
  addFile("/a", "text");
  std::thread([&] {
    urcu_qsbr_register_thread();
    EXPECT_EQ(4, read("/a", 10, 0));
    EXPECT_NE(0, urcu_qsbr_read_ongoing());
    urcu_qsbr_unregister_thread();
  }).join();
}

// A file whose generator runs until it is told to end.
class SlowFile {
 public:
  std::function<std::string()> generator() {
    return [this] {
      running_.count_down();
      end_.wait();
      ended_ = true;
      return std::string("slow");
    };
  }
  void waitUntilRunning() { running_.wait(); }
  void end() { end_.count_down(); }
  bool ended() const { return ended_; }

 private:
  std::latch running_{1};
  std::latch end_{1};
  std::atomic<bool> ended_{false};
};

TEST_F(FuseTest, removesAFileOnlyWhenItsGeneratorHasEnded) {
  SlowFile slow;
  addFile("/slow", slow.generator());
  std::thread reader([&] { EXPECT_EQ(4, read("/slow", 10, 0)); });
  slow.waitUntilRunning();
  std::promise<bool> removed;
  std::thread remover([&] {
    fuseDeRegister("/slow");
    removed.set_value(slow.ended());
  });
  while (getattr("/slow") == 0) {  // gone for new readers although one is still inside
    std::this_thread::yield();
  }
  auto whenRemoved = removed.get_future();
  EXPECT_EQ(std::future_status::timeout, whenRemoved.wait_for(std::chrono::milliseconds(20)));
  slow.end();
  EXPECT_TRUE(whenRemoved.get());
  reader.join();
  remover.join();
}

TEST_F(FuseTest, removesAnotherFileWhileAGeneratorRuns) {
  SlowFile slow;
  addFile("/slow", slow.generator());
  addFile("/a", "text");
  std::thread reader([&] { EXPECT_EQ(4, read("/slow", 10, 0)); });
  slow.waitUntilRunning();
  fuseDeRegister("/a");
  EXPECT_FALSE(slow.ended());
  slow.end();
  reader.join();
}

TEST_F(FuseTest, holdsNoGracePeriodBackWhileARemovalWaits) {
  SlowFile slow;
  addFile("/slow", [wait = slow.generator()] {
    std::string text = wait();
    urcu_qsbr_synchronize_rcu();  // for ever, were the remover online
    return text;
  });
  std::thread reader([&] { EXPECT_EQ(4, read("/slow", 10, 0)); });
  slow.waitUntilRunning();
  std::promise<bool> removedOnline;
  std::thread remover([&] {
    urcu_qsbr_register_thread();
    fuseDeRegister("/slow");
    removedOnline.set_value(urcu_qsbr_read_ongoing() != 0);
    urcu_qsbr_unregister_thread();
  });
  while (getattr("/slow") == 0) {
    std::this_thread::yield();
  }
  slow.end();
  EXPECT_TRUE(removedOnline.get_future().get());
  reader.join();
  remover.join();
}

TEST_F(FuseTest, letsAGeneratorRemoveItsOwnFile) {
  addFile("/a", [] {
    fuseDeRegister("/a");
    return std::string("last");
  });
  EXPECT_EQ(4, read("/a", 10, 0));
  EXPECT_EQ(-ENOENT, read("/a", 10, 0));
}

TEST_F(FuseTest, dropsWhatARemovedGeneratorHeld) {
  auto held = std::make_shared<int>(1);
  addFile("/a", [held] { return std::to_string(*held); });
  read("/a", 10, 0);
  fuseDeRegister("/a");
  EXPECT_EQ(1, held.use_count());
}

TEST_F(FuseTest, setsNoCallbackButItsFour) {
  const fuse_operations& operations = fuseOperations();
  EXPECT_EQ(nullptr, operations.write);
  EXPECT_EQ(nullptr, operations.unlink);
  EXPECT_EQ(nullptr, operations.create);
  EXPECT_EQ(nullptr, operations.init);
  EXPECT_EQ(nullptr, operations.destroy);
  EXPECT_EQ(nullptr, operations.release);
}

TEST_F(FuseTest, tracesTheLifeOfAFile) {
  Gemlog::Capture trace;
  addFile("/a", "text");
  fuseDeRegister("/a");
  fuseDeInit();
  EXPECT_TRUE(trace.contains("Adding /a to the fuse registry. "));
  EXPECT_TRUE(trace.contains("Removing /a from the fuse registry. "));
  EXPECT_TRUE(trace.contains("void fuseDeInit(): "));
}

TEST_F(FuseTest, survivesReadersAndWritersAtOnce) {
  constexpr int kRounds = 2000;
  std::atomic<int> inside{0};
  std::atomic<bool> removed{false};
  std::atomic<int> violations{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      std::array<char, 16> buffer{};
      fuse_file_info info{};
      while (!done) {
        fuseOperations().read("/churn", buffer.data(), buffer.size(), 0, &info);
      }
    });
  }
  Gemlog::setLevel("Fuse", 2);  // not thousands of lines
  for (int round = 0; round < kRounds; ++round) {
    removed = false;
    fuseRegister("/churn", [&] {
      ++inside;
      violations += removed ? 1 : 0;
      --inside;
      return std::string("churn");
    });
    fuseUpdateBufferSize(static_cast<unsigned>(round));
    fuseDeRegister("/churn");
    removed = true;
    violations += inside != 0 ? 1 : 0;
  }
  Gemlog::setLevel("Fuse", 3);
  done = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(0, violations);
}

}  // namespace
