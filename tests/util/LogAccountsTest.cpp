#include "vantor/util/LogAccounts.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include "vantor/util/QMLogger.hpp"
#include "vantor/util/QMSharedLogger.hpp"

namespace vantor::util {
namespace {

using Level = QMLogger::Level;

// Keeps what reaches spdlog: the level and the bare message text.
class CapturingSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::pair<spdlog::level::level_enum, std::string>> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    lines_.emplace_back(msg.level, std::string(msg.payload.data(), msg.payload.size()));
  }
  void flush_() override {}

 private:
  std::vector<std::pair<spdlog::level::level_enum, std::string>> lines_;
};

// Points the process-wide shared logger at a capturing sink for one test
// and puts the previous logger and level back afterwards.
class SharedLoggerCapture : public testing::Test {
 protected:
  void SetUp() override {
    previousLogger_ = log().spdlogLogger();
    previousLevel_ = log().minimumLevel();
    auto logger = std::make_shared<spdlog::logger>("capture", sink_);
    logger->set_level(spdlog::level::off);  // the shared logger must lift this
    log().setSpdlogLogger(std::move(logger));
  }
  void TearDown() override {
    log().setSpdlogLogger(previousLogger_);
    log().setMinimumLevel(previousLevel_);
  }

  std::shared_ptr<CapturingSink> sink_ = std::make_shared<CapturingSink>();

 private:
  std::shared_ptr<spdlog::logger> previousLogger_;
  Level previousLevel_ = Level::info;
};

using SharedLogger = SharedLoggerCapture;
using LogAccounts = SharedLoggerCapture;

TEST_F(SharedLogger, DropsMessagesBelowItsLevelWithoutBuildingThemUnlessForced) {
  log().setMinimumLevel(Level::warning);
  int built = 0;
  auto message = [&built](std::string text) {
    return [&built, text] {
      ++built;
      return text;
    };
  };

  log().print(Level::info, false, false, "f.cpp", "fn", 1, message("dropped"));
  log().print(Level::warning, false, false, "f.cpp", "fn", 1, message("kept"));
  log().print(Level::verbose, true, false, "f.cpp", "fn", 1, message("forced"));
  log().print(Level::error, false, true, "f.cpp", "fn", 12, message("located"));

  EXPECT_EQ(built, 3);
  using Line = std::pair<spdlog::level::level_enum, std::string>;
  EXPECT_EQ(sink_->lines(), (std::vector<Line>{{spdlog::level::warn, "kept"},
                                               {spdlog::level::trace, "forced"},
                                               {spdlog::level::err, "[f.cpp:12 fn] located"}}));
}

TEST_F(LogAccounts, WritesMessagesTheSharedLoggerWouldFilterOnceAndWithoutLocation) {
  log().setMinimumLevel(Level::error);
  logAccounts().debug("token refreshed {}");
  logAccounts().log(Level::verbose, "signed out");

  using Line = std::pair<spdlog::level::level_enum, std::string>;
  EXPECT_EQ(sink_->lines(), (std::vector<Line>{{spdlog::level::debug, "token refreshed {}"},
                                               {spdlog::level::trace, "signed out"}}));
}

TEST_F(LogAccounts, IsMadeOnceWhenFirstUsedFromManyThreads) {
  constexpr int threads = 4;
  std::latch start(threads);
  std::vector<QMLogger*> seen(threads);
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) {
    workers.emplace_back([&, i] {
      start.arrive_and_wait();
      seen[static_cast<std::size_t>(i)] = &logAccounts();
      logAccounts().info("hello");
    });
  }
  for (auto& worker : workers) {
    worker.join();
  }
  for (auto* logger : seen) {
    EXPECT_EQ(logger, &logAccounts());
  }
  // One destination: each message reaches the shared logger exactly once.
  EXPECT_EQ(sink_->lines().size(), static_cast<std::size_t>(threads));
}

TEST(QMLogger, SendsEachMessageToEveryDestinationWhileDestinationsAreAdded) {
  QMLogger logger;
  std::atomic<int> first{0};
  std::atomic<int> later{0};
  logger.addDestination([&](Level level, const std::string& message) {
    if (level == Level::warning && message == "m") {
      ++first;
    }
  });
  logger.addDestination({});  // ignored

  std::thread adder([&] {
    for (int i = 0; i < 50; ++i) {
      logger.addDestination([&](Level, const std::string&) { ++later; });
    }
  });
  for (int i = 0; i < 200; ++i) {
    logger.warning("m");
  }
  adder.join();
  EXPECT_EQ(first, 200);

  later = 0;
  logger.error("after");
  EXPECT_EQ(later, 50);
}

}  // namespace
}  // namespace vantor::util
